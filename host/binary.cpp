#include "host/binary.h"

#include <string_view>

#include "platform/binary.h"

namespace {

std::span<char*> programArguments;

}  // namespace

namespace Host {

void setArguments(std::span<char*> arguments) noexcept { programArguments = arguments; }

}  // namespace Host

namespace Binary {

std::uint32_t argCount() { return static_cast<std::uint32_t>(programArguments.size()); }

Ref<String> arg(std::uint32_t index) {
  if (index >= programArguments.size()) {
    return nullptr;
  }
  return String::create(std::string_view(programArguments[index]));
}

}  // namespace Binary
