#pragma once

#include <cstddef>
#include <cstdint>

/// The NBD protocol in its own words: every number that may stand on the wire. All integers there are
/// unsigned and big-endian; bit 0 is the least significant. Source: the NBD protocol document (`doc/proto.md`
/// of the NBD project).
namespace Nbd {

// Magic words. The greeting is "NBDMAGIC" and "IHAVEOPT"; the latter stands before each option too.
inline constexpr std::uint64_t greetingMagic = 0x4e42'444d'4147'4943;
inline constexpr std::uint64_t optionMagic = 0x4948'4156'454f'5054;
inline constexpr std::uint64_t oldstyleMagic =
    0x0000'4202'8186'1253;  // second word of the obsolete handshake
inline constexpr std::uint64_t optionReplyMagic = 0x0003'e889'0455'65a9;
inline constexpr std::uint32_t requestMagic = 0x2560'9513;
inline constexpr std::uint32_t simpleReplyMagic = 0x6744'6698;
inline constexpr std::uint32_t chunkMagic = 0x668e'33ef;  // a chunk of a structured reply
inline constexpr std::uint32_t extendedRequestMagic = 0x21e4'1c71;
inline constexpr std::uint32_t extendedChunkMagic = 0x6e8a'278c;

// Sizes in bytes.
inline constexpr std::size_t greetingSize = 18;
inline constexpr std::size_t clientFlagsSize = 4;
inline constexpr std::size_t optionHeaderSize = 16;
inline constexpr std::size_t optionReplyHeaderSize = 20;
inline constexpr std::size_t exportNameReplySize = 10;     // size and transmission flags
inline constexpr std::size_t exportNamePaddingSize = 124;  // zeroes behind them, unless both agreed on none
inline constexpr std::size_t requestSize = 28;
inline constexpr std::size_t extendedRequestSize = 32;
inline constexpr std::size_t simpleReplySize = 16;
inline constexpr std::size_t chunkHeaderSize = 20;
inline constexpr std::size_t extendedChunkHeaderSize = 32;

// What stands in chunks, behind the header.
inline constexpr std::size_t offsetSize = 8;               // before the data of OFFSET_DATA
inline constexpr std::size_t holePayloadSize = 12;         // offset and length
inline constexpr std::size_t errorFixedSize = 6;           // error number and length of the message
inline constexpr std::size_t blockStatusFixedSize = 4;     // context id
inline constexpr std::size_t extentSize = 8;               // length and status
inline constexpr std::size_t extendedStatusFixedSize = 8;  // context id and number of extents
inline constexpr std::size_t extendedExtentSize = 16;      // length and status
inline constexpr std::size_t compressedFixedSize = 12;     // offset and plain length before the blocks

/// What both sides agreed on for the headers of the transmission phase.
enum class HeaderStyle : std::uint8_t {
  simple,      // compact requests, simple replies
  structured,  // compact requests; READ and BLOCK_STATUS are answered in chunks
  extended,    // requests with 64-bit lengths; every reply is made of chunks that hold them too
};

/// Whether one side wants its connections secured by TLS.
enum class TlsMode : std::uint8_t {
  off,
  allowed,   // a server: for clients that ask; a client: where the server has it, which whoever sits between
             // them can prevent
  required,  // not without
};

enum class Option : std::uint32_t {
  exportName = 1,
  abort = 2,
  list = 3,
  peekExport = 4,  // withdrawn, never supported
  startTls = 5,
  info = 6,
  go = 7,
  structuredReply = 8,
  listMetaContext = 9,
  setMetaContext = 10,
  extendedHeaders = 11,
  extension = 0x544c'564b,  // private, "TLVK": docs/extension.md
};

/// What a reply to an option says. Bit 31 marks errors; the data of an error is an optional text for people.
enum class ReplyType : std::uint32_t {
  ack = 1,
  server = 2,
  info = 3,
  metaContext = 4,
  extension = 0x544c'564b,  // private: a message of the extension
  unsupported = 0x8000'0001,
  policy = 0x8000'0002,
  invalid = 0x8000'0003,
  platform = 0x8000'0004,
  tlsRequired = 0x8000'0005,
  unknown = 0x8000'0006,
  shutdown = 0x8000'0007,
  blockSizeRequired = 0x8000'0008,
  tooBig = 0x8000'0009,
  extendedHeadersRequired = 0x8000'000a,
};
inline constexpr std::uint32_t replyErrorBit = 0x8000'0000;

enum class InfoType : std::uint16_t { exportInfo = 0, name = 1, description = 2, blockSize = 3 };

enum class Command : std::uint16_t {
  read = 0,
  write = 1,
  disconnect = 2,
  flush = 3,
  trim = 4,
  cache = 5,
  writeZeroes = 6,
  blockStatus = 7,
};

enum class ReplyChunk : std::uint16_t {
  none = 0,
  offsetData = 1,
  offsetHole = 2,
  blockStatus = 5,          // never with extended headers
  extendedBlockStatus = 6,  // never without
  compressedData = 0x4001,  // private, only where both sides agreed on it: docs/extension.md
  error = 0x8001,
  errorOffset = 0x8002,
};
inline constexpr std::uint16_t chunkErrorBit = 0x8000;

/// The error numbers of the wire. They are the protocol's own; a host's errno is translated, never copied.
enum class Error : std::uint32_t {
  none = 0,
  perm = 1,       // read-only or forbidden
  io = 5,         // the medium failed
  nomem = 12,     // avoided by us
  inval = 22,     // a bad request; clients read any number they do not know as this one
  nospc = 28,     // full, or a write beyond the end
  overflow = 75,  // a READ larger than what can be sent
  notsup = 95,    // a FAST_ZERO that would not be fast; nothing else
  shutdown = 108,
};

namespace HandshakeFlag {  // server, in the greeting
inline constexpr std::uint16_t fixedNewstyle = 1 << 0;
inline constexpr std::uint16_t noZeroes = 1 << 1;
}  // namespace HandshakeFlag

namespace ClientFlag {  // client, in answer to the greeting
inline constexpr std::uint32_t fixedNewstyle = 1 << 0;
inline constexpr std::uint32_t noZeroes = 1 << 1;
}  // namespace ClientFlag

namespace TransmissionFlag {  // what an export can do
inline constexpr std::uint16_t hasFlags = 1 << 0;
inline constexpr std::uint16_t readOnly = 1 << 1;
inline constexpr std::uint16_t sendFlush = 1 << 2;
inline constexpr std::uint16_t sendFua = 1 << 3;
inline constexpr std::uint16_t rotational = 1 << 4;
inline constexpr std::uint16_t sendTrim = 1 << 5;
inline constexpr std::uint16_t sendWriteZeroes = 1 << 6;
inline constexpr std::uint16_t sendDf = 1 << 7;  // only where replies have chunks; the handshake sees to that
inline constexpr std::uint16_t canMultiConn = 1 << 8;
inline constexpr std::uint16_t sendCache = 1 << 10;
inline constexpr std::uint16_t sendFastZero = 1 << 11;  // requires sendWriteZeroes
inline constexpr std::uint16_t blockStatusPayload =
    1 << 12;  // only with extended headers; the handshake sees to that
}  // namespace TransmissionFlag

namespace CommandFlag {
inline constexpr std::uint16_t fua = 1 << 0;
inline constexpr std::uint16_t noHole = 1 << 1;
inline constexpr std::uint16_t df = 1 << 2;
inline constexpr std::uint16_t reqOne = 1 << 3;
inline constexpr std::uint16_t fastZero = 1 << 4;
inline constexpr std::uint16_t payloadLength =
    1 << 5;  // with extended headers: the length is that of data behind the request
inline constexpr std::uint16_t compressed =
    1 << 14;  // private, of a WRITE where both sides agreed on it: docs/extension.md
}  // namespace CommandFlag

namespace ReplyFlag {
inline constexpr std::uint16_t done = 1 << 0;  // the last chunk of its reply
}  // namespace ReplyFlag

namespace AllocationFlag {  // status words of the context base:allocation; 0 is always a safe answer
inline constexpr std::uint32_t hole = 1 << 0;
inline constexpr std::uint32_t zero = 1 << 1;
}  // namespace AllocationFlag

inline constexpr char allocationContextName[] = "base:allocation";

}  // namespace Nbd
