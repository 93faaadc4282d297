#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <string>
#include <vector>

#include "nbd/client_handshake.h"
#include "nbd/server_handshake.h"
#include "tests/support/wire.h"

namespace {

using Nbd::ClientHandshake;
using Nbd::HeaderStyle;
using Nbd::InfoType;
using Nbd::Option;
using Nbd::ServerHandshake;
using Wire::Buffer;

Wire::Directory threeExports() {
  Wire::Directory directory;
  for (const char* name : {"a", "b", "c"}) {
    directory.add({.name = name, .description = std::string(3000, 'd'), .size = 4096});
  }
  return directory;
}

rc::Gen<std::string> names() { return rc::gen::element<std::string>("a", "b", "", "none", "\xff"); }

rc::Gen<Option> optionCodes() {
  return rc::gen::map(rc::gen::inRange<std::uint32_t>(0, 13),
                      [](std::uint32_t code) { return static_cast<Option>(code); });
}

// An option as a sensible client would send it, or one with nonsense for data.
rc::Gen<Buffer> options() {
  using Context = std::vector<std::string>;
  const auto queries =
      rc::gen::container<Context>(rc::gen::element<std::string>("base:", "base:allocation", "x:y", "no"));
  return rc::gen::oneOf(
      rc::gen::just(Wire::option(Option::structuredReply)),
      rc::gen::just(Wire::option(Option::extendedHeaders)), rc::gen::just(Wire::option(Option::list)),
      rc::gen::apply(
          [](const std::string& name) {
            return Wire::option(Option::info, Wire::infoData(name, {InfoType::name}));
          },
          names()),
      rc::gen::apply(
          [](const std::string& name, const Context& asked) {
            return Wire::option(Option::setMetaContext, Wire::contextData(name, asked));
          },
          names(), queries),
      rc::gen::apply(
          [](Option code, const std::string& data) { return Wire::option(code, Wire::text(data)); },
          optionCodes(), rc::gen::arbitrary<std::string>()),
      rc::gen::apply([](Option code, std::size_t length) { return Wire::option(code, Buffer(length)); },
                     optionCodes(), rc::gen::element<std::size_t>(65'536, 65'537, 200'000)));
}

// A client's whole handshake, sometimes with a byte that fell over.
Buffer clientBytes() {
  Buffer bytes = Wire::clientFlags();
  for (const Buffer& one : *rc::gen::container<std::vector<Buffer>>(options()))
    bytes.insert(bytes.end(), one.begin(), one.end());
  const Buffer last =
      *rc::gen::element(Wire::option(Option::go, Wire::infoData("a")), Wire::option(Option::abort),
                        Wire::option(Option::exportName, Wire::text("b")), Buffer());
  bytes.insert(bytes.end(), last.begin(), last.end());
  bytes.resize(bytes.size() + *rc::gen::inRange<std::size_t>(0, 100));
  if (*rc::gen::inRange(0, 3) == 0) {
    bytes[*rc::gen::inRange<std::size_t>(0, bytes.size())] ^=
        static_cast<std::byte>(*rc::gen::inRange(1, 256));
  }
  return bytes;
}

// Sizes of pieces, taken again and again from the front.
class Pieces {
 public:
  explicit Pieces(std::vector<std::size_t> sizes) : sizes_(std::move(sizes)) {}
  std::size_t operator()() { return sizes_[index_++ % sizes_.size()]; }

 private:
  std::vector<std::size_t> sizes_;
  std::size_t index_ = 0;
};

Pieces pieces() {
  const auto sizes =
      rc::gen::oneOf(rc::gen::inRange<std::size_t>(1, 8), rc::gen::inRange<std::size_t>(1, 100'000));
  return Pieces(*rc::gen::nonEmpty(rc::gen::container<std::vector<std::size_t>>(sizes)));
}

RC_GTEST_PROP(ServerHandshakeProperty, AnySplitOfTheInputGivesTheSame, ()) {
  const Wire::Directory directory = threeExports();
  const Buffer input = clientBytes();
  ServerHandshake whole(directory, {});
  ServerHandshake split(directory, {});
  const auto expected = Wire::converse(whole, input);
  const auto outcome = Wire::converse(split, input, pieces());
  RC_ASSERT(expected.keptContract);
  RC_ASSERT(outcome.keptContract);
  RC_ASSERT(outcome.output == expected.output);
  RC_ASSERT(outcome.consumed == expected.consumed);
  RC_ASSERT(outcome.state == expected.state);
  RC_ASSERT(split.agreement().exportView.name == whole.agreement().exportView.name);
  RC_ASSERT(split.agreement().headers == whole.agreement().headers);
  RC_ASSERT(split.agreement().allocationContext == whole.agreement().allocationContext);
}

RC_GTEST_PROP(ServerHandshakeProperty, RandomBytesDoNoHarm, (const std::string& noise)) {
  const Wire::Directory directory = threeExports();
  ServerHandshake handshake(directory, {});
  const auto outcome =
      Wire::converse(handshake, Wire::join({Wire::clientFlags(), Wire::text(noise)}), pieces());
  RC_ASSERT(outcome.keptContract);
  RC_ASSERT(outcome.state != ServerHandshake::State::transmission);
}

/// Lets both sides talk until neither has anything to say.
struct Dialogue {
  ServerHandshake::State server{};
  ClientHandshake::State client{};

  Dialogue(ServerHandshake& serverSide, ClientHandshake& clientSide, Pieces sizes) {
    Buffer toClient;
    Buffer toServer;
    serverSide.greet(toClient);
    const auto step = [&](auto& handshake, Buffer& input, Buffer& output, auto& state) {
      const std::size_t length = std::min(input.size(), std::max<std::size_t>(sizes(), 1));
      const std::size_t before = output.size();
      const auto progress = handshake.advance(Nbd::Bytes(input).first(length), output);
      input.erase(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(progress.consumed));
      state = progress.state;
      return progress.consumed != 0 || output.size() != before;
    };
    bool moved = true;
    while (moved) {
      moved = false;
      while (client == ClientHandshake::State::negotiating && step(clientSide, toClient, toServer, client))
        moved = true;
      while (server == ServerHandshake::State::negotiating && step(serverSide, toServer, toClient, server))
        moved = true;
    }
  }
};

RC_GTEST_PROP(BothHandshakes, AgreeOnWhatBothHave,
              (bool noZeroes, bool offersStructured, bool offersExtended, bool wantsNoZeroes,
               bool wantsStructured, bool wantsExtended, bool wantsContext)) {
  const Wire::Directory directory = threeExports();
  ServerHandshake server(
      directory,
      {.noZeroes = noZeroes, .structuredReplies = offersStructured, .extendedHeaders = offersExtended});
  ClientHandshake client({.exportName = "b",
                          .extendedHeaders = wantsExtended,
                          .structuredReplies = wantsStructured,
                          .allocationContext = wantsContext,
                          .noZeroes = wantsNoZeroes});
  const Dialogue dialogue(server, client, pieces());
  RC_ASSERT(dialogue.server == ServerHandshake::State::transmission);
  RC_ASSERT(dialogue.client == ClientHandshake::State::transmission);
  const HeaderStyle headers = offersExtended && wantsExtended       ? HeaderStyle::extended
                              : offersStructured && wantsStructured ? HeaderStyle::structured
                                                                    : HeaderStyle::simple;
  RC_ASSERT(server.agreement().headers == headers);
  RC_ASSERT(client.agreement().headers == headers);
  RC_ASSERT(server.agreement().noZeroes == (noZeroes && wantsNoZeroes));
  RC_ASSERT(server.agreement().allocationContext.has_value() ==
            (headers != HeaderStyle::simple && wantsContext));
  RC_ASSERT(client.agreement().allocationContext == server.agreement().allocationContext);
  RC_ASSERT(client.agreement().remote.size == 4096U);
  RC_ASSERT(client.agreement().remote.transmissionFlags == server.agreement().exportView.transmissionFlags);
  RC_ASSERT(client.agreement().remote.description == std::string(3000, 'd'));
}

RC_GTEST_PROP(BothHandshakes, ListAndDescribe, (bool details)) {
  const Wire::Directory directory = threeExports();
  ServerHandshake server(directory, {});
  ClientHandshake client({.goal = details ? ClientHandshake::Goal::details : ClientHandshake::Goal::listing});
  const Dialogue dialogue(server, client, pieces());
  RC_ASSERT(dialogue.server == ServerHandshake::State::closing);
  RC_ASSERT(dialogue.client == ClientHandshake::State::finished);
  RC_ASSERT(client.exports().size() == 3U);
  for (const Nbd::RemoteExport& remote : client.exports()) {
    RC_ASSERT(remote.description == std::string(3000, 'd'));
    RC_ASSERT(remote.size.has_value() == details);
  }
}

// What a server says is broken at one byte, or is noise from some byte on: the client keeps its contract, and
// any split gives the same.
RC_GTEST_PROP(ClientHandshakeProperty, AnySplitOfTheInputGivesTheSame, (const std::string& noise)) {
  const Wire::Directory directory = threeExports();
  ServerHandshake server(directory, {});
  Buffer words;
  server.greet(words);
  const bool isExtended = *rc::gen::arbitrary<bool>();
  const Option first = isExtended ? Option::extendedHeaders : Option::structuredReply;
  const auto wanted = Wire::infoData("a", {InfoType::name, InfoType::description, InfoType::blockSize});
  const Buffer asked =
      Wire::join({Wire::clientFlags(), Wire::option(first),
                  Wire::option(Option::setMetaContext, Wire::contextData("a", {"base:allocation"})),
                  Wire::option(Option::go, wanted)});
  const Buffer answers = Wire::converse(server, asked).output;
  words.insert(words.end(), answers.begin(), answers.end());
  if (*rc::gen::arbitrary<bool>()) {
    words[*rc::gen::inRange<std::size_t>(0, words.size())] ^=
        static_cast<std::byte>(*rc::gen::inRange(0, 256));
  } else {
    words.resize(*rc::gen::inRange<std::size_t>(0, words.size()));
  }
  Nbd::appendText(words, noise);

  ClientHandshake whole({.exportName = "a", .extendedHeaders = isExtended});
  ClientHandshake split({.exportName = "a", .extendedHeaders = isExtended});
  const auto expected = Wire::converse(whole, words);
  const auto outcome = Wire::converse(split, words, pieces());
  RC_ASSERT(outcome.keptContract);
  RC_ASSERT(outcome.output == expected.output);
  RC_ASSERT(outcome.consumed == expected.consumed);
  RC_ASSERT(outcome.state == expected.state);
  RC_ASSERT(split.failure().message == whole.failure().message);
}

}  // namespace
