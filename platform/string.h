#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/object.h"

/// Immutable text: a run of bytes, UTF-8 by convention. Nothing is checked or changed, so bytes that are no
/// valid UTF-8, NUL among them, come out as they went in. May be shared between threads.
class String final : public Object {
 public:
  /// The empty text.
  [[nodiscard]] static Ref<String> create();

  /// A copy of `length` bytes of the NUL-terminated `text` from the byte `start` on. A length of -1 means up
  /// to the terminating NUL; a start or length beyond it stops there.
  [[nodiscard]] static Ref<String> create(const char* text, std::uint64_t start, std::int64_t length);

  /// A copy of `bytes`, whatever they hold.
  [[nodiscard]] static Ref<String> create(std::string_view bytes);

  /// The object as text, which for a String is the String itself.
  [[nodiscard]] virtual Ref<String> toString();

  /// The bytes; valid as long as somebody holds the String.
  [[nodiscard]] std::string_view view() const noexcept;

  /// Whether the text has no bytes.
  [[nodiscard]] bool isEmpty() const noexcept;

  /// Whether both texts have the same bytes; letter case counts. No text (an empty Ref) equals nothing.
  [[nodiscard]] bool equals(const Ref<String>& other) const noexcept;
  [[nodiscard]] bool equals(std::string_view other) const noexcept;

 private:
  explicit String(std::string bytes) noexcept;

  template <class T, class... Arguments>
  friend Ref<T> makeRef(Arguments&&... arguments);

  const std::string bytes_;
};
