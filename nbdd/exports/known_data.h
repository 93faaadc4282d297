#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

namespace Nbdd {

/// Ranges of a file that are known to hold data, so that their ends need not be looked for again.
///
/// Some file systems walk all of a run of data to find where it ends: tmpfs page by page, others extent by
/// extent. Whoever goes through a large run in small steps would have them walk the rest of it at each step,
/// which grows with the square of its length. It is enough to have walked it once.
///
/// A hole is never remembered, and what is remembered may turn out to be one by the time it is used: to take
/// a hole for data costs its bytes on the wire and nothing else. Any thread.
class KnownData {
 public:
  /// The end of the known data around `offset`; there may be more data behind it. Nothing if none is known.
  [[nodiscard]] std::optional<std::uint64_t> endAt(std::uint64_t offset) const;

  /// To be asked before a look at the file, for learn().
  [[nodiscard]] std::uint64_t generation() const;

  /// [begin, end) was seen to hold data by a look that began in that generation. Forgotten at once if data
  /// may have gone since then, or if the range is too short to be worth it.
  void learn(std::uint64_t generation, std::uint64_t begin, std::uint64_t end);

  /// Data may be going, or have gone: to be called before and after holes are made.
  void forget();

 private:
  mutable std::mutex mutex_;
  std::map<std::uint64_t, std::uint64_t> ends_;  // by begin; apart from one another
  std::uint64_t generation_ = 0;
};

}  // namespace Nbdd
