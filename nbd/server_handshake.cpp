#include "nbd/server_handshake.h"

#include <algorithm>
#include <utility>

#include "nbd/contract.h"
#include "nbd/limits.h"

// The machine is a sequence of stages, each of which needs a known number of bytes: the client's flags, then
// for each option its header and its data. A stage that lies whole in the caller's input is looked at there;
// one that arrives in pieces is collected in `partial_`, which grows with what has come, never by what was
// announced. Options that nobody could want to keep (unknown, or too long) are counted past instead. What an
// option means is a row of the table.

namespace Nbd {

namespace {

constexpr std::uint32_t allocationContextId = 1;

// The name, and the kinds of information, that an INFO or GO asks for.
struct InfoData {
  std::string_view name;
  Bytes types;

  [[nodiscard]] bool asksFor(InfoType wanted) const {
    Reader reader(types);
    while (const auto type = reader.number<InfoType>()) {
      if (*type == wanted) return true;
    }
    return false;
  }
};

// A string with its length in front of it.
std::optional<std::string_view> readString(Reader& reader) {
  const auto length = reader.number<std::uint32_t>();
  if (!length) return std::nullopt;
  const std::optional<std::string_view> text = reader.text(*length);
  if (!text || !isWireString(*text)) return std::nullopt;
  return text;
}

std::optional<InfoData> readInfoData(Bytes data) {
  Reader reader(data);
  const std::optional<std::string_view> name = readString(reader);
  if (!name) return std::nullopt;
  const auto count = reader.number<std::uint16_t>();
  if (!count) return std::nullopt;
  const std::optional<Bytes> types = reader.bytes(std::size_t{*count} * sizeof(InfoType));
  if (!types || !reader.atEnd()) return std::nullopt;
  return InfoData{.name = *name, .types = *types};
}

// Whether a query for contexts names a namespace: something, a colon, anything.
bool isContextQuery(std::string_view query) {
  const std::size_t colon = query.find(':');
  return colon != std::string_view::npos && colon > 0;
}

}  // namespace

struct ServerHandshake::OptionRow {
  Option option;
  bool takesData;  // an option that takes none is refused when it has some
  void (ServerHandshake::*answer)(Bytes data, Output& output);
};

// An option that is not here is unsupported.
const ServerHandshake::OptionRow ServerHandshake::optionTable[] = {
    {Option::exportName, true, &ServerHandshake::exportName},
    {Option::abort, true,
     &ServerHandshake::abort},  // data make no sense, but nothing may keep a client from leaving
    {Option::list, false, &ServerHandshake::list},
    {Option::startTls, false, &ServerHandshake::startTls},
    {Option::info, true, &ServerHandshake::info},
    {Option::go, true, &ServerHandshake::go},
    {Option::structuredReply, false, &ServerHandshake::structuredReply},
    {Option::listMetaContext, true, &ServerHandshake::listMetaContext},
    {Option::setMetaContext, true, &ServerHandshake::setMetaContext},
    {Option::extendedHeaders, false, &ServerHandshake::extendedHeaders},
    {Option::extension, true, &ServerHandshake::extension},
};

const ServerHandshake::OptionRow* ServerHandshake::findOption(Option option) const {
  if (option == Option::extension && extension_ == nullptr) return nullptr;
  const auto* row = std::ranges::find(optionTable, option, &OptionRow::option);
  return row == std::end(optionTable) ? nullptr : row;
}

ExportLimits ServerHandshake::Agreement::limits() const {
  return {.size = exportView.size,
          .transmissionFlags = exportView.transmissionFlags,
          .minimumBlock = exportView.minimumBlock,
          .maximumPayload = exportView.maximumPayload,
          .maximumUnfragmented = exportView.maximumPayload,
          .headers = headers,
          .blockStatus = allocationContext.has_value()};
}

ServerHandshake::ServerHandshake(const ExportDirectory& directory, Policy policy,
                                 Extension::Handler* extension)
    : directory_(&directory), policy_(policy), extension_(extension) {}

void ServerHandshake::greet(Output& output) const {
  appendBig(output, greetingMagic);
  appendBig(output, optionMagic);
  std::uint16_t flags = HandshakeFlag::fixedNewstyle;
  if (policy_.noZeroes) flags |= HandshakeFlag::noZeroes;
  appendBig(output, flags);
}

ServerHandshake::Progress ServerHandshake::advance(Bytes input, Output& output) {
  Bytes rest = input;
  granted_ = false;
  waiting_ = false;
  if (stage_ == Stage::listing) {
    continueListing(output);
  } else if (stage_ == Stage::extension) {
    continueExtension(output);
  } else {
    while (state_ == State::negotiating && runStage(rest, output)) {
    }
  }
  if (state_ == State::startTls && !rest.empty()) state_ = State::failed;
  return {.consumed = input.size() - rest.size(), .state = state_, .granted = granted_, .waiting = waiting_};
}

// --- Collecting bytes
// --------------------------------------------------------------------------------------------

std::size_t ServerHandshake::stageLength() const {
  switch (stage_) {
    case Stage::clientFlags:
      return clientFlagsSize;
    case Stage::optionHeader:
      return optionHeaderSize;
    case Stage::optionData:
      return optionLength_;
    case Stage::drain:
    case Stage::listing:
    case Stage::extension:
      break;
  }
  return 0;
}

// The next `length` bytes once all of them are there. They live until the next call.
std::optional<Bytes> ServerHandshake::collect(Bytes& input, std::size_t length) {
  if (partial_.empty() && input.size() >= length) {
    const Bytes whole = input.first(length);
    input = input.subspan(length);
    return whole;
  }
  const Bytes piece = input.first(std::min(input.size(), length - partial_.size()));
  partial_.insert(partial_.end(), piece.begin(), piece.end());
  input = input.subspan(piece.size());
  if (partial_.size() < length) return std::nullopt;
  whole_ = std::exchange(partial_, {});
  return whole_;
}

// Returns whether to go on: not when bytes are missing, and not after the answer to an option.
bool ServerHandshake::runStage(Bytes& input, Output& output) {
  if (stage_ == Stage::drain) return drain(input, output);
  const std::optional<Bytes> data = collect(input, stageLength());
  if (!data) return false;
  if (stage_ == Stage::optionData) {
    takeOptionData(*data, output);
    return false;
  }
  if (stage_ == Stage::clientFlags) {
    takeClientFlags(*data);
  } else {
    takeOptionHeader(*data);
  }
  return true;
}

// A client that does not speak the fixed newstyle is served all the same: it will send EXPORT_NAME.
void ServerHandshake::takeClientFlags(Bytes data) {
  const auto flags = loadBig<std::uint32_t>(data.first<clientFlagsSize>());
  const std::uint32_t offered = ClientFlag::fixedNewstyle | (policy_.noZeroes ? ClientFlag::noZeroes : 0U);
  if ((flags & ~offered) != 0) {
    state_ = State::failed;
    return;
  }
  agreement_.noZeroes = (flags & ClientFlag::noZeroes) != 0;
  stage_ = Stage::optionHeader;
}

void ServerHandshake::takeOptionHeader(Bytes data) {
  const auto magic = loadBig<std::uint64_t>(data.first<8>());
  option_ = loadBig<Option>(data.subspan<8, 4>());
  optionLength_ = loadBig<std::uint32_t>(data.subspan<12, 4>());
  announced_ += optionHeaderSize + optionLength_;
  if (magic != optionMagic || ++optionCount_ > maxOptionsPerConnection || optionLength_ > maxOptionDrained ||
      announced_ > maxHandshakeBytes) {
    state_ = State::failed;
    return;
  }
  if (mustSecureFirst() && option_ == Option::exportName) {
    state_ = State::failed;
    return;
  }
  const bool isKept =
      findOption(option_) != nullptr && optionLength_ <= maxOptionLength && !mustSecureFirst();
  stage_ = isKept ? Stage::optionData : Stage::drain;
}

void ServerHandshake::takeOptionData(Bytes data, Output& output) {
  stage_ = Stage::optionHeader;
  const OptionRow& row = *findOption(option_);
  if (!row.takesData && !data.empty()) {
    refuse(output, ReplyType::invalid, "this option takes no data");
    return;
  }
  (this->*row.answer)(data, output);
}

bool ServerHandshake::drain(Bytes& input, Output& output) {
  const auto length = static_cast<std::uint32_t>(std::min<std::size_t>(input.size(), optionLength_));
  input = input.subspan(length);
  optionLength_ -= length;
  if (optionLength_ == 0) {
    stage_ = Stage::optionHeader;
    answerDrained(output);
  }
  return false;
}

// Whether the option gets no answer but that TLS comes first. Nobody may be kept from leaving.
bool ServerHandshake::mustSecureFirst() const {
  return policy_.tls == TlsMode::required && !secured_ && option_ != Option::startTls &&
         option_ != Option::abort;
}

void ServerHandshake::answerDrained(Output& output) {
  if (mustSecureFirst()) {
    refuse(output, ReplyType::tlsRequired, "this server demands TLS");
  } else if (findOption(option_) == nullptr) {
    refuse(output, ReplyType::unsupported, "unknown option");
  } else if (option_ == Option::abort) {
    abort({}, output);
  } else if (option_ == Option::exportName) {
    state_ = State::failed;
  } else {
    if (option_ == Option::setMetaContext) allocationSelected_ = false;  // replaced even by a set that fails
    refuse(output, ReplyType::tooBig, "the option is too long");
  }
}

// --- Options
// -----------------------------------------------------------------------------------------------------

// The one option that cannot be refused: its only answer is the export. Who has agreed on extended headers
// must not send it.
void ServerHandshake::exportName(Bytes data, Output& output) {
  const std::string_view name = asText(data);
  std::optional<ExportView> view;
  if (isWireString(name) && agreement_.headers != HeaderStyle::extended) view = directory_->find(name);
  if (!view || !view->refusal.empty()) {
    state_ = State::failed;
    return;
  }
  appendBig(output, view->size);
  appendBig(output, toldFlags(*view));
  if (!agreement_.noZeroes) output.resize(output.size() + exportNamePaddingSize);
  enterTransmission(*std::move(view), name);
}

void ServerHandshake::abort(Bytes, Output& output) {
  acknowledge(output);
  state_ = State::closing;
}

void ServerHandshake::startTls(Bytes, Output& output) {
  if (policy_.tls == TlsMode::off) {
    refuse(output, ReplyType::unsupported, "this server has no TLS");
  } else if (secured_) {
    refuse(output, ReplyType::invalid, "the connection is secured already");
  } else {
    acknowledge(output);
    state_ = State::startTls;
  }
}

void ServerHandshake::secured(Extension::Handler* extension) {
  require(state_ == State::startTls && partial_.empty());
  secured_ = true;
  extension_ = extension;
  agreement_.headers = HeaderStyle::simple;
  allocationSelected_ = false;
  contextExport_.clear();
  state_ = State::negotiating;
}

void ServerHandshake::list(Bytes, Output& output) {
  if (!policy_.listing) {
    refuse(output, ReplyType::policy, "exports are not listed here");
    return;
  }
  listing_ = directory_->list();
  require(listing_ != nullptr);
  listed_ = 0;
  stage_ = Stage::listing;
  continueListing(output);
}

void ServerHandshake::continueListing(Output& output) {
  const std::size_t enough = output.size() + handshakeOutputStep;
  for (; listed_ < listing_->size(); ++listed_) {
    if (output.size() >= enough) return;
    const auto& [name, description] = (*listing_)[listed_];
    startReply(output, ReplyType::server, sizeof(std::uint32_t) + name.size() + description.size());
    appendBig(output, static_cast<std::uint32_t>(name.size()));
    appendText(output, name);
    appendText(output, description);
  }
  acknowledge(output);
  listing_.reset();
  stage_ = Stage::optionHeader;
}

// An export that INFO or GO asked for.
struct ServerHandshake::Described {
  ExportView view;
  std::string_view requestedName;
  bool blockSizesRequested = false;
};

void ServerHandshake::info(Bytes data, Output& output) {
  if (describe(data, output)) acknowledge(output);
}

void ServerHandshake::go(Bytes data, Output& output) {
  std::optional<Described> described = describe(data, output);
  if (!described) return;
  acknowledge(output);
  agreement_.blockSizesRequested = described->blockSizesRequested;
  enterTransmission(std::move(described->view), described->requestedName);
}

// What INFO and GO have in common: finds the export and sends what is asked about it. Nothing if the option
// had to be refused, which then has been done.
std::optional<ServerHandshake::Described> ServerHandshake::describe(Bytes data, Output& output) {
  const std::optional<InfoData> request = readInfoData(data);
  if (!request) {
    refuse(output, ReplyType::invalid, "malformed request for an export");
    return std::nullopt;
  }
  std::optional<ExportView> view = directory_->find(request->name);
  if (!view) {
    refuse(output, ReplyType::unknown, "no such export");
    return std::nullopt;
  }
  if (!view->refusal.empty()) {
    refuse(output, ReplyType::policy, view->refusal);
    return std::nullopt;
  }
  const auto startInfo = [&](InfoType type, std::size_t length) {
    startReply(output, ReplyType::info, sizeof type + length);
    appendBig(output, type);
  };
  startInfo(InfoType::exportInfo, sizeof(std::uint64_t) + sizeof(std::uint16_t));
  appendBig(output, view->size);
  appendBig(output, toldFlags(*view));
  if (request->asksFor(InfoType::name)) {
    startInfo(InfoType::name, view->name.size());
    appendText(output, view->name);
  }
  if (request->asksFor(InfoType::description) && !view->description.empty()) {
    startInfo(InfoType::description, view->description.size());
    appendText(output, view->description);
  }
  const bool blockSizesRequested = request->asksFor(InfoType::blockSize);
  if (blockSizesRequested) {
    startInfo(InfoType::blockSize, 3 * sizeof(std::uint32_t));
    appendBig(output, view->minimumBlock);
    appendBig(output, view->preferredBlock);
    appendBig(output, view->maximumPayload);
  }
  return Described{
      .view = *std::move(view), .requestedName = request->name, .blockSizesRequested = blockSizesRequested};
}

void ServerHandshake::structuredReply(Bytes, Output& output) {
  if (!policy_.structuredReplies) {
    refuse(output, ReplyType::unsupported, "structured replies are off");
    return;
  }
  if (agreement_.headers == HeaderStyle::extended) {
    refuse(output, ReplyType::extendedHeadersRequired, "extended headers were agreed on");
    return;
  }
  agreement_.headers = HeaderStyle::structured;
  acknowledge(output);
}

// Takes the place of structured replies, whether or not they were agreed on before.
void ServerHandshake::extendedHeaders(Bytes, Output& output) {
  if (!policy_.extendedHeaders) {
    refuse(output, ReplyType::unsupported, "extended headers are off");
    return;
  }
  agreement_.headers = HeaderStyle::extended;
  acknowledge(output);
}

// What LIST_META_CONTEXT and SET_META_CONTEXT have in common.
struct ServerHandshake::ContextRequest {
  std::string_view exportName;
  bool isEmpty = true;         // no query at all
  bool allocation = false;     // one asks for base:allocation
  bool baseNamespace = false;  // one asks for all of base:
};

// Nothing if the option had to be refused, which then has been done. Queries for other namespaces, or for
// other names in ours, are no error: they match nothing.
std::optional<ServerHandshake::ContextRequest> ServerHandshake::readContextRequest(Bytes data,
                                                                                   Output& output) {
  const auto refused = [&](ReplyType type, std::string_view message) {
    refuse(output, type, message);
    return std::nullopt;
  };
  constexpr std::string_view malformed = "malformed request for metadata contexts";
  if (agreement_.headers == HeaderStyle::simple)
    return refused(ReplyType::invalid, "structured replies or extended headers must be agreed on first");
  Reader reader(data);
  const std::optional<std::string_view> name = readString(reader);
  if (!name) return refused(ReplyType::invalid, malformed);
  const auto count = reader.number<std::uint32_t>();
  if (!count) return refused(ReplyType::invalid, malformed);
  ContextRequest request{.exportName = *name, .isEmpty = *count == 0};
  for (std::uint32_t index = 0; index < *count; ++index) {
    const std::optional<std::string_view> query = readString(reader);
    if (!query || !isContextQuery(*query)) return refused(ReplyType::invalid, malformed);
    request.allocation |= *query == allocationContextName;
    request.baseNamespace |= *query == "base:";
  }
  if (!reader.atEnd()) return refused(ReplyType::invalid, malformed);
  if (*count > maxQueries) return refused(ReplyType::tooBig, "too many queries");
  const std::optional<ExportView> view = directory_->find(*name);
  if (!view) return refused(ReplyType::unknown, "no such export");
  if (!view->refusal.empty()) return refused(ReplyType::policy, view->refusal);
  return request;
}

void ServerHandshake::listMetaContext(Bytes data, Output& output) {
  const std::optional<ContextRequest> request = readContextRequest(data, output);
  if (!request) return;
  if (request->isEmpty || request->allocation || request->baseNamespace) {
    startReply(output, ReplyType::metaContext,
               sizeof(std::uint32_t) + std::string_view(allocationContextName).size());
    appendBig(output, std::uint32_t{0});  // without meaning in a listing
    appendText(output, allocationContextName);
  }
  acknowledge(output);
}

// Replaces what was selected before, even when it fails.
void ServerHandshake::setMetaContext(Bytes data, Output& output) {
  allocationSelected_ = false;
  const std::optional<ContextRequest> request = readContextRequest(data, output);
  if (!request) return;
  if (request->allocation) {
    allocationSelected_ = true;
    contextExport_ = request->exportName;
    startReply(output, ReplyType::metaContext,
               sizeof(std::uint32_t) + std::string_view(allocationContextName).size());
    appendBig(output, allocationContextId);
    appendText(output, allocationContextName);
  }
  acknowledge(output);
}

// --- Parts
// -------------------------------------------------------------------------------------------------------

// Contexts are selected for a name; they hold only if the export is used by the same name, byte for byte.
void ServerHandshake::enterTransmission(ExportView view, std::string_view requestedName) {
  view.transmissionFlags = toldFlags(view);
  agreement_.exportView = std::move(view);
  if (allocationSelected_ && contextExport_ == requestedName)
    agreement_.allocationContext = allocationContextId;
  state_ = State::transmission;
}

std::uint16_t ServerHandshake::toldFlags(const ExportView& view) const {
  const int withheld =
      (agreement_.headers == HeaderStyle::simple ? TransmissionFlag::sendDf : 0) |
      (agreement_.headers == HeaderStyle::extended ? 0 : TransmissionFlag::blockStatusPayload);
  return static_cast<std::uint16_t>((view.transmissionFlags | TransmissionFlag::hasFlags) & ~withheld);
}

void ServerHandshake::startReply(Output& output, ReplyType type, std::size_t length) const {
  appendBig(output, optionReplyMagic);
  appendBig(output, option_);
  appendBig(output, type);
  appendBig(output, static_cast<std::uint32_t>(length));
}

void ServerHandshake::acknowledge(Output& output) {
  granted_ = true;
  startReply(output, ReplyType::ack, 0);
}

void ServerHandshake::refuse(Output& output, ReplyType type, std::string_view message) const {
  startReply(output, type, message.size());
  appendText(output, message);
}

}  // namespace Nbd
