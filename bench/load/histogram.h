#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace Bench {

/// Counts durations in buckets whose width grows with what they hold: a quantile is right to 1 %, from
/// nanoseconds to hours, in memory of a constant size. One thread at a time.
class Histogram {
 public:
  void add(std::chrono::nanoseconds duration) {
    const auto value = static_cast<std::uint64_t>(std::max<std::int64_t>(duration.count(), 0));
    ++counts_[std::min(bucketOf(value), counts_.size() - 1)];
    ++count_;
    largest_ = std::max(largest_, value);
  }

  void add(const Histogram& other) {
    std::ranges::transform(counts_, other.counts_, counts_.begin(), std::plus());
    count_ += other.count_;
    largest_ = std::max(largest_, other.largest_);
  }

  [[nodiscard]] std::uint64_t count() const { return count_; }
  [[nodiscard]] std::chrono::nanoseconds largest() const { return asDuration(largest_); }

  /// What that share (0 to 1) of all durations does not exceed; 0 when nothing was added.
  [[nodiscard]] std::chrono::nanoseconds quantile(double share) const {
    const auto rank = static_cast<std::uint64_t>(share * static_cast<double>(count_));
    std::uint64_t passed = 0;
    for (std::size_t bucket = 0; bucket < counts_.size(); ++bucket) {
      passed += counts_[bucket];
      if (passed > rank) {
        return asDuration(std::min(middleOf(bucket), largest_));
      }
    }
    return largest();
  }

 private:
  // Values below 128 have a bucket each; beyond, each doubling is cut into 64.
  static constexpr int subBits = 6;
  static constexpr std::size_t subBuckets = std::size_t{1} << subBits;
  static constexpr int valueBits = 44;  // nearly five hours

  static std::chrono::nanoseconds asDuration(std::uint64_t value) {
    return std::chrono::nanoseconds(static_cast<std::int64_t>(value));
  }
  static constexpr std::size_t bucketOf(std::uint64_t value) {
    const int shift = std::max(static_cast<int>(std::bit_width(value)) - (subBits + 1), 0);
    return static_cast<std::size_t>(shift) * subBuckets + static_cast<std::size_t>(value >> shift);
  }
  static constexpr std::uint64_t middleOf(std::size_t bucket) {
    const std::size_t shift = bucket < 2 * subBuckets ? 0 : bucket / subBuckets - 1;
    const std::uint64_t first = std::uint64_t{bucket - shift * subBuckets} << shift;
    return first + ((std::uint64_t{1} << shift) - 1) / 2;
  }

  std::array<std::uint64_t, (valueBits - subBits + 1) * subBuckets> counts_{};
  std::uint64_t count_ = 0;
  std::uint64_t largest_ = 0;
};

}  // namespace Bench
