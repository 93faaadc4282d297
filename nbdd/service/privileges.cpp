#include "nbdd/service/privileges.h"

#include <fmt/core.h>
#include <fmt/ranges.h>
#include <linux/capability.h>
#include <unistd.h>

#include <charconv>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

namespace Nbdd {

namespace {

/// The word behind `name` at the beginning of a line.
std::optional<std::string_view> field(std::string_view text, std::string_view name) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (!line.starts_with(name)) continue;
    line.remove_prefix(name.size());
    const std::size_t begin = line.find_first_not_of(" \t");
    return begin == std::string_view::npos ? std::string_view() : line.substr(begin);
  }
  return std::nullopt;
}

std::optional<std::uint64_t> number(std::optional<std::string_view> text, int base) {
  std::uint64_t value = 0;
  if (!text) return std::nullopt;
  const char* const end = std::to_address(text->end());
  const auto [stopped, error] = std::from_chars(std::to_address(text->begin()), end, value, base);
  return error == std::errc{} && stopped == end ? std::optional(value) : std::nullopt;
}

struct Ability {
  unsigned int capability;
  std::string_view words;
};

constexpr Ability abilities[] = {
    {CAP_DAC_OVERRIDE, "open nodes of any owner"},
    {CAP_NET_BIND_SERVICE, "listen on ports below 1024"},
    {CAP_SYS_ADMIN, "mount the nodes of imports and use the kernel's nbd driver"},
};

}  // namespace

std::optional<Privileges> parsePrivileges(std::string_view status, uid_t user) {
  const auto capabilities = number(field(status, "CapEff:"), 16);
  const auto seccomp = number(field(status, "Seccomp:"), 10);
  const auto noNew = number(field(status, "NoNewPrivs:"), 10);
  if (!capabilities || !seccomp || !noNew) return std::nullopt;
  constexpr std::uint64_t filterMode = 2;
  return Privileges{
      .user = user, .capabilities = *capabilities, .filtered = *seccomp == filterMode, .noNew = *noNew != 0};
}

Privileges ownPrivileges() {
  std::ifstream file("/proc/self/status");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  return parsePrivileges(text, ::geteuid()).value_or(Privileges{.user = ::geteuid()});
}

std::string describe(const Privileges& privileges) {
  std::vector<std::string_view> may;
  std::vector<std::string_view> mayNot;
  for (const auto& [capability, words] : abilities) {
    const bool has = (privileges.capabilities >> capability & 1) != 0;
    (has ? may : mayNot).push_back(words);
  }
  std::string line = fmt::format("runs as user {}", privileges.user);
  if (!may.empty()) line += fmt::format("; may {}", fmt::join(may, ", "));
  if (!mayNot.empty()) line += fmt::format("; may not {}", fmt::join(mayNot, ", "));
  line += privileges.filtered ? "; system calls are filtered" : "; system calls are not filtered";
  line += privileges.noNew ? "; can gain no privileges" : "; can gain privileges by set-user-ID programs";
  return line;
}

}  // namespace Nbdd
