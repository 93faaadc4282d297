// The configuration file's text: taken, with addresses that are taken again, or refused in one clean line.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
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
  if (!clean) {
    std::fputs(message.c_str(), stderr);
    std::abort();
  }
}

/// A basic string of TOML.
std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') result += '\\';
    result += character;
  }
  return result + "\"";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto configuration = Nbdd::parseConfiguration(text, "file");
  if (!configuration) {
    checkMessage(configuration.error());
    return 0;
  }
  // Paths and names would have to be escaped again, which is not what is looked at here.
  Nbdd::Configuration printable = *configuration;
  printable.tls = {};
  printable.importTls = {};
  printable.exportAllow.clear();
  std::string again = "[server]\nport = " + std::to_string(configuration->port) + "\n";
  for (const std::string& address : configuration->listen) {
    again += again.ends_with("\",") ? "\"" + address + "\"," : "listen = [\"" + address + "\",";
  }
  if (!configuration->listen.empty()) again += "]\n";
  std::string allow;
  for (const Nbdd::Network& network : configuration->allow) {
    allow += (allow.empty() ? "allow = [\"" : "\"") + network.text() + "\",";
  }
  if (!allow.empty()) again += allow + "]\n";
  again += "[discovery]\nenabled = " + std::string(configuration->discovery ? "true" : "false");
  again += "\ntime-to-live = " + std::to_string(configuration->timeToLive.count()) + "\n";
  if (!configuration->label.empty()) again += "label = " + quoted(configuration->label) + "\n";
  for (const std::string& name : configuration->interfaces) {
    again += again.ends_with("\",") ? "\"" + name + "\"," : "interfaces = [\"" + name + "\",";
  }
  if (!configuration->interfaces.empty()) again += "]\n";
  if (Nbdd::parseConfiguration(again, "file") != printable) std::abort();
  return 0;
}
