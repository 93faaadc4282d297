#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Control {

/// One value of a parsed JSON text: a view that is good as long as its document lives. An absent member and
/// `null` are the same: absent.
class JsonValue {
 public:
  JsonValue() = default;
  explicit JsonValue(const void* node) : node_(node) {}

  bool isAbsent() const { return node_ == nullptr; }
  bool isObject() const;
  bool isArray() const;

  /// The member called `name`; absent if there is none or this is not an object.
  JsonValue member(std::string_view name) const;
  /// How many elements an array has; 0 for anything else.
  std::size_t size() const;
  /// The element of an array; `index` is below `size`.
  JsonValue element(std::size_t index) const;

  /// The value if it has this type. A whole number from 0 to 2^64-1 is unsigned; one with a fraction, an
  /// exponent or a sign is not.
  std::optional<std::uint64_t> asUnsigned() const;
  std::optional<bool> asBoolean() const;
  std::optional<std::string_view> asString() const;

 private:
  const void* node_ = nullptr;
};

/// A JSON text from a peer, checked and parsed.
class JsonDocument {
 public:
  /// Fails, with a sentence, for text that is not UTF-8, that nests deeper than Limits::depth, or that is not
  /// one JSON value. The text need not outlive the call.
  static std::expected<JsonDocument, std::string> parse(std::string_view text);

  JsonDocument(JsonDocument&&) noexcept;
  JsonDocument& operator=(JsonDocument&&) noexcept;
  JsonDocument(const JsonDocument&) = delete;
  JsonDocument& operator=(const JsonDocument&) = delete;
  ~JsonDocument();

  JsonValue root() const;

 private:
  struct Tree;
  explicit JsonDocument(std::unique_ptr<Tree> tree);
  std::unique_ptr<Tree> tree_;
};

}  // namespace Control
