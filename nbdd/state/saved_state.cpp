#include "nbdd/state/saved_state.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <unordered_set>
#include <utility>

#include "control/json_writer.h"
#include "nbd/bytes.h"
#include "nbdd/exports/identity.h"
#include "nbdd/limits.h"

namespace Nbdd {

namespace {

using Json = nlohmann::json;
using Failure = std::unexpected<std::string>;

constexpr std::string_view formatName = "org.talvek.NBD.state";
constexpr std::uint64_t formatVersion = 3;
constexpr std::uint64_t versionWithoutCompression = 2;
constexpr std::uint64_t versionWithoutImports = 1;

/// What the next ID is when all were given.
constexpr std::uint64_t usedUp = std::uint64_t{std::numeric_limits<std::uint32_t>::max()} + 1;

constexpr std::array exportMembers{"id",   "name",      "node",     "readOnly",
                                   "uuid", "elemCount", "elemSize", "wanted"};
constexpr std::array serverMembers{"uuid", "started"};
constexpr std::array serverMembersWithCompression{"uuid", "started", "transferCompression"};
constexpr std::array stateMembers{"format", "version", "server", "nextExportId", "exports"};
constexpr std::array stateMembersWithImports{"format",  "version",      "server", "nextExportId",
                                             "exports", "nextImportId", "imports"};
constexpr std::array importMembers{"id", "name", "address", "port", "dontAnnounce", "readOnly", "wanted"};

constexpr std::array<std::pair<std::string_view, Wanted>, 3> wantedWords{{
    {"added", Wanted::added},
    {"enabled", Wanted::enabled},
    {"disabled", Wanted::disabled},
}};

std::string_view wordOf(Wanted wanted) {
  return std::ranges::find(wantedWords, wanted, [](const auto& row) { return row.second; })->first;
}

std::string exportLine(const SavedExport& saved) {
  Control::JsonWriter writer;
  writer.beginObject();
  writer.key("id");
  writer.number(static_cast<std::uint32_t>(saved.id));
  writer.key("name");
  writer.string(saved.name);
  writer.key("node");
  writer.string(saved.node);
  writer.key("readOnly");
  writer.boolean(saved.flags.has(Control::ExportFlag::readOnly));
  writer.key("uuid");
  writer.string(saved.uuid);
  writer.key("elemCount");
  writer.number(saved.elemCount);
  writer.key("elemSize");
  writer.number(saved.elemSize);
  writer.key("wanted");
  writer.string(wordOf(saved.wanted));
  writer.endObject();
  return writer.take();
}

std::string importLine(const SavedImport& saved) {
  Control::JsonWriter writer;
  writer.beginObject();
  writer.key("id");
  writer.number(static_cast<std::uint32_t>(saved.id));
  writer.key("name");
  writer.string(saved.name);
  writer.key("address");
  writer.string(saved.server.address);
  writer.key("port");
  writer.number(saved.server.port);
  writer.key("dontAnnounce");
  writer.boolean(saved.flags.has(Control::ImportFlag::dontAnnounceStorage));
  writer.key("readOnly");
  writer.boolean(saved.flags.has(Control::ImportFlag::forceReadOnly));
  writer.key("wanted");
  writer.string(wordOf(saved.wanted));
  writer.endObject();
  return writer.take();
}

template <class Entry>
std::string listOf(const std::vector<Entry>& entries, std::string (*line)(const Entry&)) {
  std::string text = "[";
  for (bool first = true; const Entry& entry : entries) {
    text += std::exchange(first, false) ? "\n" : ",\n";
    text += line(entry);
  }
  return text + "\n]";
}

/// Whether `value` is an object of exactly these members.
bool hasExactly(const Json& value, std::span<const char* const> members) {
  return value.is_object() && value.size() == members.size() &&
         std::ranges::all_of(members, [&](const char* name) { return value.contains(name); });
}

std::optional<std::uint64_t> wholeNumber(const Json& value) {
  if (!value.is_number_unsigned()) return {};
  return value.get<std::uint64_t>();
}

std::optional<Wanted> wantedFrom(const Json& value) {
  if (!value.is_string()) return {};
  const auto row = std::ranges::find(wantedWords, std::string_view(value.get_ref<const std::string&>()),
                                     [](const auto& candidate) { return candidate.first; });
  if (row == wantedWords.end()) return {};
  return row->second;
}

std::expected<SavedExport, std::string> exportFrom(const Json& value) {
  if (!hasExactly(value, exportMembers)) {
    return Failure("has an export with a member too many or too few");
  }
  const std::optional<std::uint64_t> id = wholeNumber(value["id"]);
  if (!id || *id == 0 || *id > std::numeric_limits<std::uint32_t>::max()) {
    return Failure("has an export whose ID is no number from 1 to 4294967295");
  }
  const std::optional<Wanted> wanted = wantedFrom(value["wanted"]);
  const std::optional<std::uint64_t> elemCount = wholeNumber(value["elemCount"]);
  const std::optional<std::uint64_t> elemSize = wholeNumber(value["elemSize"]);
  const bool typesFit = value["name"].is_string() && value["node"].is_string() && value["uuid"].is_string() &&
                        value["readOnly"].is_boolean() && wanted && elemCount && elemSize;
  if (!typesFit) return Failure(fmt::format("has a value of the wrong kind in the export with ID {}", *id));
  SavedExport saved;
  saved.id = static_cast<Control::ExportId>(*id);
  saved.name = value["name"].get_ref<const std::string&>();
  saved.node = value["node"].get_ref<const std::string&>();
  saved.uuid = value["uuid"].get_ref<const std::string&>();
  if (value["readOnly"].get<bool>()) saved.flags.set(Control::ExportFlag::readOnly);
  saved.elemCount = *elemCount;
  saved.elemSize = *elemSize;
  saved.wanted = *wanted;
  if (!isExportName(saved.name) || !isNodePath(saved.node) || !isUuid(saved.uuid)) {
    return Failure(
        fmt::format("has a name, node or UUID that no export can have, in the export with ID {}", *id));
  }
  if (saved.elemSize == 0 || saved.elemCount > std::numeric_limits<std::uint64_t>::max() / saved.elemSize) {
    return Failure(fmt::format("has a size that no node can have, in the export with ID {}", *id));
  }
  return saved;
}

std::expected<SavedImport, std::string> importFrom(const Json& value) {
  if (!hasExactly(value, importMembers)) return Failure("has an import with a member too many or too few");
  const std::optional<std::uint64_t> id = wholeNumber(value["id"]);
  if (!id || *id == 0 || *id > std::numeric_limits<std::uint32_t>::max()) {
    return Failure("has an import whose ID is no number from 1 to 4294967295");
  }
  const std::optional<Wanted> wanted = wantedFrom(value["wanted"]);
  const std::optional<std::uint64_t> port = wholeNumber(value["port"]);
  const bool typesFit = value["name"].is_string() && value["address"].is_string() && port &&
                        *port <= std::numeric_limits<std::uint16_t>::max() && wanted &&
                        value["dontAnnounce"].is_boolean() && value["readOnly"].is_boolean();
  if (!typesFit) return Failure(fmt::format("has a value of the wrong kind in the import with ID {}", *id));
  SavedImport saved;
  saved.id = static_cast<Control::ImportId>(*id);
  saved.name = value["name"].get_ref<const std::string&>();
  saved.server = {.address = value["address"].get_ref<const std::string&>(),
                  .port = static_cast<std::uint16_t>(*port)};
  if (value["dontAnnounce"].get<bool>()) saved.flags.set(Control::ImportFlag::dontAnnounceStorage);
  if (value["readOnly"].get<bool>()) saved.flags.set(Control::ImportFlag::forceReadOnly);
  saved.wanted = *wanted;
  if (!Nbd::isWireString(saved.name) || saved.server.address.empty()) {
    return Failure(
        fmt::format("has a name or address that no import can have, in the import with ID {}", *id));
  }
  return saved;
}

/// Reads "nextImportId" and "imports", which a file of the first version does not have.
std::expected<void, std::string> readImports(const Json& root, SavedState& state) {
  const std::optional<std::uint64_t> next = wholeNumber(root["nextImportId"]);
  if (!next || *next == 0 || *next > usedUp) return Failure("does not say the next import's ID");
  state.nextImportId = *next;
  const Json& list = root["imports"];
  if (!list.is_array()) return Failure("has no list of imports");
  if (list.size() > Limits::imports) return Failure(fmt::format("has more than {} imports", Limits::imports));
  std::uint64_t last = 0;
  for (const Json& value : list) {
    auto saved = importFrom(value);
    if (!saved) return Failure(std::move(saved.error()));
    const auto id = static_cast<std::uint32_t>(saved->id);
    if (id <= last || id >= state.nextImportId) {
      return Failure(fmt::format("has the import with ID {} out of order", id));
    }
    last = id;
    state.imports.push_back(std::move(*saved));
  }
  return {};
}

std::expected<void, std::string> readExports(const Json& list, SavedState& state) {
  if (!list.is_array()) return Failure("has no list of exports");
  if (list.size() > Limits::exports) return Failure(fmt::format("has more than {} exports", Limits::exports));
  state.exports.reserve(list.size());
  std::unordered_set<std::string> names;
  std::uint64_t last = 0;
  for (const Json& value : list) {
    auto saved = exportFrom(value);
    if (!saved) return Failure(std::move(saved.error()));
    const auto id = static_cast<std::uint32_t>(saved->id);
    if (id <= last || id >= state.nextExportId) {
      return Failure(fmt::format("has the export with ID {} out of order", id));
    }
    last = id;
    if (!names.insert(saved->name).second) {
      return Failure(fmt::format("has a second export of the same name, with ID {}", id));
    }
    state.exports.push_back(std::move(*saved));
  }
  return {};
}

/// The oldest version that can say it.
std::uint64_t versionFor(const SavedState& state) {
  if (state.transferCompression) return formatVersion;
  return state.nextImportId > 1 ? versionWithoutCompression : versionWithoutImports;
}

/// Reads "server". The newest version says that transfers are compressed; others would not be needed for it.
std::expected<void, std::string> readServer(const Json& server, bool knowsCompression, SavedState& state) {
  const bool membersFit = knowsCompression ? hasExactly(server, serverMembersWithCompression) &&
                                                 server["transferCompression"] == true
                                           : hasExactly(server, serverMembers);
  if (!membersFit || !server["uuid"].is_string() || !server["started"].is_boolean() ||
      !isUuid(server["uuid"].get_ref<const std::string&>())) {
    return Failure("does not say the server's UUID and whether it was started");
  }
  state.serverUuid = server["uuid"].get_ref<const std::string&>();
  state.serverStarted = server["started"].get<bool>();
  state.transferCompression = knowsCompression;
  return {};
}

}  // namespace

std::string printState(const SavedState& state) {
  Control::JsonWriter server;
  server.beginObject();
  server.key("uuid");
  server.string(state.serverUuid);
  server.key("started");
  server.boolean(state.serverStarted);
  if (state.transferCompression) {
    server.key("transferCompression");
    server.boolean(true);
  }
  server.endObject();
  const std::uint64_t version = versionFor(state);
  std::string text =
      fmt::format("{{\"format\":\"{}\",\"version\":{},\n\"server\":{},\n\"nextExportId\":{},\n\"exports\":{}",
                  formatName, version, server.take(), state.nextExportId, listOf(state.exports, exportLine));
  if (version > versionWithoutImports) {
    text += fmt::format(",\n\"nextImportId\":{},\n\"imports\":{}", state.nextImportId,
                        listOf(state.imports, importLine));
  }
  text += "}\n";
  return text;
}

std::expected<SavedState, std::string> parseState(std::string_view text) {
  const Json root = Json::parse(text, nullptr, false);
  if (root.is_discarded()) return Failure("is not whole");
  if (!root.is_object() || !root.contains("format") || root["format"] != formatName) {
    return Failure("is no state file of nbdd");
  }
  const std::optional<std::uint64_t> version =
      root.contains("version") ? wholeNumber(root["version"]) : std::nullopt;
  if (!version || *version == 0) return Failure("does not say its version");
  if (*version > formatVersion) {
    return Failure(fmt::format("was written by a newer nbdd (its version is {}, this nbdd reads {})",
                               *version, formatVersion));
  }
  const bool knowsImports = *version > versionWithoutImports;
  if (knowsImports ? !hasExactly(root, stateMembersWithImports) : !hasExactly(root, stateMembers)) {
    return Failure("has other members than a file of its version");
  }
  SavedState state;
  if (auto read = readServer(root["server"], *version > versionWithoutCompression, state); !read) {
    return Failure(std::move(read.error()));
  }
  const std::optional<std::uint64_t> next = wholeNumber(root["nextExportId"]);
  if (!next || *next == 0 || *next > usedUp) return Failure("does not say the next export's ID");
  state.nextExportId = *next;
  if (auto read = readExports(root["exports"], state); !read) return Failure(std::move(read.error()));
  if (knowsImports) {
    if (auto read = readImports(root, state); !read) return Failure(std::move(read.error()));
  }
  return state;
}

}  // namespace Nbdd
