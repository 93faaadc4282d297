#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/string.h"

namespace Services::NBD::Client::Types {

/// Immutable bytes without a meaning of their own.
class BinaryData final : public Object {
 public:
  /// Takes over `bytes`.
  [[nodiscard]] static Ref<BinaryData> create(std::vector<std::byte> bytes);

  /// How many bytes there are.
  [[nodiscard]] std::uint64_t length() const noexcept;

  [[nodiscard]] const std::vector<std::byte>& bytes() const noexcept;

 private:
  explicit BinaryData(std::vector<std::byte> bytes) noexcept;

  const std::vector<std::byte> bytes_;
};

/// What a VariantEntry holds. The service may send values that are not listed here.
enum class VariantType : std::uint32_t {
  Empty = 0,
  Number = 1,
  Text = 2,
  Binary = 3,
  Nested = 4,
};

struct VariantEntry;

/// Self-describing information: an ordered list of named, typed values, which may nest. A value: copies are
/// deep in the list, and share the texts and the binary data.
class Variant {
 public:
  /// The empty list.
  Variant() noexcept;

  /// `count` default entries, to be filled through `entry`.
  explicit Variant(std::uint64_t count);

  Variant(const Variant& other);
  Variant(Variant&& other) noexcept;
  Variant& operator=(Variant other) noexcept;

  /// Destroys the entries from the last to the first.
  ~Variant();

  /// How many entries there are.
  [[nodiscard]] std::uint64_t count() const noexcept { return count_; }

  /// For how many entries there is room: `count`, as no list grows once it is made.
  [[nodiscard]] std::uint64_t capacity() const noexcept { return capacity_; }

  /// The entry at `index`, counted from 0. An index from `count` on ends the process.
  [[nodiscard]] const VariantEntry& entry(std::uint64_t index) const;
  [[nodiscard]] VariantEntry& entry(std::uint64_t index);

 private:
  std::uint64_t count_ = 0;
  std::uint64_t capacity_ = 0;
  std::unique_ptr<VariantEntry[]> entries_;
};

/// One named value. All fields exist whatever the type; only the one that the type names means anything. The
/// order of the fields is the reverse of the order in which they are released.
struct VariantEntry {
  VariantType type = VariantType::Empty;
  std::uint64_t number = 0;
  Ref<String> text;
  Ref<BinaryData> binary;
  Variant nested;
  Ref<String> name = String::create();
};

}  // namespace Services::NBD::Client::Types
