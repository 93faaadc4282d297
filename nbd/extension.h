#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nbd/bytes.h"
#include "nbd/limits.h"

/// The private extension of the handshake, as bytes: what two of our own peers say to one another inside of
/// one option that everybody else answers as unknown. docs/extension.md is its definition.
///
/// Every decoder takes the body of one message and returns nothing unless all of it is what the encoder of
/// the same name could have written.
namespace Nbd::Extension {

/// The versions of the messages that we speak.
inline constexpr std::uint16_t minimumVersion = 1;
inline constexpr std::uint16_t maximumVersion = 1;

/// Stands in front of a `hello`, which is the same in all versions.
inline constexpr std::uint16_t helloVersion = 0;

/// What a request asks for, and what the messages of its answer are.
enum class Kind : std::uint16_t {
  hello = 0,
  properties = 1,
  exports = 2,
  evaluate = 3,
  compression = 4,
  reserve = 0x10,      // the first and
  reserveLast = 0x1f,  // the last that are kept for reserving a server: an exchange of several steps
};

/// What a peer can do, in its hello. Unknown bits are to be ignored.
namespace Capability {
inline constexpr std::uint32_t compression = 1 << 0;
inline constexpr std::uint32_t diskSpec = 1 << 1;
inline constexpr std::uint32_t reservation = 1 << 2;
}  // namespace Capability

/// What stands before the body of each request and message.
struct Header {
  std::uint16_t version = maximumVersion;
  Kind kind = Kind::hello;  // may hold a number that no Kind names

  friend bool operator==(const Header&, const Header&) = default;
};
inline constexpr std::size_t headerSize = 4;

void appendHeader(std::vector<std::byte>& output, Header header);
/// Takes it from the front.
[[nodiscard]] std::optional<Header> readHeader(Reader& reader);

/// Sixteen octets; all zero for none.
using Uuid = std::array<std::byte, 16>;

/// The 8-4-4-4-12 form in lower case; empty for none.
[[nodiscard]] std::string uuidText(const Uuid& uuid);
/// Nothing if it is not of that form. The empty text is none.
[[nodiscard]] std::optional<Uuid> parseUuid(std::string_view text);

/// The first words of both sides.
struct Hello {
  std::uint16_t minimumVersion = Extension::minimumVersion;
  std::uint16_t maximumVersion = Extension::maximumVersion;
  std::uint32_t capabilities = 0;  // Capability
  Uuid server = {};                // who speaks; none if it is no server
  std::string product = {};        // name and version for people, a string of the protocol

  friend bool operator==(const Hello&, const Hello&) = default;
};
[[nodiscard]] std::vector<std::byte> encodeHello(const Hello& hello);
/// Ignores what later versions may have put behind it.
[[nodiscard]] std::optional<Hello> decodeHello(Bytes body);
/// The highest version that both speak.
[[nodiscard]] std::optional<std::uint16_t> commonVersion(const Hello& one, const Hello& other);

/// One named value of a tree, which is a sequence in which every list stands before its members.
struct Property {
  enum class Type : std::uint8_t { none = 0, number = 1, text = 2, octets = 3, list = 4 };

  std::size_t depth = 0;  // that of its list and one; 0 at the top
  Type type = Type::none;
  std::string name = {};     // a string of the protocol
  std::uint64_t number = 0;  // of a number
  std::string octets = {};   // of a text (a string of the protocol) or octets; at most maxStringLength

  friend bool operator==(const Property&, const Property&) = default;
};

/// Appends it to the body of a message. False if that would become longer than maxExtensionBody; then it has
/// not been changed, and the property begins the next message.
[[nodiscard]] bool appendProperty(std::vector<std::byte>& body, const Property& property);
/// Appends the properties of one message to those of the messages before. False if they are malformed, too
/// deep, too many, or do not go on where `properties` ends.
[[nodiscard]] bool readProperties(Bytes body, std::vector<Property>& properties);

/// One export of a server.
struct ExportEntry {
  Uuid uuid = {};
  std::uint64_t size = 0;   // bytes
  std::uint32_t flags = 0;  // the transmission flags in the lower 16 bits; the others are zero
  std::string name = {};    // a string of the protocol

  friend bool operator==(const ExportEntry&, const ExportEntry&) = default;
};
/// As appendProperty().
[[nodiscard]] bool appendExport(std::vector<std::byte>& body, const ExportEntry& entry);
/// As readProperties().
[[nodiscard]] bool readExports(Bytes body, std::vector<ExportEntry>& entries);

/// What is asked for, and agreed on, about compressed transfers.
struct Compression {
  enum class Algorithm : std::uint16_t { zstd = 1 };

  Algorithm algorithm = Algorithm::zstd;  // may hold a number that no Algorithm names
  std::uint32_t blockLength = 0;          // bytes of plain data in each compressed block

  friend bool operator==(const Compression&, const Compression&) = default;
};
[[nodiscard]] std::vector<std::byte> encodeCompression(const Compression& compression);
[[nodiscard]] std::optional<Compression> decodeCompression(Bytes body);

}  // namespace Nbd::Extension
