#include "platform/string_conversion.h"

#include <charconv>
#include <string>
#include <system_error>

namespace StrConv {

bool num(const Ref<String>& text, std::uint64_t* number, const Ref<String>& prefix) {
  if (!text) {
    return false;
  }
  std::string_view digits = text->view();
  if (prefix) {
    if (!digits.starts_with(prefix->view())) {
      return false;
    }
    digits.remove_prefix(prefix->view().size());
  }
  // For an unsigned type from_chars takes digits alone: no sign, no blanks, no base prefix.
  std::uint64_t value = 0;
  const char* const start = digits.data();
  const char* const end = start + digits.size();
  const auto [stop, error] = std::from_chars(start, end, value);
  if (error != std::errc() || stop != end) {
    return false;
  }
  *number = value;
  return true;
}

Ref<String> str(std::uint64_t number) { return String::create(std::string_view(std::to_string(number))); }

}  // namespace StrConv
