#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>

namespace Simulation {

/// A set of bytes, as ranges that neither touch nor overlap.
class Intervals {
 public:
  void add(std::uint64_t begin, std::uint64_t end) {
    if (begin == end) {
      return;
    }
    auto next = ranges_.upper_bound(begin);
    if (next != ranges_.begin() && std::prev(next)->second >= begin) {
      --next;
      begin = next->first;
    }
    while (next != ranges_.end() && next->first <= end) {
      end = std::max(end, next->second);
      next = ranges_.erase(next);
    }
    ranges_.emplace(begin, end);
  }

  bool covers(std::uint64_t begin, std::uint64_t end) const {
    if (begin == end) {
      return true;
    }
    const auto next = ranges_.upper_bound(begin);
    return next != ranges_.begin() && std::prev(next)->second >= end;
  }

  bool overlaps(std::uint64_t begin, std::uint64_t end) const {
    const auto next = ranges_.lower_bound(end);
    return begin < end && next != ranges_.begin() && std::prev(next)->second > begin;
  }

  bool empty() const { return ranges_.empty(); }

 private:
  std::map<std::uint64_t, std::uint64_t> ranges_;
};

}  // namespace Simulation
