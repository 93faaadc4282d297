#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Nbdd {

// What a transfer is cut into is independent: a block is compressed by zstd without regard to any other, so
// that nothing has to be remembered between transfers, and a block that does not shrink stays as it is.

/// What becomes of one block of a transfer.
enum class Attempt : std::uint8_t {
  none,      // it goes plain
  hopeful,   // it does not look like noise
  doubtful,  // it does, but one in many is tried all the same
};

/// Decides which blocks of a connection are worth an attempt, for next to nothing: a look at a sample of the
/// bytes of each, and a memory of how attempts went. One thread.
class CompressionSampler {
 public:
  /// What to do with each block of a transfer; empty if none is to be tried.
  std::vector<Attempt> choose(std::span<const std::byte> plain, std::uint32_t blockLength);
  /// How it went: what was chosen, before and after compressBlocks().
  void note(const std::vector<Attempt>& before, const std::vector<Attempt>& after);

 private:
  /// Attempts that fail are made less and less often.
  struct Patience {
    std::uint32_t passOver = 0;  // so many yet
    std::uint32_t pause = 0;     // so many the next time

    bool allows();
    void failed();
  };

  Attempt look(std::span<const std::byte> block);

  Patience noise_;
  Patience stubborn_;  // does not look like noise, but is
};

/// How hard to try. What comes out has the same form, and is expanded at the same speed.
enum class Effort : std::uint8_t {
  quick,     // the processor is what is waited for: up to a quarter more bytes per second
  thorough,  // the network is: up to a tenth fewer bytes on the wire
};

/// How hard a sender should try while `backlog` bytes that are ready to leave wait for the network.
Effort effortFor(std::size_t backlog);

/// Stores `plain` as framed blocks into `output`, which has plain.size() bytes, and returns their length; 0
/// if that would not save enough. What of `attempts` did not shrink becomes `none`. Any thread.
std::size_t compressBlocks(std::span<const std::byte> plain, std::uint32_t blockLength, Effort effort,
                           std::vector<Attempt>& attempts, std::span<std::byte> output);

/// Fills `plain` with what the framed blocks in `payload` stand for. False if they do not stand for exactly
/// so many bytes; then nothing of what is in `plain` means anything. Never writes beyond it, whatever the
/// blocks say, and takes time and memory in proportion to it. Any thread.
[[nodiscard]] bool expandBlocks(std::span<const std::byte> payload, std::uint32_t blockLength,
                                std::span<std::byte> plain);

}  // namespace Nbdd
