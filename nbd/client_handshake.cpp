#include "nbd/client_handshake.h"

#include <algorithm>
#include <bit>
#include <string>
#include <utility>

#include "nbd/contract.h"

// One option is under way at any time, but for INFO. Its replies arrive as pairs of a header and data; the
// final one decides what comes next:
//
//   if wished:     STARTTLS, before all others
//   transmission:  EXTENDED_HEADERS, or else STRUCTURED_REPLY; SET_META_CONTEXT; GO, and EXPORT_NAME where
//                  the server does not know GO
//   listing:       LIST, ABORT
//   details:       LIST, INFO for each export, ABORT
//
// Before all that stand the requests of the extension, if there is a dialogue. What is optional and refused
// is left out.
//
// Thousands of exports would take thousands of round trips, so INFO is sent in groups. A server that takes
// one option at a time finds the others where they wait, in its socket, and the answers come in order.

namespace Nbd {

namespace {

bool isAllowedBlockSize(std::uint32_t minimum, std::uint32_t preferred, std::uint32_t maximum) {
  return std::has_single_bit(minimum) && minimum <= 65'536 && std::has_single_bit(preferred) &&
         preferred >= minimum && maximum >= preferred;
}

}  // namespace

ExportLimits ClientHandshake::Agreement::limits() const {
  return {.size = remote.size.value_or(0),
          .transmissionFlags = remote.transmissionFlags,
          .minimumBlock = remote.minimumBlock,
          .maximumPayload = remote.maximumPayload,
          // A server need not serve more in one piece.
          .maximumUnfragmented = std::min<std::uint32_t>(remote.maximumPayload, 64 * 1024),
          .headers = headers,
          .blockStatus = allocationContext.has_value()};
}

ClientHandshake::ClientHandshake(Wish wish) : wish_(std::move(wish)) {
  require(isWireString(wish_.exportName));
  agreement_.remote.name = wish_.exportName;
}

ClientHandshake::Progress ClientHandshake::advance(Bytes input, Output& output) {
  Bytes rest = input;
  while (state_ == State::negotiating) {
    const std::size_t length = stageLength();
    const Bytes piece = rest.first(std::min(rest.size(), length - partial_.size()));
    partial_.insert(partial_.end(), piece.begin(), piece.end());
    rest = rest.subspan(piece.size());
    if (partial_.size() < length) break;
    const Output whole = std::exchange(partial_, {});
    runStage(whole, output);
  }
  // A server has nothing to say there before it has heard of TLS from us: whoever says it might want to pass
  // for the server inside of it.
  if (state_ == State::startTls && !rest.empty()) fail("the server spoke between its consent to TLS and TLS");
  return {.consumed = input.size() - rest.size(), .state = state_};
}

std::size_t ClientHandshake::stageLength() const {
  switch (stage_) {
    case Stage::greeting:
      return greetingSize;
    case Stage::replyHeader:
      return optionReplyHeaderSize;
    case Stage::replyData:
      return replyLength_;
    case Stage::exportNameReply:
      return exportNameReplySize + (noZeroes_ ? 0 : exportNamePaddingSize);
  }
  return 0;
}

void ClientHandshake::runStage(Bytes data, Output& output) {
  switch (stage_) {
    case Stage::greeting:
      return takeGreeting(data, output);
    case Stage::replyHeader:
      return takeReplyHeader(data);
    case Stage::replyData:
      stage_ = Stage::replyHeader;
      return takeReply(data, output);
    case Stage::exportNameReply:
      return takeExportNameReply(data);
  }
}

void ClientHandshake::takeGreeting(Bytes data, Output& output) {
  Reader reader(data);
  const auto first = reader.number<std::uint64_t>();
  const auto second = reader.number<std::uint64_t>();
  const auto offered = reader.number<std::uint16_t>();
  if (first != greetingMagic) return fail("the peer is no NBD server");
  if (second == oldstyleMagic) return fail("the server speaks only the obsolete oldstyle protocol");
  if (second != optionMagic) return fail("the server's greeting is malformed");
  const bool isFixed = (*offered & HandshakeFlag::fixedNewstyle) != 0;
  noZeroes_ = wish_.noZeroes && (*offered & HandshakeFlag::noZeroes) != 0;
  appendBig(output, (isFixed ? ClientFlag::fixedNewstyle : 0U) | (noZeroes_ ? ClientFlag::noZeroes : 0U));
  if (!isFixed) {
    if (wish_.tls == TlsMode::required) {
      fail("the server has no TLS");
      failure_.noTls = true;
      return;
    }
    if (wish_.goal != Goal::transmission) return fail("the server's protocol has no listing");
    return sendOption(output, Option::exportName, std::as_bytes(std::span(wish_.exportName)));
  }
  startNegotiating(output);
}

void ClientHandshake::takeReplyHeader(Bytes data) {
  Reader reader(data);
  const auto magic = reader.number<std::uint64_t>();
  const auto option = reader.number<Option>();
  replyType_ = *reader.number<ReplyType>();
  replyLength_ = *reader.number<std::uint32_t>();
  received_ += optionReplyHeaderSize + replyLength_;
  if (magic != optionReplyMagic || option != option_) return fail("the server's reply is malformed");
  if (replyLength_ > maxOptionReplyLength || ++replyCount_ > maxRepliesPerOption ||
      received_ > maxServerHandshakeBytes) {
    return fail("the server's reply is too long");
  }
  stage_ = Stage::replyData;
}

void ClientHandshake::takeReply(Bytes data, Output& output) {
  if ((static_cast<std::uint32_t>(replyType_) & replyErrorBit) != 0) return refused(data, output);
  switch (replyType_) {
    case ReplyType::ack:
      return data.empty() ? acknowledged(output) : fail("the server's acknowledgement is malformed");
    case ReplyType::server:
      if (option_ == Option::list) takeListed(data);
      return;
    case ReplyType::info:
      if (option_ == Option::go) takeInfo(data, agreement_.remote);
      if (option_ == Option::info) takeInfo(data, exports_[described_]);
      return;
    case ReplyType::metaContext:
      if (option_ == Option::setMetaContext) takeMetaContext(data);
      return;
    case ReplyType::extension:
      if (option_ == Option::extension) takeExtension(data);
      return;
    default:
      return;  // of a later protocol: to be passed over
  }
}

void ClientHandshake::takeExportNameReply(Bytes data) {
  Reader reader(data);
  agreement_.remote.size = reader.number<std::uint64_t>();
  agreement_.remote.transmissionFlags = *reader.number<std::uint16_t>();
  state_ = State::transmission;
}

void ClientHandshake::takeListed(Bytes data) {
  Reader reader(data);
  const auto length = reader.number<std::uint32_t>();
  const std::optional<std::string_view> name = length ? reader.text(*length) : std::nullopt;
  const std::optional<std::string_view> description = reader.text(reader.remaining());
  if (!name || !isWireString(*name) || !isWireString(*description))
    return fail("the server's listing is malformed");
  RemoteExport& listed = exports_.emplace_back();
  listed.name = *name;
  listed.description = *description;
}

void ClientHandshake::takeInfo(Bytes data, RemoteExport& remote) {
  Reader reader(data);
  const auto type = reader.number<InfoType>();
  if (!type) return fail("the server's information is malformed");
  switch (*type) {
    case InfoType::exportInfo: {
      const auto size = reader.number<std::uint64_t>();
      const auto flags = reader.number<std::uint16_t>();
      if (!flags || !reader.atEnd()) return fail("the server's information is malformed");
      remote.size = size;
      remote.transmissionFlags = *flags;
      return;
    }
    case InfoType::name:
    case InfoType::description: {
      const std::string_view text = *reader.text(reader.remaining());
      if (!isWireString(text)) return fail("the server's information is malformed");
      (*type == InfoType::name ? remote.name : remote.description) = text;
      return;
    }
    case InfoType::blockSize: {
      const auto minimum = reader.number<std::uint32_t>();
      const auto preferred = reader.number<std::uint32_t>();
      const auto maximum = reader.number<std::uint32_t>();
      if (!maximum || !reader.atEnd() || !isAllowedBlockSize(*minimum, *preferred, *maximum)) {
        return fail("the server's block sizes make no sense");
      }
      remote.minimumBlock = *minimum;
      remote.preferredBlock = *preferred;
      remote.maximumPayload = std::min(*maximum, portablePayload);
      return;
    }
  }
}

void ClientHandshake::takeMetaContext(Bytes data) {
  Reader reader(data);
  const auto id = reader.number<std::uint32_t>();
  if (!id) return fail("the server's metadata context is malformed");
  if (reader.text(reader.remaining()) == allocationContextName) agreement_.allocationContext = id;
}

void ClientHandshake::takeExtension(Bytes data) {
  Reader reader(data);
  if (Extension::readHeader(reader) != question_ || !wish_.dialogue->take(*reader.bytes(reader.remaining())))
    fail("the server's message of the extension is malformed");
}

// --- What comes next
// ---------------------------------------------------------------------------------------------

void ClientHandshake::acknowledged(Output& output) {
  switch (option_) {
    case Option::startTls:
      state_ = State::startTls;
      return;
    case Option::extendedHeaders:
    case Option::structuredReply:
      agreement_.headers =
          option_ == Option::extendedHeaders ? HeaderStyle::extended : HeaderStyle::structured;
      if (wish_.allocationContext) return sendMetaContextOption(output);
      return sendExportOption(output, Option::go, wish_.exportName);
    case Option::setMetaContext:
      return sendExportOption(output, Option::go, wish_.exportName);
    case Option::go:
      if (!agreement_.remote.size) return fail("the server did not say how large the export is");
      state_ = State::transmission;
      return;
    case Option::list:
      if (wish_.goal == Goal::details) return askForDetails(output);
      return leave(output);
    case Option::info:
      ++described_;
      replyCount_ = 0;
      return askForDetails(output);
    case Option::extension:
      if (!wish_.dialogue->acknowledged()) return fail("the server's answer of the extension is not whole");
      return sendNextQuestion(output);
    default:
      return fail("the server's reply is malformed");
  }
}

void ClientHandshake::refused(Bytes data, Output& output) {
  switch (option_) {
    case Option::startTls:
      if (wish_.tls != TlsMode::required) return sendQuestionsFirst(output);
      break;
    case Option::extension: {
      const std::string_view text = asText(data);
      wish_.dialogue->refused({.type = replyType_, .text = std::string(isWireString(text) ? text : "")});
      return sendNextQuestion(output);
    }
    case Option::extendedHeaders:
      return sendStructuredReplyOption(output);
    case Option::structuredReply:
    case Option::setMetaContext:
      agreement_.allocationContext.reset();
      return sendExportOption(output, Option::go, wish_.exportName);
    case Option::info:  // gone since it was listed, or not for us: listed all the same
      if (described_ == 0 && replyType_ == ReplyType::unsupported) return leave(output);
      ++described_;
      replyCount_ = 0;
      return askForDetails(output);
    case Option::go:
      // A server with extended headers knows GO, and EXPORT_NAME would not be allowed any more.
      if (replyType_ == ReplyType::unsupported && agreement_.headers != HeaderStyle::extended) {
        return sendOption(output, Option::exportName, std::as_bytes(std::span(wish_.exportName)));
      }
      break;
    default:
      break;
  }
  failure_ = {.isRefusal = true, .reply = replyType_, .message = "the server refused"};
  failure_.noTls = option_ == Option::startTls;
  if (failure_.noTls) failure_.message = "the server has no TLS";
  const std::string_view reason = asText(data);
  if (!reason.empty() && isWireString(reason)) failure_.message.append(": ").append(reason);
  leave(output);
  state_ = State::failed;
}

/// About the first export alone, since a server may not know the question, then about as many at once as may
/// be. The next group follows when the last is answered.
void ClientHandshake::askForDetails(Output& output) {
  if (described_ < asked_) return;
  if (described_ == exports_.size()) return leave(output);
  const std::size_t before = output.size();
  do {
    sendExportOption(output, Option::info, exports_[asked_++].name);
  } while (described_ > 0 && asked_ < exports_.size() && output.size() - before < maxQuestionsAtOnce);
}

void ClientHandshake::startNegotiating(Output& output) {
  if (wish_.tls != TlsMode::off) return sendOption(output, Option::startTls, {});
  sendQuestionsFirst(output);
}

void ClientHandshake::sendQuestionsFirst(Output& output) {
  if (wish_.dialogue != nullptr) return sendNextQuestion(output);
  sendFirstOption(output);
}

void ClientHandshake::secured(Output& output) {
  require(state_ == State::startTls && partial_.empty());
  secured_ = true;
  state_ = State::negotiating;
  sendQuestionsFirst(output);
}

void ClientHandshake::sendFirstOption(Output& output) {
  if (wish_.goal != Goal::transmission) return sendOption(output, Option::list, {});
  if (wish_.extendedHeaders) return sendOption(output, Option::extendedHeaders, {});
  sendStructuredReplyOption(output);
}

void ClientHandshake::sendNextQuestion(Output& output) {
  const std::optional<Extension::Question> question = wish_.dialogue->next();
  if (!question) return wish_.dialogue->suffices() ? leave(output) : sendFirstOption(output);
  const bool isHello = question->kind == Extension::Kind::hello;
  question_ = {.version = isHello ? Extension::helloVersion : wish_.dialogue->version(),
               .kind = question->kind};
  Output data;
  Extension::appendHeader(data, question_);
  data.insert(data.end(), question->body.begin(), question->body.end());
  sendOption(output, Option::extension, data);
}

void ClientHandshake::sendStructuredReplyOption(Output& output) {
  if (wish_.structuredReplies) return sendOption(output, Option::structuredReply, {});
  sendExportOption(output, Option::go, wish_.exportName);
}

void ClientHandshake::sendOption(Output& output, Option option, Bytes data) {
  option_ = option;
  replyCount_ = 0;
  stage_ = option == Option::exportName ? Stage::exportNameReply : Stage::replyHeader;
  appendBig(output, optionMagic);
  appendBig(output, option);
  appendBig(output, static_cast<std::uint32_t>(data.size()));
  output.insert(output.end(), data.begin(), data.end());
}

void ClientHandshake::sendExportOption(Output& output, Option option, std::string_view name) {
  constexpr InfoType wanted[] = {InfoType::name, InfoType::description, InfoType::blockSize};
  Output data;
  appendBig(data, static_cast<std::uint32_t>(name.size()));
  appendText(data, name);
  appendBig(data, static_cast<std::uint16_t>(std::size(wanted)));
  for (const InfoType type : wanted) appendBig(data, type);
  sendOption(output, option, data);
}

void ClientHandshake::sendMetaContextOption(Output& output) {
  Output data;
  appendBig(data, static_cast<std::uint32_t>(wish_.exportName.size()));
  appendText(data, wish_.exportName);
  appendBig(data, std::uint32_t{1});
  appendBig(data, static_cast<std::uint32_t>(std::string_view(allocationContextName).size()));
  appendText(data, allocationContextName);
  sendOption(output, Option::setMetaContext, data);
}

// Says goodbye. Nobody waits for the answer: either side may close early.
void ClientHandshake::leave(Output& output) {
  sendOption(output, Option::abort, {});
  state_ = State::finished;
}

void ClientHandshake::fail(std::string_view message) {
  failure_ = {.isRefusal = false, .message = std::string(message)};
  state_ = State::failed;
}

}  // namespace Nbd
