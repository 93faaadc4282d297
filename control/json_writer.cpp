#include "control/json_writer.h"

#include <algorithm>

#include "control/utf8.h"

namespace Control {

namespace {

constexpr bool needsEscape(char character) {
  return static_cast<unsigned char>(character) < 0x20 || character == '"' || character == '\\';
}

constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";

}  // namespace

void JsonWriter::string(std::string_view value) {
  raw("\"");
  while (!value.empty()) {
    const std::string_view valid = value.substr(0, validUtf8Prefix(value));
    auto from = valid.begin();
    while (from != valid.end()) {
      const auto stop = std::find_if(from, valid.end(), needsEscape);
      text_.append(from, stop);
      from = stop;
      if (from != valid.end()) escape(*from++);
    }
    value.remove_prefix(valid.size());
    if (!value.empty()) {
      distort();
      text_ += replacementCharacter;
      value.remove_prefix(1);
    }
  }
  text_ += '"';
}

void JsonWriter::escape(char character) {
  constexpr std::string_view hexadecimal = "0123456789abcdef";
  text_ += '\\';
  switch (character) {
    case '\n':
      text_ += 'n';
      break;
    case '\t':
      text_ += 't';
      break;
    case '"':
    case '\\':
      text_ += character;
      break;
    default: {
      const auto value = static_cast<unsigned char>(character);
      text_ += "u00";
      text_ += hexadecimal[value >> 4U];
      text_ += hexadecimal[value & 0xFU];
    }
  }
}

}  // namespace Control
