#pragma once

#include <cstddef>
#include <cstdint>

/// What a peer can make us hold, do or wait for: each bound on foreign bytes of this layer, with its reason.
namespace Nbd {

// The protocol's own bound on every string (names, queries, descriptions, messages).
inline constexpr std::size_t maxStringLength = 4096;

// Options up to this length are kept in memory while they arrive. An option that makes sense holds one name
// and a few queries or numbers; this leaves room for the longest name with dozens of long queries.
inline constexpr std::uint32_t maxOptionLength = 64 * 1024;

// Options up to this length are read past and answered with an error, as the protocol asks for options that a
// server does not know. Nobody has a reason to announce more: such a peer is disconnected.
inline constexpr std::uint32_t maxOptionDrained = 1024 * 1024;

// Enough for a client that asks about thousands of exports one by one; ends one that never comes to the
// point.
inline constexpr std::uint32_t maxOptionsPerConnection = 16 * 1024;

// All bytes of one client's handshake together: the options that make sense, and a few large ones to read
// past.
inline constexpr std::uint64_t maxHandshakeBytes = 8 * std::uint64_t{maxOptionDrained};

// Metadata context queries in one option. There is one context to select, clients send one to three queries.
inline constexpr std::uint32_t maxQueries = 64;

// A step of the handshake stops adding replies once it has added this much, and goes on when that has been
// sent: the listing of thousands of exports takes no more memory than one of a few.
inline constexpr std::size_t handshakeOutputStep = std::size_t{64} * 1024;

// Data of one READ or WRITE that the protocol lets every client rely on when nothing was advertised. As a
// client we ask for no more.
inline constexpr std::uint32_t portablePayload = 32 * 1024 * 1024;

// Data of one READ or WRITE that we serve, and advertise. Beyond the portable size there is nothing to gain
// any more, but some clients go there.
inline constexpr std::uint32_t maxPayload = 2 * portablePayload;

// The data of a WRITE that is refused are read past up to this length, so that an honest client with a wrong
// idea of the largest size is told EINVAL. Beyond it the peer is disconnected: up to 4 GiB of work for 28
// bytes is an attack.
inline constexpr std::uint32_t maxPayloadDrained = 2 * maxPayload;

// Extents in one BLOCK_STATUS chunk that we send: 64 KiB on the wire, twice that with extended headers. The
// client asks again where the chunk ends.
inline constexpr std::size_t maxExtentsSent = 8192;

// Text in an error chunk that we send: a sentence for people.
inline constexpr std::size_t maxErrorMessageSent = 256;

// The extension, both sides.

// What stands behind the header of one message of an answer. A listing is cut into messages of about half of
// this; a single entry with the longest strings fits, and a message stays below maxOptionReplyLength.
inline constexpr std::size_t maxExtensionBody = std::size_t{12} * 1024;

// Properties of a server, nested ones included, and how deep they nest. The control interface carries about
// twenty levels; a server has some fifty properties in three.
inline constexpr std::size_t maxProperties = 4096;
inline constexpr std::size_t maxPropertyDepth = 16;

// The client's side: what a server may make us hold.

// One reply to an option: an export's name and description, each of the largest size, and change.
inline constexpr std::uint32_t maxOptionReplyLength = 16 * 1024;

// Replies before the final one: a listing ten times the size of the largest that we test.
inline constexpr std::uint32_t maxRepliesPerOption = 100 * 1000;

// Bytes of questions about exports that are sent before their answers are read; the one that reaches this is
// the last. The send buffer of a new connection holds as much with the longest name on top, and so does the
// other side's: we never wait for a server to read which waits for us to read. It holds 300 short names.
inline constexpr std::size_t maxQuestionsAtOnce = std::size_t{12} * 1024;

// All bytes of one server's handshake together: 100,000 exports with names and descriptions of 300 bytes.
inline constexpr std::uint64_t maxServerHandshakeBytes = std::uint64_t{32} * 1024 * 1024;

// Extents accepted in one chunk: the protocol asks servers to send no more.
inline constexpr std::size_t maxExtentsReceived = std::size_t{1024} * 1024;

// Payload of an error chunk of a later protocol: the message, and whatever else it may hold.
inline constexpr std::uint32_t maxUnknownErrorLength = 64 * 1024;

// Pieces of one READ that may lie apart while its chunks arrive. Servers send a reply in order, or as their
// storage yields it: a few gaps at a time, and a thousand if they ask a thousand disks at once.
inline constexpr std::size_t maxReadPieces = 1024;

}  // namespace Nbd
