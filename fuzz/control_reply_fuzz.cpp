// What a service answers, to the call that the first byte chooses: whatever it is, the client ends with a
// record or a failure; and a record that was read can be written and read again, and is the same.

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <cstdlib>

#include "control/client.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

template <class Output>
void checkOutput(const Output& output) {
  Control::JsonWriter writer;
  encode(writer, output);
  require(!writer.isDistorted());
  const auto document = Control::JsonDocument::parse(writer.take());
  require(document.has_value());
  Output again{};
  Control::Complaint complaint;
  require(decode(document->root(), again, complaint) && again == output);
}

template <class... Arguments>
void receive(Control::Client& client, const Control::Method<Arguments...>& method) {
  // The first answer is the service's; there is no second, only the end.
  for (int count = 0; count < 2; ++count) {
    const auto answer = client.receive(method);
    if constexpr (!std::is_void_v<typename Control::Method<Arguments...>::Output>) {
      if (answer) checkOutput(*answer);
    }
    require(answer.has_value() || answer.error().code != Control::FailureCode{});
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 60'000) return 0;  // what the socket's buffer takes at once
  std::array<int, 2> ends{};
  require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0);
  Control::Client client{Control::Descriptor(ends[0])};
  Control::Descriptor peer(ends[1]);
  require(::send(peer.number(), data + 1, size - 1, MSG_DONTWAIT) == static_cast<ssize_t>(size - 1));
  peer.reset();
  std::size_t row = data[0] % std::tuple_size_v<decltype(Control::Methods::all)>;
  std::apply(
      [&](const auto&... method) {
        const auto choose = [&](const auto& candidate) {
          if (row-- == 0) receive(client, candidate);
        };
        (choose(method), ...);
      },
      Control::Methods::all);
  return 0;
}
