#include "nbdd/state/state_store.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <system_error>
#include <utility>

#include "nbdd/config/read_file.h"
#include "nbdd/limits.h"
#include "nbdd/state/replace_file.h"

namespace Nbdd {

namespace {

std::string words(int error) { return std::generic_category().message(error); }

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
  return replaceFile(directory_, file().filename(), text, renamed);
}

std::expected<InstanceLock, int> InstanceLock::take(const std::filesystem::path& file) {
  Io::FileDescriptor descriptor(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!descriptor || ::flock(descriptor.number(), LOCK_EX | LOCK_NB) != 0) return std::unexpected(errno);
  // Where there is no room even for this, an empty file is better than the number of a predecessor.
  const std::string holder = fmt::format("{}\n", ::getpid());
  static_cast<void>(::ftruncate(descriptor.number(), 0) == 0 &&
                    ::write(descriptor.number(), holder.data(), holder.size()) > 0);
  return InstanceLock(std::move(descriptor));
}

std::optional<pid_t> InstanceLock::holderOf(const std::filesystem::path& file) {
  constexpr std::size_t longestNumber = 32;
  const auto text = readFile(file, longestNumber);
  if (!text) return {};
  pid_t process = 0;
  const char* const end = text->data() + text->size();
  const auto [rest, error] = std::from_chars(text->data(), end, process);
  if (error != std::errc{} || process <= 0 || std::string_view(rest, end) != "\n") return {};
  return process;
}

bool InstanceLock::isAt(const std::filesystem::path& file) const {
  struct stat locked{};
  struct stat named{};
  return ::fstat(descriptor_.number(), &locked) == 0 && ::lstat(file.c_str(), &named) == 0 &&
         locked.st_dev == named.st_dev && locked.st_ino == named.st_ino;
}

}  // namespace Nbdd
