#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nbd/bytes.h"
#include "nbd/client_handshake.h"
#include "nbd/constants.h"
#include "nbd/export_view.h"
#include "nbd/server_handshake.h"

/// What tests and fuzz targets of the wire protocol share: building a client's bytes, taking a server's
/// apart, and running a handshake as its caller must.
namespace Wire {

using Buffer = std::vector<std::byte>;

inline Buffer join(std::initializer_list<Buffer> parts) {
  Buffer all;
  for (const Buffer& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

inline Buffer text(std::string_view characters) {
  Buffer bytes;
  Nbd::appendText(bytes, characters);
  return bytes;
}

template <Nbd::WireNumber T>
Buffer number(T value) {
  Buffer bytes;
  Nbd::appendBig(bytes, value);
  return bytes;
}

// --- A client's words
// --------------------------------------------------------------------------------------------

inline Buffer clientFlags(std::uint32_t flags = Nbd::ClientFlag::fixedNewstyle | Nbd::ClientFlag::noZeroes) {
  return number(flags);
}

inline Buffer option(Nbd::Option code, const Buffer& data = {}) {
  return join(
      {number(Nbd::optionMagic), number(code), number(static_cast<std::uint32_t>(data.size())), data});
}

/// A string with its length in front.
inline Buffer counted(std::string_view characters) {
  return join({number(static_cast<std::uint32_t>(characters.size())), text(characters)});
}

/// The data of INFO and GO.
inline Buffer infoData(std::string_view name, std::initializer_list<Nbd::InfoType> types = {}) {
  Buffer data = join({counted(name), number(static_cast<std::uint16_t>(types.size()))});
  for (const Nbd::InfoType type : types) Nbd::appendBig(data, type);
  return data;
}

/// The data of LIST_META_CONTEXT and SET_META_CONTEXT.
inline Buffer contextData(std::string_view name, const std::vector<std::string>& queries) {
  Buffer data = join({counted(name), number(static_cast<std::uint32_t>(queries.size()))});
  for (const std::string& query : queries) data = join({data, counted(query)});
  return data;
}

// --- A server's words
// --------------------------------------------------------------------------------------------

struct OptionReply {
  Nbd::Option option{};
  Nbd::ReplyType type{};
  Buffer data;
};

/// The replies to options in `bytes`, or nothing if they are anything but whole replies.
inline std::optional<std::vector<OptionReply>> parseReplies(Nbd::Bytes bytes) {
  std::vector<OptionReply> replies;
  Nbd::Reader reader(bytes);
  while (!reader.atEnd()) {
    const auto magic = reader.number<std::uint64_t>();
    const auto code = reader.number<Nbd::Option>();
    const auto type = reader.number<Nbd::ReplyType>();
    const auto length = reader.number<std::uint32_t>();
    if (!length || magic != Nbd::optionReplyMagic) return std::nullopt;
    const auto data = reader.bytes(*length);
    if (!data) return std::nullopt;
    replies.push_back({*code, *type, Buffer(data->begin(), data->end())});
  }
  return replies;
}

inline Buffer reply(Nbd::Option code, Nbd::ReplyType type, const Buffer& data = {}) {
  return join({number(Nbd::optionReplyMagic), number(code), number(type),
               number(static_cast<std::uint32_t>(data.size())), data});
}

// --- Both together
// -----------------------------------------------------------------------------------------------

/// Exports that a test names one by one. The empty name finds the only one.
class Directory : public Nbd::ExportDirectory {
 public:
  void add(Nbd::ExportView view) { views_.push_back(std::move(view)); }

  [[nodiscard]] std::optional<Nbd::ExportView> find(std::string_view name) const override {
    if (name.empty() && views_.size() == 1) return views_.front();
    const auto found = std::ranges::find(views_, name, &Nbd::ExportView::name);
    if (name.empty() || found == views_.end()) return std::nullopt;
    return *found;
  }

  [[nodiscard]] std::shared_ptr<const std::vector<Nbd::ListedExport>> list() const override {
    std::vector<Nbd::ListedExport> listing;
    for (const Nbd::ExportView& view : views_) listing.push_back({view.name, view.description});
    return std::make_shared<const std::vector<Nbd::ListedExport>>(std::move(listing));
  }

 private:
  std::vector<Nbd::ExportView> views_;
};

template <typename Handshake>
struct Outcome {
  Buffer output;
  std::size_t consumed = 0;
  typename Handshake::State state{};
  std::size_t largestStep = 0;  // bytes of output of one call
  bool keptContract = true;     // no call consumed more than it was given
};

/// Feeds `input` to a handshake in pieces whose sizes `nextPiece()` tells (0 counts as 1), as its caller
/// must: output is sent and emptied after each call, more is received only when a call neither consumed nor
/// answered anything.
template <typename Handshake, typename NextPiece>
Outcome<Handshake> converse(Handshake& handshake, Nbd::Bytes input, NextPiece nextPiece) {
  Outcome<Handshake> outcome;
  std::size_t received = 0;
  for (;;) {
    Buffer output;
    const Nbd::Bytes unread = input.subspan(outcome.consumed, received - outcome.consumed);
    const auto progress = handshake.advance(unread, output);
    if (progress.consumed > unread.size()) {
      outcome.keptContract = false;
      return outcome;
    }
    outcome.consumed += progress.consumed;
    outcome.state = progress.state;
    outcome.largestStep = std::max(outcome.largestStep, output.size());
    outcome.output.insert(outcome.output.end(), output.begin(), output.end());
    if (progress.state != Handshake::State::negotiating) return outcome;
    if constexpr (requires { progress.waiting; }) {
      if (progress.waiting) continue;  // what a test waits for comes by asking
    }
    if (progress.consumed != 0 || !output.empty()) continue;
    if (received == input.size()) return outcome;
    received += std::clamp<std::size_t>(nextPiece(), 1, input.size() - received);
  }
}

/// The same with all input at once.
template <typename Handshake>
Outcome<Handshake> converse(Handshake& handshake, Nbd::Bytes input) {
  return converse(handshake, input, [&] { return input.size(); });
}

}  // namespace Wire
