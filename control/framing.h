#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Control {

/// Takes messages, each ended by a NUL byte, out of a stream that arrives in arbitrary pieces.
///
/// Bytes are received straight into its buffer (`prepare`, then `commit`) and messages are views into it, so
/// nothing is copied on the way. Holds at most one message of the greatest length and one receive buffer.
class Framing {
 public:
  /// Messages of up to `longest` bytes, the NUL not counted.
  explicit Framing(std::size_t longest) : longest_(longest) {}

  /// Room for the next bytes of the stream; good until the next call that is not const.
  std::span<char> prepare();
  /// Says that the first `count` bytes of that room are filled.
  void commit(std::size_t count);

  /// The next complete message, without its NUL; good until `prepare`. Nothing when none is complete.
  std::optional<std::string_view> next();

  /// Whether `next` would give a message.
  bool hasMessage();

  /// Whether the message at the head of the stream is longer than allowed; `next` gives nothing from then on.
  bool isTooLong() const { return tooLong_; }

  /// How many bytes of the stream wait here: of complete messages that `next` has not given out, and of the
  /// one that is still arriving.
  std::size_t arrived() const { return filled_ - taken_; }

  /// Whether part of a message has arrived, but not its end.
  bool hasPartialMessage() const { return arrived() > 0; }

 private:
  std::size_t findEnd();

  static constexpr std::size_t firstRoom = 4096;
  static constexpr std::size_t greatestRoom = std::size_t{64} * 1024;

  std::size_t longest_;
  std::size_t room_ = firstRoom;
  std::string buffer_;
  std::size_t taken_ = 0;    // start of what `next` has not given out yet
  std::size_t scanned_ = 0;  // no NUL from taken_ up to here
  std::size_t filled_ = 0;   // end of what has arrived
  bool tooLong_ = false;
};

}  // namespace Control
