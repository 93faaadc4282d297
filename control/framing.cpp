#include "control/framing.h"

#include <algorithm>

namespace Control {

std::span<char> Framing::prepare() {
  if (taken_ > 0) {
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(taken_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(filled_), buffer_.begin());
    filled_ -= taken_;
    scanned_ -= taken_;
    taken_ = 0;
  }
  if (buffer_.size() - filled_ < room_) buffer_.resize(filled_ + room_);
  return {buffer_.data() + filled_, buffer_.size() - filled_};
}

void Framing::commit(std::size_t count) {
  filled_ += count;
  // A peer that fills the room has more to say: fewer, larger pieces then cost less.
  if (filled_ == buffer_.size()) room_ = std::min(2 * room_, greatestRoom);
}

bool Framing::hasMessage() {
  const std::size_t end = findEnd();
  return !tooLong_ && end < filled_;
}

std::optional<std::string_view> Framing::next() {
  const std::size_t end = findEnd();
  if (tooLong_ || end == filled_) return std::nullopt;
  const std::string_view message(buffer_.data() + taken_, end - taken_);
  taken_ = scanned_ = end + 1;
  return message;
}

// Where the NUL stands that ends the next message, or the end of what has arrived.
std::size_t Framing::findEnd() {
  scanned_ = std::min(filled_, std::string_view(buffer_).substr(0, filled_).find('\0', scanned_));
  tooLong_ = tooLong_ || scanned_ - taken_ > longest_;
  return scanned_;
}

}  // namespace Control
