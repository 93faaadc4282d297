#include "nbdd/state/state_store.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "nbdd/config/read_file.h"
#include "nbdd/limits.h"

namespace Nbdd {

namespace {

std::string words(int error) { return std::generic_category().message(error); }

int writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

}  // namespace

StateStore::StateStore(std::filesystem::path directory) : directory_(std::move(directory)) {}

std::expected<std::optional<SavedState>, std::string> StateStore::load() {
  auto text = readFile(file(), Limits::stateLength);
  if (!text) {
    if (text.error() == ENOENT) return std::nullopt;
    return std::unexpected(fmt::format("the state file {} cannot be read ({}): correct that, or move it away",
                                       file().native(), words(text.error())));
  }
  auto state = parseState(*text);
  if (!state) {
    return std::unexpected(fmt::format(
        "the state file {} {}: put a good copy in its place, or move it away to begin without exports",
        file().native(), state.error()));
  }
  lastText_ = std::move(*text);
  return std::move(*state);
}

std::expected<void, Control::Failure> StateStore::save(const SavedState& state) {
  std::string text = printState(state);
  if (text.size() > Limits::stateLength) {
    return std::unexpected(
        Control::Failure{Control::FailureCode::limitReached,
                         "the state has grown too large: remove exports that you do not need"});
  }
  bool renamed = false;
  const int error = replace(text, renamed);
  if (error == 0) {
    lastText_ = std::move(text);
    return {};
  }
  // The new text may now be the one that a restart finds, although the change is about to be undone.
  if (renamed && !lastText_.empty()) {
    static_cast<void>(replace(lastText_, renamed));
  }
  return std::unexpected(
      Control::Failure{Control::FailureCode::stateNotSaved,
                       fmt::format("the state file {} could not be written ({}), so nothing was changed",
                                   file().native(), words(error))});
}

int StateStore::replace(std::string_view text, bool& renamed) const {
  const std::filesystem::path next = directory_ / "state.json.new";
  Io::FileDescriptor descriptor(
      ::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!descriptor) return errno;
  int error = writeAll(descriptor.number(), text);
  if (error == 0 && ::fsync(descriptor.number()) != 0) error = errno;
  descriptor.reset();
  if (error == 0 && std::rename(next.c_str(), file().c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(next.c_str());
    return error;
  }
  renamed = true;
  const Io::FileDescriptor directory(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || ::fsync(directory.number()) != 0) return errno;
  return 0;
}

std::expected<InstanceLock, int> InstanceLock::take(const std::filesystem::path& file) {
  Io::FileDescriptor descriptor(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!descriptor || ::flock(descriptor.number(), LOCK_EX | LOCK_NB) != 0) return std::unexpected(errno);
  return InstanceLock(std::move(descriptor));
}

}  // namespace Nbdd
