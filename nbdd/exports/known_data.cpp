#include "nbdd/exports/known_data.h"

#include <algorithm>
#include <iterator>

#include "nbdd/limits.h"

namespace Nbdd {

namespace {

// To walk less than this takes less time than to remember it is worth: some 250 pages.
constexpr std::uint64_t shortest = std::uint64_t{1024} * 1024;

}  // namespace

std::optional<std::uint64_t> KnownData::endAt(std::uint64_t offset) const {
  const std::lock_guard lock(mutex_);
  const auto behind = ends_.upper_bound(offset);
  if (behind == ends_.begin() || std::prev(behind)->second <= offset) return std::nullopt;
  return std::prev(behind)->second;
}

std::uint64_t KnownData::generation() const {
  const std::lock_guard lock(mutex_);
  return generation_;
}

void KnownData::learn(std::uint64_t generation, std::uint64_t begin, std::uint64_t end) {
  if (end - begin < shortest) return;
  const std::lock_guard lock(mutex_);
  if (generation != generation_) return;
  if (ends_.size() >= Limits::knownDataRuns) ends_.clear();
  auto next = ends_.upper_bound(begin);
  if (next != ends_.begin() && std::prev(next)->second >= begin) {
    --next;
    begin = next->first;
  }
  while (next != ends_.end() && next->first <= end) {
    end = std::max(end, next->second);
    next = ends_.erase(next);
  }
  ends_.emplace_hint(next, begin, end);
}

void KnownData::forget() {
  const std::lock_guard lock(mutex_);
  ++generation_;
  ends_.clear();
}

}  // namespace Nbdd
