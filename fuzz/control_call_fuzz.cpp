// What a client of the control socket sends, in pieces as the first byte says: nothing may crash, every call
// has exactly one outcome, and every reply is one JSON object without a NUL.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "control/dispatcher.h"
#include "control/framing.h"
#include "control/json_document.h"
#include "control/limits.h"
#include "tests/control/fake_service.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

void checkReply(std::string_view reply) {
  if (reply.empty()) return;
  const auto document = Control::JsonDocument::parse(reply);
  require(document.has_value() && document->root().isObject());
  require(reply.find('\0') == std::string_view::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t piece = std::size_t{data[0]} + 1;
  std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  static Control::Testing::FakeService service;
  static Control::Dispatcher dispatcher(service, {});
  service.calls.clear();
  Control::Framing framing(Control::Limits::requestLength);
  while (!rest.empty()) {
    const auto room = framing.prepare();
    const std::size_t count = std::min({piece, room.size(), rest.size()});
    std::copy_n(rest.begin(), count, room.begin());
    framing.commit(count);
    rest.remove_prefix(count);
    while (const auto message = framing.next()) {
      int outcomes = 0;
      dispatcher.dispatch(*message, [&](const Control::Outcome& outcome) {
        ++outcomes;
        checkReply(outcome.reply);
      });
      require(outcomes == 1);
    }
  }
  return 0;
}
