#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/variant.h"
#include "tests/support/scripted_platform.h"

/// Variants for tests, written down as the lists that they are.
namespace Support {

using Services::NBD::Client::Types::BinaryData;
using Services::NBD::Client::Types::Variant;
using Services::NBD::Client::Types::VariantEntry;
using Services::NBD::Client::Types::VariantType;

inline Variant list(const std::vector<VariantEntry>& entries) {
  Variant variant(entries.size());
  for (std::size_t index = 0; index < entries.size(); ++index) {
    variant.entry(index) = entries[index];
  }
  return variant;
}

/// An entry without a value of the given type.
inline VariantEntry entryOf(std::string_view name, VariantType type) {
  VariantEntry entry;
  entry.type = type;
  entry.name = text(name);
  return entry;
}

inline VariantEntry number(std::string_view name, std::uint64_t value) {
  VariantEntry entry = entryOf(name, VariantType::Number);
  entry.number = value;
  return entry;
}

inline VariantEntry words(std::string_view name, std::string_view value) {
  VariantEntry entry = entryOf(name, VariantType::Text);
  entry.text = text(value);
  return entry;
}

inline VariantEntry octets(std::string_view name, std::size_t length) {
  VariantEntry entry = entryOf(name, VariantType::Binary);
  entry.binary = BinaryData::create(std::vector<std::byte>(length));
  return entry;
}

inline VariantEntry nested(std::string_view name, const std::vector<VariantEntry>& entries) {
  VariantEntry entry = entryOf(name, VariantType::Nested);
  entry.nested = list(entries);
  return entry;
}

}  // namespace Support
