#pragma once

// The frame that Varlink puts around a call and its reply.
//
//   call:  {"method": "org.talvek.NBD.ExportInfo", "parameters": {"id": 3}}
//   reply: {"parameters": {"info": {...}}}  or  {"error": "org.talvek.NBD.Failed", "parameters": {...}}
//
// Every message here is text without the NUL byte that ends it on the socket.

#include <expected>
#include <string>
#include <string_view>

#include "control/failure.h"
#include "control/interface.h"
#include "control/json_document.h"
#include "control/json_writer.h"

namespace Control {

/// A call as it arrived. Its views are good as long as its document.
struct Call {
  JsonDocument document;
  std::string_view method;  ///< with its interface: "org.talvek.NBD.ExportInfo"
  JsonValue parameters;     ///< an object, or absent
  bool oneway = false;      ///< the caller wants no reply
  bool more = false;        ///< the caller takes several replies; one is enough
  bool upgrade = false;     ///< the caller wants to speak another protocol afterwards
};

/// Reads a call. Fails, with a sentence, if `message` is no call at all.
std::expected<Call, std::string> parseCall(std::string_view message);

/// A reply as it arrived.
struct Reply {
  JsonDocument document;
  JsonValue parameters;  ///< an object, or absent
};

/// Reads a reply. An error reply becomes the Failure that it tells of, one of Varlink's own errors the
/// Failure that is nearest to it; what is no reply at all becomes a protocolError.
Result<Reply> parseReply(std::string_view message);

/// The error replies.
namespace ErrorReply {

std::string failed(const Failure& failure);
std::string interfaceNotFound(std::string_view interface);
std::string methodNotFound(std::string_view method);
std::string methodNotImplemented(std::string_view method);
std::string invalidParameter(std::string_view parameter);

}  // namespace ErrorReply

}  // namespace Control
