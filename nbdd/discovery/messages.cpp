#include "nbdd/discovery/messages.h"

#include <limits>
#include <optional>
#include <type_traits>
#include <utility>

#include "control/json_document.h"
#include "control/json_writer.h"
#include "nbdd/exports/identity.h"
#include "nbdd/limits.h"

namespace Nbdd::Discovery {

namespace {

using Control::JsonValue;
using Control::JsonWriter;

void write(JsonWriter& writer, std::string_view key, std::string_view value) {
  writer.key(key);
  writer.string(value);
}

void write(JsonWriter& writer, std::string_view key, std::uint64_t value) {
  writer.key(key);
  writer.number(value);
}

void write(JsonWriter& writer, std::string_view key, const std::vector<std::string>& values) {
  writer.key(key);
  writer.beginArray();
  for (const std::string& value : values) writer.string(value);
  writer.endArray();
}

void write(JsonWriter& writer, const Announcement& announcement) {
  writer.beginObject();
  write(writer, "name", announcement.name);
  write(writer, "target", announcement.target);
  write(writer, "addresses", announcement.addresses);
  write(writer, "port", std::uint64_t{announcement.port});
  write(writer, "timeToLive", static_cast<std::uint64_t>(announcement.timeToLive.count()));
  write(writer, "text", announcement.text);
  writer.endObject();
}

void write(JsonWriter& writer, const Sighting& sighting) {
  write(writer, "found", sighting.id);
  write(writer, "name", sighting.name);
  write(writer, "target", sighting.target);
  write(writer, "interface", sighting.interfaceName);
  write(writer, "index", std::uint64_t{sighting.interfaceIndex});
  write(writer, "address", sighting.address);
  write(writer, "port", std::uint64_t{sighting.port});
  write(writer, "uuid", sighting.text.uuid);
  write(writer, "version", sighting.text.version);
  write(writer, "platform", sighting.text.platform);
  write(writer, "label", sighting.text.label);
  write(writer, "host", sighting.text.hostName);
}

void write(JsonWriter& writer, const Lost& lost) { write(writer, "lost", lost.id); }

void write(JsonWriter& writer, const Searched& /*searched*/) {
  writer.key("searched");
  writer.boolean(true);
}

void write(JsonWriter& writer, const Remark& remark) {
  write(writer, "remark", remark.text);
  write(writer, "level", static_cast<std::uint64_t>(remark.level));
}

/// Reads the members of one object, and remembers whether each was what it should be.
class Reader {
 public:
  explicit Reader(JsonValue object) : object_(object), good_(object.isObject()) {}

  std::string text(std::string_view name, std::size_t longest) {
    const std::optional<std::string_view> value = object_.member(name).asString();
    good_ = good_ && value && value->size() <= longest;
    return good_ ? std::string(*value) : std::string();
  }

  template <class Number>
  Number number(std::string_view name, std::uint64_t most = std::numeric_limits<Number>::max()) {
    const std::optional<std::uint64_t> value = object_.member(name).asUnsigned();
    good_ = good_ && value && *value <= most;
    return good_ ? static_cast<Number>(*value) : Number{};
  }

  bool boolean(std::string_view name) {
    const std::optional<bool> value = object_.member(name).asBoolean();
    good_ = good_ && value;
    return good_ && *value;
  }

  std::vector<std::string> texts(std::string_view name, std::size_t most) {
    const JsonValue array = object_.member(name);
    good_ = good_ && array.isArray() && array.size() <= most;
    std::vector<std::string> values;
    for (std::size_t index = 0; good_ && index < array.size(); ++index) {
      const std::optional<std::string_view> value = array.element(index).asString();
      good_ = value && value->size() <= Limits::discoveryTextLength;
      if (good_) values.emplace_back(*value);
    }
    return values;
  }

  bool has(std::string_view name) const { return !object_.member(name).isAbsent(); }
  void require(bool condition) { good_ = good_ && condition; }
  bool good() const { return good_; }

 private:
  JsonValue object_;
  bool good_;
};

Sighting readSighting(Reader& reader) {
  // A text that was cut may have grown again by what JSON cannot hold.
  constexpr std::size_t longest = Limits::discoveryTextLength;
  Sighting sighting{.id = reader.number<std::uint64_t>("found"),
                    .name = reader.text("name", longest),
                    .target = reader.text("target", longest),
                    .interfaceName = reader.text("interface", longest),
                    .interfaceIndex = reader.number<std::uint32_t>("index"),
                    .address = reader.text("address", longest),
                    .port = reader.number<std::uint16_t>("port"),
                    .text = {.uuid = reader.text("uuid", longest),
                             .version = reader.text("version", longest),
                             .platform = reader.text("platform", longest),
                             .label = reader.text("label", longest),
                             .hostName = reader.text("host", longest)}};
  reader.require(!sighting.address.empty());
  reader.require(sighting.text.uuid.empty() || isUuid(sighting.text.uuid));
  return sighting;
}

Report readReport(Reader& reader) {
  if (reader.has("found")) return readSighting(reader);
  if (reader.has("lost")) return Lost{reader.number<std::uint64_t>("lost")};
  if (reader.has("searched")) return Searched{};
  const auto level = reader.number<std::uint8_t>("level", static_cast<std::uint8_t>(LogLevel::info));
  reader.require(level >= static_cast<std::uint8_t>(LogLevel::error));
  if (!reader.good()) return Remark{};
  return Remark{static_cast<LogLevel>(level), reader.text("remark", Limits::logLineLength)};
}

Announcement readAnnouncement(Reader& reader) {
  return {.name = reader.text("name", Limits::discoveryTextLength),
          .target = reader.text("target", Limits::discoveryTextLength),
          .addresses = reader.texts("addresses", Limits::listenAddresses),
          .port = reader.number<std::uint16_t>("port"),
          .timeToLive = std::chrono::seconds(
              reader.number<std::uint32_t>("timeToLive", std::numeric_limits<std::int32_t>::max())),
          .text = reader.texts("text", Limits::discoveryTextStrings)};
}

}  // namespace

std::string encode(const Wish& wish) {
  JsonWriter writer;
  writer.beginObject();
  write(writer, "interfaces", wish.interfaces);
  writer.key("announcements");
  writer.beginArray();
  for (const Announcement& announcement : wish.announcements) write(writer, announcement);
  writer.endArray();
  writer.key("browse");
  writer.boolean(wish.browse);
  write(writer, "question", std::uint64_t{wish.question});
  writer.endObject();
  return writer.take();
}

std::string encode(const Report& report) {
  JsonWriter writer;
  writer.beginObject();
  std::visit([&writer](const auto& each) { write(writer, each); }, report);
  writer.endObject();
  return writer.take();
}

std::expected<Wish, std::string> decodeWish(std::string_view message) {
  const auto document = Control::JsonDocument::parse(message);
  if (!document) return std::unexpected(document.error());
  Reader reader(document->root());
  Wish wish{.interfaces = reader.texts("interfaces", Limits::discoveryInterfaces),
            .browse = reader.boolean("browse"),
            .question = reader.number<std::uint32_t>("question")};
  const JsonValue announcements = document->root().member("announcements");
  reader.require(announcements.isArray() && announcements.size() <= 1);
  if (reader.good() && announcements.size() == 1) {
    Reader announcement(announcements.element(0));
    wish.announcements.push_back(readAnnouncement(announcement));
    reader.require(announcement.good());
  }
  if (!reader.good()) return std::unexpected("the message is no wish");
  return wish;
}

std::expected<Report, std::string> decodeReport(std::string_view message) {
  const auto document = Control::JsonDocument::parse(message);
  if (!document) return std::unexpected(document.error());
  Reader reader(document->root());
  Report report = readReport(reader);
  if (!reader.good()) return std::unexpected("the message is no report");
  return report;
}

}  // namespace Nbdd::Discovery
