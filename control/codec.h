#pragma once

// Records to and from JSON, by their descriptions.
//
// Decoding is strict about what it knows (types, ranges, words, required fields) and blind to what it does
// not know (further fields), so that either end may be the newer one.

#include <concepts>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "control/fields.h"
#include "control/json_document.h"
#include "control/json_writer.h"

namespace Control {

namespace Detail {

template <class T>
inline constexpr bool isOptional = false;
template <class T>
inline constexpr bool isOptional<std::optional<T>> = true;

template <class T>
inline constexpr bool isVector = false;
template <class T>
inline constexpr bool isVector<std::vector<T>> = true;

template <class T>
inline constexpr bool isFlags = false;
template <class Flag>
inline constexpr bool isFlags<Flags<Flag>> = true;

}  // namespace Detail

/// Writes the member `name` of the object that is open in `writer`; an empty optional is left out.
template <class T>
void encodeMember(JsonWriter& writer, std::string_view name, const T& value);

void encode(JsonWriter& writer, const VariantEntry& entry);

template <class Flag>
void encode(JsonWriter& writer, Flags<Flag> flags) {
  Flags<Flag> known;
  writer.beginArray();
  for (const auto& word : Words<Flag>::list) {
    if (!flags.has(word.value)) continue;
    writer.string(word.text);
    known.set(word.value);
  }
  writer.endArray();
  if (known != flags) writer.distort();
}

template <class Enumeration>
void encodeWord(JsonWriter& writer, Enumeration value) {
  for (const auto& word : Words<Enumeration>::list) {
    if (word.value == value) return writer.string(word.text);
  }
  writer.string("");
  writer.distort();
}

template <class T>
void encode(JsonWriter& writer, const T& value) {
  if constexpr (std::same_as<T, bool>) {
    writer.boolean(value);
  } else if constexpr (std::unsigned_integral<T>) {
    writer.number(value);
  } else if constexpr (std::same_as<T, std::string>) {
    writer.string(value);
  } else if constexpr (Worded<T>) {
    encodeWord(writer, value);
  } else if constexpr (std::is_enum_v<T>) {
    writer.number(static_cast<std::underlying_type_t<T>>(value));
  } else if constexpr (Detail::isVector<T>) {
    writer.beginArray();
    for (const auto& element : value) encode(writer, element);
    writer.endArray();
  } else {
    static_assert(Described<T>);
    writer.beginObject();
    std::apply([&](const auto&... field) { (encodeMember(writer, field.name, value.*field.member), ...); },
               Description<T>::fields);
    writer.endObject();
  }
}

template <class T>
void encodeMember(JsonWriter& writer, std::string_view name, const T& value) {
  if constexpr (Detail::isOptional<T>) {
    if (value) encodeMember(writer, name, *value);
  } else {
    writer.key(name);
    encode(writer, value);
  }
}

/// What a decoder did not like: the way to it ("descriptor.elemCount"). Empty while all is well.
class Complaint {
 public:
  bool empty() const { return path_.empty(); }
  const std::string& path() const { return path_; }

  /// Called from the innermost member outwards as decoding unwinds.
  void within(std::string_view member) {
    path_ = path_.empty() ? std::string(member) : std::string(member) + "." + path_;
  }

 private:
  std::string path_;
};

bool decode(JsonValue json, VariantEntry& entry, Complaint& complaint);

template <class T>
bool decode(JsonValue json, T& value, Complaint& complaint);

/// Reads the member `name` of an object. An absent one leaves a defaulted or optional `value` as it is.
template <class T>
bool decodeMember(JsonValue object, std::string_view name, Presence presence, T& value,
                  Complaint& complaint) {
  const JsonValue json = object.member(name);
  bool read = false;
  if constexpr (Detail::isOptional<T>) {
    read = json.isAbsent() || decode(json, value.emplace(), complaint);
  } else {
    read = json.isAbsent() ? presence == Presence::defaulted : decode(json, value, complaint);
  }
  if (!read) complaint.within(name);
  return read;
}

namespace Detail {

template <class T>
bool decodeNumber(JsonValue json, T& value) {
  const auto number = json.asUnsigned();
  if (!number || *number > std::numeric_limits<T>::max()) return false;
  value = static_cast<T>(*number);
  return true;
}

template <class Enumeration>
bool decodeWord(JsonValue json, Enumeration& value) {
  const auto text = json.asString();
  if (!text) return false;
  for (const auto& word : Words<Enumeration>::list) {
    if (word.text == *text) {
      value = word.value;
      return true;
    }
  }
  return false;
}

template <class Flag>
bool decodeFlags(JsonValue json, Flags<Flag>& flags) {
  if (!json.isArray()) return false;
  for (std::size_t index = 0; index < json.size(); ++index) {
    Flag flag{};
    if (!decodeWord(json.element(index), flag)) return false;
    flags.set(flag);
  }
  return true;
}

template <class T>
bool decodeList(JsonValue json, std::vector<T>& list, Complaint& complaint) {
  if (!json.isArray()) return false;
  list.reserve(json.size());
  for (std::size_t index = 0; index < json.size(); ++index) {
    if (!decode(json.element(index), list.emplace_back(), complaint)) return false;
  }
  return true;
}

}  // namespace Detail

/// Reads `json` into `value`, which holds its defaults. False if it does not fit; `complaint` then says which
/// member of `json` was wrong, or stays as it was if `json` itself was.
template <class T>
bool decode(JsonValue json, T& value, Complaint& complaint) {
  if constexpr (std::same_as<T, bool>) {
    const auto boolean = json.asBoolean();
    value = boolean.value_or(false);
    return boolean.has_value();
  } else if constexpr (std::unsigned_integral<T>) {
    return Detail::decodeNumber(json, value);
  } else if constexpr (std::same_as<T, std::string>) {
    const auto text = json.asString();
    value = text.value_or("");
    return text.has_value();
  } else if constexpr (Worded<T>) {
    return Detail::decodeWord(json, value);
  } else if constexpr (std::is_enum_v<T>) {
    std::underlying_type_t<T> number{};
    if (!Detail::decodeNumber(json, number)) return false;
    value = T{number};
    return true;
  } else if constexpr (Detail::isFlags<T>) {
    return Detail::decodeFlags(json, value);
  } else if constexpr (Detail::isVector<T>) {
    return Detail::decodeList(json, value, complaint);
  } else {
    static_assert(Described<T>);
    if (!json.isObject()) return false;
    return std::apply(
        [&](const auto&... field) {
          return (decodeMember(json, field.name, field.presence, value.*field.member, complaint) && ...);
        },
        Description<T>::fields);
  }
}

}  // namespace Control
