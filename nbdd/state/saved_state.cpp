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
  writer.string(toText(saved.wanted));
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
  writer.string(toText(saved.wanted));
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

/// The ID of one entry of a list, which has exactly these members. `kind`: "export" or "import".
std::expected<std::uint32_t, std::string> idFrom(const Json& value, std::span<const char* const> members,
                                                 std::string_view kind) {
  if (!hasExactly(value, members)) {
    return Failure(fmt::format("has an {} with a member too many or too few", kind));
  }
  const std::optional<std::uint64_t> id = wholeNumber(value["id"]);
  if (!id || *id == 0 || *id > std::numeric_limits<std::uint32_t>::max()) {
    return Failure(fmt::format("has an {} whose ID is no number from 1 to 4294967295", kind));
  }
  return static_cast<std::uint32_t>(*id);
}

std::expected<SavedExport, std::string> exportFrom(const Json& value) {
  const auto id = idFrom(value, exportMembers, "export");
  if (!id) return Failure(id.error());
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
  const auto id = idFrom(value, importMembers, "import");
  if (!id) return Failure(id.error());
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

/// Reads the list of one kind, "export" or "import", and the ID that the next of them gets. Each entry that
/// was read is shown to `accept`, who may find fault with it.
template <class Entry, class Accept>
std::expected<void, std::string> readList(const Json& next, const Json& list, std::string_view kind,
                                          std::size_t limit,
                                          std::expected<Entry, std::string> (*entryFrom)(const Json&),
                                          std::uint64_t& nextId, std::vector<Entry>& entries, Accept accept) {
  const std::optional<std::uint64_t> number = wholeNumber(next);
  if (!number || *number == 0 || *number > usedUp) {
    return Failure(fmt::format("does not say the next {}'s ID", kind));
  }
  nextId = *number;
  if (!list.is_array()) return Failure(fmt::format("has no list of {}s", kind));
  if (list.size() > limit) return Failure(fmt::format("has more than {} {}s", limit, kind));
  entries.reserve(list.size());
  std::uint64_t last = 0;
  for (const Json& value : list) {
    auto saved = entryFrom(value);
    if (!saved) return Failure(std::move(saved.error()));
    const auto id = static_cast<std::uint32_t>(saved->id);
    if (id <= last || id >= nextId)
      return Failure(fmt::format("has the {} with ID {} out of order", kind, id));
    last = id;
    if (std::expected<void, std::string> accepted = accept(*saved); !accepted) return accepted;
    entries.push_back(std::move(*saved));
  }
  return {};
}

std::expected<void, std::string> readExports(const Json& root, SavedState& state) {
  std::unordered_set<std::string> names;
  const auto isFirstOfItsName = [&names](const SavedExport& saved) -> std::expected<void, std::string> {
    if (names.insert(saved.name).second) return {};
    return Failure(fmt::format("has a second export of the same name, with ID {}",
                               static_cast<std::uint32_t>(saved.id)));
  };
  return readList(root["nextExportId"], root["exports"], "export", Limits::exports, exportFrom,
                  state.nextExportId, state.exports, isFirstOfItsName);
}

std::expected<void, std::string> readImports(const Json& root, SavedState& state) {
  const auto any = [](const SavedImport&) { return std::expected<void, std::string>(); };
  return readList(root["nextImportId"], root["imports"], "import", Limits::imports, importFrom,
                  state.nextImportId, state.imports, any);
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

std::string_view toText(Wanted wanted) {
  return std::ranges::find(wantedWords, wanted, [](const auto& row) { return row.second; })->first;
}

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
  if (auto read = readExports(root, state); !read) return Failure(std::move(read.error()));
  if (knowsImports) {
    if (auto read = readImports(root, state); !read) return Failure(std::move(read.error()));
  }
  return state;
}

}  // namespace Nbdd
