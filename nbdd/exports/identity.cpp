#include "nbdd/exports/identity.h"

#include <fmt/core.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "control/utf8.h"
#include "nbdd/limits.h"

namespace Nbdd {

namespace {

/// How many bytes at `at` make up a control character: C0 and DEL are one, C1 are two in UTF-8; else 0.
std::size_t controlLength(std::string_view text, std::size_t at) {
  const auto byte = static_cast<unsigned char>(text[at]);
  if (byte < 0x20 || byte == 0x7F) return 1;
  const bool c1 = byte == 0xC2 && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xA0;
  return c1 ? 2 : 0;
}

bool isLowerHex(char character) {
  return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'f');
}

}  // namespace

bool isExportName(std::string_view text) {
  if (text.empty() || text.size() > Limits::exportNameLength || !Control::isUtf8(text)) return false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (controlLength(text, at) != 0) return false;
  }
  return true;
}

bool isNodePath(std::string_view text) {
  return text.starts_with('/') && text.size() <= Limits::nodePathLength &&
         text.find('\0') == std::string_view::npos && Control::isUtf8(text);
}

bool isUuid(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool dash = at == 8 || at == 13 || at == 18 || at == 23;
    if (dash ? text[at] != '-' : !isLowerHex(text[at])) return false;
  }
  return true;
}

std::string makeUuid() {
  std::array<std::uint8_t, 16> octets{};
  // Up to 256 bytes are given whole; before the pool is ready the call waits, and a signal may end that wait.
  while (::getrandom(octets.data(), octets.size(), 0) != static_cast<ssize_t>(octets.size())) {
    if (errno != EINTR) std::abort();
  }
  octets[6] = static_cast<std::uint8_t>((octets[6] & 0x0F) | 0x40);
  octets[8] = static_cast<std::uint8_t>((octets[8] & 0x3F) | 0x80);
  std::string text;
  for (std::size_t at = 0; at < octets.size(); ++at) {
    if (at == 4 || at == 6 || at == 8 || at == 10) text += '-';
    text += fmt::format("{:02x}", octets[at]);
  }
  return text;
}

std::string chooseExportName(std::string_view node, const std::function<bool(const std::string&)>& taken) {
  node = node.substr(0, node.find_last_not_of('/') + 1);
  const std::string_view file = node.substr(node.rfind('/') + 1);
  std::string base;
  for (std::size_t at = 0; at < file.size(); ++at) {
    const std::size_t control = controlLength(file, at);
    base += control == 0 ? file[at] : '_';
    at += control == 2 ? 1 : 0;
  }
  if (base.empty()) base = "export";
  // A file name is far shorter than the protocol's longest string: what is appended always fits.
  std::string name = base;
  for (std::uint64_t number = 2; taken(name); ++number) name = fmt::format("{}-{}", base, number);
  return name;
}

}  // namespace Nbdd
