#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <vector>

#include "control/records.h"

namespace Nbdd {

/// What the operator last asked of an export or import: the part of its state that outlives the service.
enum class Wanted { added, enabled, disabled };

/// As the state file and the documents have it.
std::string_view toText(Wanted wanted);

/// One export as the state file holds it.
struct SavedExport {
  Control::ExportId id{};
  std::string name;
  std::string node;
  Control::Flags<Control::ExportFlag> flags;
  std::string uuid;
  /// The node's size when it was last opened: their product is the size in bytes.
  std::uint64_t elemCount = 0;
  std::uint64_t elemSize = 1;
  Wanted wanted = Wanted::added;

  friend bool operator==(const SavedExport&, const SavedExport&) = default;
};

/// One import as the state file holds it.
struct SavedImport {
  Control::ImportId id{};
  std::string name;
  Control::Endpoint server;
  Control::Flags<Control::ImportFlag> flags = {};
  Wanted wanted = Wanted::added;

  friend bool operator==(const SavedImport&, const SavedImport&) = default;
};

/// Everything that survives the end of the service.
struct SavedState {
  std::string serverUuid;
  bool serverStarted = false;
  /// The ID of the next export: greater than any that was ever given. 64 bits wide, so that it can say that
  /// all are used up.
  std::uint64_t nextExportId = 1;
  /// In ascending order of IDs, which is the order in which they were added.
  std::vector<SavedExport> exports;
  /// The same for imports.
  std::uint64_t nextImportId = 1;
  std::vector<SavedImport> imports;
  /// Whether the imports' transfers are to be compressed.
  bool transferCompression = false;

  friend bool operator==(const SavedState&, const SavedState&) = default;
};

/// The JSON text of the state file, one line for each export and import, with a line end at its end. Its
/// version is the oldest that can say it: what never had an import is readable by an nbdd that knows none.
std::string printState(const SavedState& state);

/// Reads the text of a state file. Strict: whatever `printState` would not have written in meaning (another
/// version, a member too many or too few, an ID or a name given twice, a text that no export can have) is a
/// failure, told in words that complete "the state file … ". Never guesses: a half-read state would forget
/// exports. Linear in the text's length.
std::expected<SavedState, std::string> parseState(std::string_view text);

}  // namespace Nbdd
