#include "platform/string.h"

#include <algorithm>
#include <cstring>
#include <utility>

String::String(std::string bytes) noexcept : bytes_(std::move(bytes)) {}

Ref<String> String::create() { return create(std::string_view()); }

Ref<String> String::create(const char* text, std::uint64_t start, std::int64_t length) {
  const std::string_view whole(text);
  const std::size_t from = std::min<std::uint64_t>(start, whole.size());
  return create(whole.substr(from, length < 0 ? std::string_view::npos : static_cast<std::size_t>(length)));
}

Ref<String> String::create(std::string_view bytes) { return makeRef<String>(std::string(bytes)); }

Ref<String> String::toString() { return Ref<String>(this); }

std::string_view String::view() const noexcept { return bytes_; }

bool String::isEmpty() const noexcept { return bytes_.empty(); }

bool String::equals(const Ref<String>& other) const noexcept { return other && bytes_ == other->bytes_; }

bool String::equals(std::string_view other) const noexcept { return bytes_ == other; }
