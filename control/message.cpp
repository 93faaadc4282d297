#include "control/message.h"

#include <limits>

#include "control/codec.h"
#include "control/methods.h"

namespace Control {

namespace {

constexpr std::string_view failedError = "org.talvek.NBD.Failed";
constexpr std::string_view varlinkErrors = "org.varlink.service.";

std::string errorReply(std::string_view error, std::string_view parameter, std::string_view value) {
  JsonWriter writer;
  writer.beginObject();
  writer.key("error");
  writer.string(error);
  writer.key("parameters");
  writer.beginObject();
  writer.key(parameter);
  writer.string(value);
  writer.endObject();
  writer.endObject();
  return writer.take();
}

bool readFlag(JsonValue object, std::string_view name, bool& flag) {
  Complaint complaint;
  return decodeMember(object, name, Presence::defaulted, flag, complaint);
}

Failure protocolError(std::string sentence) { return {FailureCode::protocolError, std::move(sentence)}; }

// What the service says went wrong, for an error reply.
Failure failureOf(std::string_view error, JsonValue parameters) {
  const auto text = [&](std::string_view name) {
    return std::string(parameters.member(name).asString().value_or(""));
  };
  if (error == failedError) {
    const auto code = parameters.member("code").asUnsigned();
    if (!code || *code == 0 || *code > std::numeric_limits<std::uint32_t>::max()) {
      return protocolError("the service failed without a valid code");
    }
    return {static_cast<FailureCode>(*code), text("message")};
  }
  if (error == "org.varlink.service.InvalidParameter") {
    return {FailureCode::invalidArgument, "the service does not accept \"" + text("parameter") + "\""};
  }
  if (error.starts_with(varlinkErrors)) {
    return {FailureCode::notSupported,
            "the service does not know \"" + text("method") + text("interface") + "\""};
  }
  return protocolError("the service answered with an unknown error");
}

}  // namespace

std::expected<Call, std::string> parseCall(std::string_view message) {
  auto document = JsonDocument::parse(message);
  if (!document) return std::unexpected(std::move(document.error()));
  Call call{.document = std::move(*document), .method = {}, .parameters = {}};
  const JsonValue root = call.document.root();
  const auto method = root.member("method").asString();
  if (!method) return std::unexpected("the message is not a Varlink call: it names no method");
  call.method = *method;
  call.parameters = root.member("parameters");
  const bool fits = (call.parameters.isAbsent() || call.parameters.isObject()) &&
                    readFlag(root, "oneway", call.oneway) && readFlag(root, "more", call.more) &&
                    readFlag(root, "upgrade", call.upgrade);
  if (!fits) return std::unexpected("the message is not a Varlink call: a member has the wrong type");
  return call;
}

Result<Reply> parseReply(std::string_view message) {
  auto document = JsonDocument::parse(message);
  if (!document)
    return std::unexpected(protocolError("the service's answer makes no sense: " + document.error()));
  Reply reply{.document = std::move(*document), .parameters = {}};
  const JsonValue root = reply.document.root();
  reply.parameters = root.member("parameters");
  if (!root.isObject() || !(reply.parameters.isAbsent() || reply.parameters.isObject())) {
    return std::unexpected(protocolError("the service's answer is not a Varlink reply"));
  }
  if (root.member("error").isAbsent()) return reply;
  const auto error = root.member("error").asString();
  if (!error) return std::unexpected(protocolError("the service's answer is not a Varlink reply"));
  return std::unexpected(failureOf(*error, reply.parameters));
}

namespace ErrorReply {

std::string failed(const Failure& failure) {
  JsonWriter writer;
  writer.beginObject();
  writer.key("error");
  writer.string(failedError);
  writer.key("parameters");
  writer.beginObject();
  writer.key("code");
  writer.number(static_cast<std::uint32_t>(failure.code));
  writer.key("message");
  writer.string(failure.message);
  writer.endObject();
  writer.endObject();
  return writer.take();
}

std::string interfaceNotFound(std::string_view interface) {
  return errorReply("org.varlink.service.InterfaceNotFound", "interface", interface);
}

std::string methodNotFound(std::string_view method) {
  return errorReply("org.varlink.service.MethodNotFound", "method", method);
}

std::string methodNotImplemented(std::string_view method) {
  return errorReply("org.varlink.service.MethodNotImplemented", "method", method);
}

std::string invalidParameter(std::string_view parameter) {
  return errorReply("org.varlink.service.InvalidParameter", "parameter", parameter);
}

}  // namespace ErrorReply

}  // namespace Control
