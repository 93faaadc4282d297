#pragma once

#include <cstdint>

#include "platform/variant.h"

/// How open-ended information is shown.
namespace Server {

/// What nested entries are indented by for each level, and those of a property list.
inline constexpr const char* propertyIndent = "          ";

/// Prints one entry and, below it, the entries that it nests. Each line is indented by two blanks and `depth`
/// (none if it is negative) times `indent`; nested ones by two blanks and `propertyIndent` for each level,
/// whatever `indent` is. An entry of a type that has no name leaves its line open.
void printVariantEntry(const Services::NBD::Client::Types::VariantEntry& entry, std::int32_t depth,
                       const char* indent);

/// Prints `heading` with the number of entries, and then each entry, an empty line behind it.
void printPropertyList(const char* heading, const Services::NBD::Client::Types::Variant& properties);

}  // namespace Server
