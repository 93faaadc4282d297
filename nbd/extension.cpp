#include "nbd/extension.h"

#include <algorithm>

#include "nbd/contract.h"

namespace Nbd::Extension {

namespace {

void appendShortText(std::vector<std::byte>& output, std::string_view text) {
  require(text.size() <= maxStringLength);
  appendBig(output, static_cast<std::uint16_t>(text.size()));
  appendText(output, text);
}

std::optional<std::string_view> readShortOctets(Reader& reader) {
  const auto length = reader.number<std::uint16_t>();
  if (!length || *length > maxStringLength) return std::nullopt;
  return reader.text(*length);
}

std::optional<std::string_view> readShortText(Reader& reader) {
  const std::optional<std::string_view> text = readShortOctets(reader);
  if (!text || !isWireString(*text)) return std::nullopt;
  return text;
}

void appendUuid(std::vector<std::byte>& output, const Uuid& uuid) {
  const std::size_t before = output.size();
  output.resize(before + uuid.size());
  std::ranges::copy(uuid, output.begin() + static_cast<std::ptrdiff_t>(before));
}

std::optional<Uuid> readUuid(Reader& reader) {
  const std::optional<Bytes> octets = reader.bytes(sizeof(Uuid));
  if (!octets) return std::nullopt;
  Uuid uuid;
  std::ranges::copy(*octets, uuid.begin());
  return uuid;
}

constexpr std::string_view digits = "0123456789abcdef";

/// Whether a dash stands before that octet in a UUID's text.
bool isAfterDash(std::size_t octet) { return octet == 4 || octet == 6 || octet == 8 || octet == 10; }

/// Reads a property's value, of the type that it already has.
bool readValue(Reader& reader, Property& property) {
  using Type = Property::Type;
  switch (property.type) {
    case Type::none:
    case Type::list:
      return true;
    case Type::number: {
      const auto number = reader.number<std::uint64_t>();
      property.number = number.value_or(0);
      return number.has_value();
    }
    case Type::text:
    case Type::octets: {
      const auto value = property.type == Type::text ? readShortText(reader) : readShortOctets(reader);
      property.octets = value.value_or("");
      return value.has_value();
    }
  }
  return false;
}

std::optional<Property> readProperty(Reader& reader) {
  const auto depth = reader.number<std::uint8_t>();
  const auto type = reader.number<Property::Type>();
  const std::optional<std::string_view> name = readShortText(reader);
  if (!depth || !type || !name || *depth >= maxPropertyDepth) return std::nullopt;
  Property property{.depth = *depth, .type = *type, .name = std::string(*name)};
  if (!readValue(reader, property)) return std::nullopt;
  return property;
}

std::optional<ExportEntry> readExport(Reader& reader) {
  const std::optional<Uuid> uuid = readUuid(reader);
  const auto size = reader.number<std::uint64_t>();
  const auto flags = reader.number<std::uint32_t>();
  const std::optional<std::string_view> name = readShortText(reader);
  if (!uuid || !size || !flags || !name) return std::nullopt;
  return ExportEntry{.uuid = *uuid, .size = *size, .flags = *flags, .name = std::string(*name)};
}

/// Takes back what made the body too long. An entry of its own always fits.
bool keepIfShort(std::vector<std::byte>& body, std::size_t before) {
  if (body.size() <= maxExtensionBody) return true;
  require(before > 0);
  body.resize(before);
  return false;
}

}  // namespace

void appendHeader(std::vector<std::byte>& output, Header header) {
  appendBig(output, header.version);
  appendBig(output, header.kind);
}

std::optional<Header> readHeader(Reader& reader) {
  const auto version = reader.number<std::uint16_t>();
  const auto kind = reader.number<Kind>();
  if (!version || !kind) return std::nullopt;
  return Header{.version = *version, .kind = *kind};
}

std::string uuidText(const Uuid& uuid) {
  if (uuid == Uuid{}) return {};
  std::string text;
  for (std::size_t octet = 0; octet < uuid.size(); ++octet) {
    if (isAfterDash(octet)) text += '-';
    const auto value = std::to_integer<std::size_t>(uuid[octet]);
    text += digits[value >> 4];
    text += digits[value & 15];
  }
  return text;
}

std::optional<Uuid> parseUuid(std::string_view text) {
  Uuid uuid{};
  if (text.empty()) return uuid;
  std::size_t at = 0;
  const auto digit = [&]() -> std::optional<std::size_t> {
    const std::size_t value = at < text.size() ? digits.find(text[at++]) : std::string_view::npos;
    if (value == std::string_view::npos) return std::nullopt;
    return value;
  };
  for (std::size_t octet = 0; octet < uuid.size(); ++octet) {
    if (isAfterDash(octet)) {
      if (!text.substr(at).starts_with('-')) return std::nullopt;
      ++at;
    }
    const auto high = digit();
    const auto low = digit();
    if (!high || !low) return std::nullopt;
    uuid[octet] = static_cast<std::byte>(*high << 4 | *low);
  }
  if (at != text.size()) return std::nullopt;
  return uuid;
}

std::vector<std::byte> encodeHello(const Hello& hello) {
  std::vector<std::byte> body;
  appendBig(body, hello.minimumVersion);
  appendBig(body, hello.maximumVersion);
  appendBig(body, hello.capabilities);
  appendUuid(body, hello.server);
  appendShortText(body, hello.product);
  return body;
}

std::optional<Hello> decodeHello(Bytes body) {
  Reader reader(body);
  const auto minimum = reader.number<std::uint16_t>();
  const auto maximum = reader.number<std::uint16_t>();
  const auto capabilities = reader.number<std::uint32_t>();
  const std::optional<Uuid> server = readUuid(reader);
  const std::optional<std::string_view> product = readShortText(reader);
  if (!minimum || !maximum || !capabilities || !server || !product) return std::nullopt;
  if (*minimum == helloVersion || *minimum > *maximum) return std::nullopt;
  return Hello{.minimumVersion = *minimum,
               .maximumVersion = *maximum,
               .capabilities = *capabilities,
               .server = *server,
               .product = std::string(*product)};
}

std::optional<std::uint16_t> commonVersion(const Hello& one, const Hello& other) {
  const std::uint16_t highest = std::min(one.maximumVersion, other.maximumVersion);
  if (highest < std::max(one.minimumVersion, other.minimumVersion)) return std::nullopt;
  return highest;
}

bool appendProperty(std::vector<std::byte>& body, const Property& property) {
  const std::size_t before = body.size();
  appendBig(body, narrow<std::uint8_t>(property.depth));
  appendBig(body, property.type);
  appendShortText(body, property.name);
  if (property.type == Property::Type::number) appendBig(body, property.number);
  if (property.type == Property::Type::text || property.type == Property::Type::octets)
    appendShortText(body, property.octets);
  return keepIfShort(body, before);
}

bool readProperties(Bytes body, std::vector<Property>& properties) {
  Reader reader(body);
  while (!reader.atEnd()) {
    std::optional<Property> property = readProperty(reader);
    if (!property || properties.size() >= maxProperties) return false;
    const bool goesDeeper = !properties.empty() && properties.back().type == Property::Type::list;
    const std::size_t deepest = properties.empty() ? 0 : properties.back().depth + (goesDeeper ? 1 : 0);
    if (property->depth > deepest) return false;
    properties.push_back(*std::move(property));
  }
  return true;
}

bool appendExport(std::vector<std::byte>& body, const ExportEntry& entry) {
  const std::size_t before = body.size();
  appendUuid(body, entry.uuid);
  appendBig(body, entry.size);
  appendBig(body, entry.flags);
  appendShortText(body, entry.name);
  return keepIfShort(body, before);
}

bool readExports(Bytes body, std::vector<ExportEntry>& entries) {
  Reader reader(body);
  while (!reader.atEnd()) {
    std::optional<ExportEntry> entry = readExport(reader);
    if (!entry) return false;
    entries.push_back(*std::move(entry));
  }
  return true;
}

std::vector<std::byte> encodeCompression(const Compression& compression) {
  std::vector<std::byte> body;
  appendBig(body, compression.algorithm);
  appendBig(body, compression.blockLength);
  return body;
}

std::optional<Compression> decodeCompression(Bytes body) {
  Reader reader(body);
  const auto algorithm = reader.number<Compression::Algorithm>();
  const auto blockLength = reader.number<std::uint32_t>();
  if (!algorithm || !blockLength || !reader.atEnd()) return std::nullopt;
  return Compression{.algorithm = *algorithm, .blockLength = *blockLength};
}

}  // namespace Nbd::Extension
