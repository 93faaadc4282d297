#include "control/codec.h"

#include "control/base64.h"

namespace Control {

namespace {

template <class... Visitors>
struct Overloaded : Visitors... {
  using Visitors::operator()...;
};

}  // namespace

void encode(JsonWriter& writer, const VariantEntry& entry) {
  writer.beginObject();
  encodeMember(writer, "name", entry.name);
  std::visit(Overloaded{
                 [](std::monostate) {},
                 [&](std::uint64_t number) { encodeMember(writer, "number", number); },
                 [&](const std::string& text) { encodeMember(writer, "text", text); },
                 [&](const Binary& binary) { encodeMember(writer, "binary", toBase64(binary.octets)); },
                 [&](const Variant& nested) { encodeMember(writer, "nested", nested); },
             },
             entry.value);
  writer.endObject();
}

bool decode(JsonValue json, VariantEntry& entry, Complaint& complaint) {
  if (!json.isObject()) return false;
  std::optional<std::uint64_t> number;
  std::optional<std::string> text;
  std::optional<std::string> base64;
  std::optional<Variant> nested;
  if (!decodeMember(json, "name", Presence::required, entry.name, complaint) ||
      !decodeMember(json, "number", Presence::required, number, complaint) ||
      !decodeMember(json, "text", Presence::required, text, complaint) ||
      !decodeMember(json, "binary", Presence::required, base64, complaint) ||
      !decodeMember(json, "nested", Presence::required, nested, complaint)) {
    return false;
  }
  if (number.has_value() + text.has_value() + base64.has_value() + nested.has_value() > 1) return false;
  if (number) entry.value = *number;
  if (text) entry.value = std::move(*text);
  if (nested) entry.value = std::move(*nested);
  if (base64) {
    auto octets = fromBase64(*base64);
    if (!octets) {
      complaint.within("binary");
      return false;
    }
    entry.value = Binary{std::move(*octets)};
  }
  return true;
}

}  // namespace Control
