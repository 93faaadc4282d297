#include "nbdd/discovery/txt_record.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

#include "control/utf8.h"
#include "nbdd/exports/identity.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"

namespace Nbdd::Discovery {

namespace {

/// A string of a TXT record has its length in one byte.
constexpr std::size_t longestString = 255;

struct Field {
  std::string_view key;
  std::string ServerText::* value;
};

constexpr std::array fields{
    Field{"uuid", &ServerText::uuid},         Field{"version", &ServerText::version},
    Field{"platform", &ServerText::platform}, Field{"label", &ServerText::label},
    Field{"host", &ServerText::hostName},
};

char lower(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

bool sameKey(std::string_view left, std::string_view right) {
  return std::ranges::equal(left, right, {}, lower, lower);
}

std::string uuidOf(std::string_view value) {
  std::string uuid(value.substr(0, 64));
  std::ranges::transform(uuid, uuid.begin(), lower);
  return isUuid(uuid) ? uuid : std::string();
}

}  // namespace

std::string_view cutText(std::string_view text, std::size_t most) {
  const std::string_view beginning = text.substr(0, most);
  if (beginning.size() == text.size()) return text;
  // What was whole stays whole; what was broken before is cut anywhere.
  std::size_t end = beginning.size();
  while (end > 0 && beginning.size() - end < 4 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
    --end;
  return beginning.substr(0, end);
}

std::string displayText(std::string_view foreign, std::size_t most) {
  return std::string(cutText(printable(foreign.substr(0, most)), most));
}

std::vector<std::string> encodeText(const ServerText& text) {
  std::vector<std::string> strings;
  for (const Field& field : fields) {
    const std::string& value = text.*field.value;
    if (value.empty()) continue;
    std::string string(field.key);
    string += '=';
    string += cutText(value, longestString - string.size());
    strings.push_back(std::move(string));
  }
  return strings;
}

ServerText decodeText(std::span<const std::string_view> strings) {
  ServerText text;
  std::array<bool, fields.size()> seen{};
  for (const std::string_view string :
       strings.first(std::min(strings.size(), Limits::discoveryTextStrings))) {
    const std::size_t equals = string.find('=');
    if (equals == std::string_view::npos) continue;
    const auto field = std::ranges::find_if(
        fields, [&](const Field& each) { return sameKey(each.key, string.substr(0, equals)); });
    if (field == fields.end()) continue;
    if (std::exchange(seen[static_cast<std::size_t>(field - fields.begin())], true)) continue;
    const std::string_view value = string.substr(equals + 1);
    text.*field->value =
        field->key == "uuid" ? uuidOf(value) : displayText(value, Limits::discoveryTextLength);
  }
  return text;
}

}  // namespace Nbdd::Discovery
