#pragma once

#include <sys/types.h>

#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "control/failure.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/state/saved_state.h"

namespace Nbdd {

/// Keeps the service's state in one file of a directory.
///
/// Each save writes a whole new file beside the old one, forces it to stable storage, puts it in the old
/// one's place with one rename and forces that to stable storage too. Whatever ends the service or the
/// machine in between, the directory holds either the old state or the new one, whole.
class StateStore {
 public:
  /// `directory` is there and ours, and a lock keeps other instances out of it.
  explicit StateStore(std::filesystem::path directory);

  std::filesystem::path file() const { return directory_ / "state.json"; }

  /// The saved state; nothing when none was ever saved. A file that is damaged or of a newer version is a
  /// failure, one sentence that says what to do, and stays as it is.
  std::expected<std::optional<SavedState>, std::string> load();

  /// When this returns without a failure, `state` is what the next `load` finds, come what may. After a
  /// failure (stateNotSaved) the state saved before still holds.
  std::expected<void, Control::Failure> save(const SavedState& state);

 private:
  /// 0 or an errno. `renamed`: whether the new text already stands in the file's place.
  int replace(std::string_view text, bool& renamed) const;

  std::filesystem::path directory_;
  std::string lastText_;  ///< what was last saved for sure
};

/// Holds a lock file for as long as it lives. The kernel frees it however the process ends. The file names
/// its holder for people who look for it.
class InstanceLock {
 public:
  /// Fails with an errno; EWOULDBLOCK: another instance holds it.
  static std::expected<InstanceLock, int> take(const std::filesystem::path& file);

  /// The process that wrote itself into `file` when it took the lock; nothing if that cannot be learnt.
  static std::optional<pid_t> holderOf(const std::filesystem::path& file);

  /// Whether `file` is the file that is locked, and not another one that has taken its name since.
  bool isAt(const std::filesystem::path& file) const;

 private:
  explicit InstanceLock(Io::FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}
  Io::FileDescriptor descriptor_;
};

}  // namespace Nbdd
