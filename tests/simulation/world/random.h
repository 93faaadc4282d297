#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

namespace Simulation {

/// The one source of every decision of a run. Not std::mt19937 with its distributions: their results differ
/// between standard libraries, and a seed shall mean the same run everywhere.
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  std::uint64_t next() {  // SplitMix64
    std::uint64_t value = state_ += 0x9e37'79b9'7f4a'7c15;
    value = (value ^ (value >> 30)) * 0xbf58'476d'1ce4'e5b9;
    value = (value ^ (value >> 27)) * 0x94d0'49bb'1331'11eb;
    return value ^ (value >> 31);
  }

  /// 0 to bound - 1
  std::uint64_t below(std::uint64_t bound) { return next() % bound; }
  /// first to last, both included
  std::uint64_t between(std::uint64_t first, std::uint64_t last) { return first + below(last - first + 1); }
  bool chance(unsigned int perMille) { return below(1000) < perMille; }
  /// Small numbers far more often than large ones, 1 to `largest`.
  std::uint64_t skewed(std::uint64_t largest) { return between(1, between(1, between(1, largest))); }

  template <class T>
  T pick(std::initializer_list<T> choices) {
    return choices.begin()[below(choices.size())];
  }
  /// The index of one of `items`, more often of those with a larger `weight`.
  template <class T>
  std::size_t weighted(const std::vector<T>& items) {
    std::uint64_t sum = 0;
    for (const T& item : items) sum += item.weight;
    std::uint64_t chosen = below(sum);
    std::size_t index = 0;
    while (chosen >= items[index].weight) chosen -= items[index++].weight;
    return index;
  }
  template <class T>
  void shuffle(std::vector<T>& items) {
    for (std::size_t left = items.size(); left > 1; --left) {
      std::swap(items[left - 1], items[below(left)]);
    }
  }

 private:
  std::uint64_t state_;
};

}  // namespace Simulation
