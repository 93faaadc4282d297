#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

/// Big-endian numbers and strings in byte sequences. Everything here is inline or a few lines: the data path
/// decodes and encodes each request with it.
namespace Nbd {

using Bytes = std::span<const std::byte>;

/// Numbers of the wire: unsigned integers and the enumerations over them.
template <typename T>
concept WireNumber =
    std::unsigned_integral<T> || (std::is_enum_v<T> && std::unsigned_integral<std::underlying_type_t<T>>);

namespace Detail {
template <std::unsigned_integral T>
constexpr T bigEndian(T value) {
  if constexpr (std::endian::native == std::endian::little) {
    return std::byteswap(value);
  } else {
    return value;
  }
}
}  // namespace Detail

/// The number that stands big-endian in `bytes`, at any alignment. Any bit pattern is a value, also of an
/// enumeration.
template <WireNumber T>
[[nodiscard]] constexpr T loadBig(std::span<const std::byte, sizeof(T)> bytes) {
  if constexpr (std::is_enum_v<T>) {
    return static_cast<T>(loadBig<std::underlying_type_t<T>>(bytes));
  } else if (std::is_constant_evaluated()) {
    std::uint64_t value = 0;
    for (const std::byte byte : bytes) value = (value << 8) | std::to_integer<std::uint64_t>(byte);
    return static_cast<T>(value);
  } else {
    T value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return Detail::bigEndian(value);
  }
}

/// Stores `value` big-endian into `bytes`, at any alignment.
template <WireNumber T>
constexpr void storeBig(std::span<std::byte, sizeof(T)> bytes, T value) {
  if constexpr (std::is_enum_v<T>) {
    storeBig<std::underlying_type_t<T>>(bytes, static_cast<std::underlying_type_t<T>>(value));
  } else if (std::is_constant_evaluated()) {
    for (std::size_t index = 0; index < sizeof(T); ++index) {
      bytes[index] =
          static_cast<std::byte>(static_cast<std::uint64_t>(value) >> (8 * (sizeof(T) - 1 - index)));
    }
  } else {
    const T swapped = Detail::bigEndian(value);
    std::memcpy(bytes.data(), &swapped, sizeof swapped);
  }
}

/// Appends `value` big-endian to `output`.
template <WireNumber T>
void appendBig(std::vector<std::byte>& output, T value) {
  const std::size_t offset = output.size();
  output.resize(offset + sizeof(T));
  storeBig<T>(std::span<std::byte, sizeof(T)>(output.data() + offset, sizeof(T)), value);
}

/// Appends the bytes of `text` to `output`, without length or terminator.
inline void appendText(std::vector<std::byte>& output, std::string_view text) {
  const Bytes bytes = std::as_bytes(std::span(text));
  output.insert(output.end(), bytes.begin(), bytes.end());
}

/// The same bytes as characters. Lives as long as they do.
[[nodiscard]] inline std::string_view asText(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};  // char may alias anything
}

/// Reads a byte sequence from front to back and never beyond its end. Each read that asks for more than
/// remains returns nothing and moves nothing. What it returns refers to the bytes given, which must outlive
/// it.
class Reader {
 public:
  constexpr explicit Reader(Bytes bytes) : rest_(bytes) {}

  [[nodiscard]] constexpr std::size_t remaining() const { return rest_.size(); }
  [[nodiscard]] constexpr bool atEnd() const { return rest_.empty(); }

  template <WireNumber T>
  [[nodiscard]] constexpr std::optional<T> number() {
    if (rest_.size() < sizeof(T)) return std::nullopt;
    const T value = loadBig<T>(rest_.template first<sizeof(T)>());
    rest_ = rest_.subspan(sizeof(T));
    return value;
  }

  [[nodiscard]] constexpr std::optional<Bytes> bytes(std::size_t length) {
    if (length > rest_.size()) return std::nullopt;
    const Bytes taken = rest_.first(length);
    rest_ = rest_.subspan(length);
    return taken;
  }

  /// `length` bytes as text, unchecked: see isWireString().
  [[nodiscard]] std::optional<std::string_view> text(std::size_t length) {
    const std::optional<Bytes> taken = bytes(length);
    if (!taken) return std::nullopt;
    return asText(*taken);
  }

 private:
  Bytes rest_;
};

/// Whether `text` is well-formed UTF-8: shortest forms only, no surrogates, nothing above U+10FFFF.
[[nodiscard]] bool isUtf8(std::string_view text);

/// Whether `text` may be a string of the protocol: at most 4096 bytes of UTF-8 without NUL.
[[nodiscard]] bool isWireString(std::string_view text);

/// The longest start of `text` of at most `limit` bytes that ends between two characters.
[[nodiscard]] std::string_view truncateUtf8(std::string_view text, std::size_t limit);

}  // namespace Nbd
