#include "nbdd/remote/property_tree.h"

#include <string>
#include <utility>
#include <variant>

#include "nbd/bytes.h"
#include "nbd/contract.h"
#include "nbd/limits.h"

namespace Nbdd::Remote {

namespace {

using Control::Variant;
using Control::VariantEntry;
using Nbd::Extension::Property;
using Type = Property::Type;

/// A string of the protocol: without what follows a NUL, or a byte that is no UTF-8.
std::string wireText(std::string_view text) {
  const std::string_view cut = Nbd::truncateUtf8(text.substr(0, text.find('\0')), Nbd::maxStringLength);
  return Nbd::isWireString(cut) ? std::string(cut) : std::string();
}

void append(std::vector<Property>& properties, const Variant& values, std::size_t depth) {
  if (depth >= Nbd::maxPropertyDepth) return;
  for (const VariantEntry& entry : values) {
    if (properties.size() >= Nbd::maxProperties) return;
    Property& property = properties.emplace_back();
    property.depth = depth;
    property.name = wireText(entry.name);
    if (const auto* number = std::get_if<std::uint64_t>(&entry.value)) {
      property.type = Type::number;
      property.number = *number;
    } else if (const auto* text = std::get_if<std::string>(&entry.value)) {
      property.type = Type::text;
      property.octets = wireText(*text);
    } else if (const auto* binary = std::get_if<Control::Binary>(&entry.value)) {
      property.type = Type::octets;
      property.octets = binary->octets.substr(0, Nbd::maxStringLength);
    } else if (const auto* list = std::get_if<Variant>(&entry.value)) {
      property.type = Type::list;
      append(properties, *list, depth + 1);
    }
  }
}

VariantEntry entryOf(const Property& property) {
  switch (property.type) {
    case Type::none:
      break;
    case Type::number:
      return {property.name, property.number};
    case Type::text:
      return {property.name, property.octets};
    case Type::octets:
      return {property.name, Control::Binary{property.octets}};
    case Type::list:
      return {property.name, Variant()};
  }
  return {property.name, std::monostate()};
}

}  // namespace

std::vector<Property> flatten(const Variant& values) {
  std::vector<Property> properties;
  append(properties, values, 0);
  return properties;
}

Variant unflatten(const std::vector<Property>& properties) {
  Variant values;
  std::vector<Variant*> open = {&values};  // the list at each depth that takes the next member
  for (const Property& property : properties) {
    Nbd::require(property.depth < open.size());
    open.resize(property.depth + 1);
    VariantEntry& entry = open.back()->emplace_back(entryOf(property));
    if (auto* list = std::get_if<Variant>(&entry.value)) open.push_back(list);
  }
  return values;
}

}  // namespace Nbdd::Remote
