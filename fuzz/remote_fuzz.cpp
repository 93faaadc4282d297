// A server's whole side of the transmission phase, as an import's connection takes it: six requests are under
// way, and then come the bytes. The first byte says in which form the two talk and where the bytes are split;
// every split must lead to the same end.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/stream.h"
#include "nbdd/remote/connection.h"

namespace {

using Nbd::Command;
using Nbd::HeaderStyle;
using Nbdd::Remote::Connection;
namespace Io = Nbdd::Io;

constexpr std::uint32_t context = 7;
constexpr std::uint64_t base = 8192;
constexpr std::byte untouched{0xa5};
constexpr std::uint64_t lateFrom = 300;  // longer reads have no memory before their data come

void expect(bool promise) {
  if (!promise) std::abort();
}

/// A request of the corpus: number n has the cookie n * 257.
class Asked final : public Nbdd::Remote::Request {
 public:
  Asked(Command which, std::uint64_t at, std::uint64_t bytes) {
    command = which;
    offset = at;
    length = bytes;
    if (which == Command::read || which == Command::write) memory.assign(bytes, untouched);
    if (which == Command::read && bytes < lateFrom) destination = memory;
    if (which == Command::write) payload = memory;
    if (which == Command::blockStatus) extents = &found;
  }

  void takeMemory() override {
    expect(command == Command::read && length >= lateFrom);
    expect(!answer && destination.empty());  // once
    destination = memory;
  }
  void done(Nbd::Error error) override {
    expect(!answer);  // once
    // Every byte of a good answer came from somewhere.
    expect(error != Nbd::Error::none || command != Command::read || destination.size() == length);
    answer = error;
  }

  std::vector<std::byte> memory;
  std::vector<Nbd::Extent> found;
  std::optional<Nbd::Error> answer;
};

struct Outcome {
  Connection::Ending ending;
  std::vector<std::unique_ptr<Asked>> requests;
  std::vector<Nbdd::Remote::Request*> unanswered;
};

struct Talk {
  HeaderStyle headers = HeaderStyle::simple;
  Nbd::Bytes early;  // has arrived together with the handshake
  Nbd::Bytes late;
};

Io::Task<void> runToTheEnd(Io::EventLoop& loop, Connection& connection, Outcome& outcome) {
  Io::Task<Connection::Ending> running = connection.run();
  outcome.ending = co_await running;
  outcome.unanswered = connection.takeUnanswered();
  loop.stop();
}

Outcome talk(const Talk& talk) {
  std::array<int, 2> sockets{};
  expect(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets.data()) == 0);
  const Io::FileDescriptor server(sockets[1]);
  Io::EventLoop loop;
  Nbdd::Remote::Dialled dialled;
  dialled.stream = std::make_unique<Io::Stream>(loop, Io::FileDescriptor(sockets[0]));
  dialled.agreement.headers = talk.headers;
  dialled.agreement.remote.size = 1 << 20;
  if (talk.headers != HeaderStyle::simple) dialled.agreement.allocationContext = context;
  dialled.received.assign(talk.early.begin(), talk.early.end());
  Outcome outcome;
  const auto ask = [&](auto... words) { outcome.requests.push_back(std::make_unique<Asked>(words...)); };
  ask(Command::read, base, 16U);
  ask(Command::read, base, 6000U);  // long enough to be received where it belongs
  ask(Command::write, base, 32U);
  ask(Command::flush, 0U, 0U);
  ask(Command::blockStatus, base, 65536U);
  ask(Command::read, base + 100, 300U);
  Connection connection(loop, std::move(dialled), {.answered = [] {}, .draining = [](const std::string&) {}});
  for (const auto& request : outcome.requests) {
    // Without chunks, nobody asks for this.
    if (request->command == Command::blockStatus && talk.headers == HeaderStyle::simple) continue;
    connection.submit(*request);
  }
  expect(::write(server.number(), talk.late.data(), talk.late.size()) ==
         static_cast<ssize_t>(talk.late.size()));
  ::shutdown(server.number(), SHUT_WR);
  Io::Scope scope;
  scope.spawn(runToTheEnd(loop, connection, outcome));
  loop.run();
  return outcome;
}

bool isUnanswered(const Outcome& outcome, const Asked& request) {
  return std::ranges::find(outcome.unanswered, &request) != outcome.unanswered.end();
}

void check(const Outcome& outcome) {
  using Kind = Connection::Ending::Kind;
  expect(outcome.ending.kind != Kind::stopped && outcome.ending.kind != Kind::silent);
  expect(!outcome.ending.reason.empty());
  for (const auto& request : outcome.requests) {
    const bool unanswered = isUnanswered(outcome, *request);
    expect(!(request->answer && unanswered));
    if (!request->answer) continue;
    expect(*request->answer != Nbd::Error::shutdown);
    if (*request->answer != Nbd::Error::none) continue;
    // A good answer tells all that was asked for.
    if (request->command == Command::blockStatus) expect(!request->found.empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  constexpr std::array styles{HeaderStyle::simple, HeaderStyle::structured, HeaderStyle::extended};
  const HeaderStyle headers = styles.at(data[0] % styles.size());
  const Nbd::Bytes input = std::as_bytes(std::span(data, size)).subspan(1);
  const std::size_t split = std::min<std::size_t>(data[0], input.size());
  const Outcome whole = talk({.headers = headers, .early = {}, .late = input});
  const Outcome parted =
      talk({.headers = headers, .early = input.first(split), .late = input.subspan(split)});
  check(whole);
  check(parted);
  expect(whole.ending.kind == parted.ending.kind && whole.ending.reason == parted.ending.reason);
  for (std::size_t index = 0; index < whole.requests.size(); ++index) {
    const Asked& one = *whole.requests[index];
    const Asked& other = *parted.requests[index];
    expect(one.answer == other.answer && one.found == other.found);
    expect(isUnanswered(whole, one) == isUnanswered(parted, other));
    if (one.answer == Nbd::Error::none) expect(one.memory == other.memory);
  }
  return 0;
}
