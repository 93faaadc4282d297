// The configuration file's text: taken, with addresses that are taken again, or refused in one clean line.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "control/utf8.h"
#include "nbdd/config/configuration.h"

namespace {

void checkMessage(const std::string& message) {
  const bool clean =
      message.starts_with("file:") && Control::isUtf8(message) &&
      std::ranges::none_of(message, [](char byte) { return static_cast<unsigned char>(byte) < 0x20; });
  if (!clean) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto configuration = Nbdd::parseConfiguration(text, "file");
  if (!configuration) {
    checkMessage(configuration.error());
    return 0;
  }
  std::string again = "[server]\nport = " + std::to_string(configuration->port) + "\n";
  for (const std::string& address : configuration->listen) {
    if (address.find_first_of("\"\\") != std::string::npos || !Control::isUtf8(address)) return 0;
    again += again.ends_with("\",") ? "\"" + address + "\"," : "listen = [\"" + address + "\",";
  }
  if (!configuration->listen.empty()) again += "]\n";
  const bool printable = std::ranges::none_of(again, [](char byte) {
    return (static_cast<unsigned char>(byte) < 0x20 && byte != '\n') || byte == 0x7F;
  });
  if (printable && Nbdd::parseConfiguration(again, "file") != *configuration) std::abort();
  return 0;
}
