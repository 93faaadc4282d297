#pragma once

#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace Control {

/// Writes one JSON text, front to back, without a tree in between: a listing of thousands of exports is
/// written one record at a time, and building trees for it would cost more than everything else together.
///
/// The caller sees to the grammar (keys in objects, as many ends as begins); commas come by themselves. Text
/// that is not UTF-8 is written with U+FFFD for each wrong byte and remembered in `sawInvalidText`.
class JsonWriter {
 public:
  void beginObject() { begin('{'); }
  void endObject() { end('}'); }
  void beginArray() { begin('['); }
  void endArray() { end(']'); }

  void key(std::string_view name) {
    string(name);
    text_ += ':';
    separate_ = false;
  }

  void number(std::unsigned_integral auto value) {
    char digits[20];
    const auto written = std::to_chars(digits, digits + sizeof digits, value);
    raw({digits, static_cast<std::size_t>(written.ptr - digits)});
  }

  void boolean(bool value) { raw(value ? "true" : "false"); }

  void string(std::string_view value);

  /// Remembers that a value had no true form here.
  void distort() { distorted_ = true; }
  bool isDistorted() const { return distorted_; }
  /// The deepest nesting so far.
  std::size_t depth() const { return deepest_; }
  std::string take() { return std::move(text_); }

 private:
  void begin(char bracket) {
    raw({&bracket, 1});
    separate_ = false;
    deepest_ = std::max(deepest_, ++depth_);
  }
  void end(char bracket) {
    text_ += bracket;
    separate_ = true;
    --depth_;
  }
  void raw(std::string_view token) {
    if (separate_) text_ += ',';
    text_ += token;
    separate_ = true;
  }

  void escape(char character);

  std::string text_;
  std::size_t depth_ = 0;
  std::size_t deepest_ = 0;
  bool separate_ = false;
  bool distorted_ = false;
};

}  // namespace Control
