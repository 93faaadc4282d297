#include "nbdd/state/replace_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "nbdd/io/file_descriptor.h"

namespace Nbdd {

namespace {

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

int replaceFile(const std::filesystem::path& directory, const std::string& name, std::string_view text,
                bool& renamed) {
  const std::filesystem::path file = directory / name;
  const std::filesystem::path next = directory / (name + ".new");
  Io::FileDescriptor descriptor(
      ::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!descriptor) return errno;
  int error = writeAll(descriptor.number(), text);
  if (error == 0 && ::fsync(descriptor.number()) != 0) error = errno;
  descriptor.reset();
  if (error == 0 && std::rename(next.c_str(), file.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(next.c_str());
    return error;
  }
  renamed = true;
  const Io::FileDescriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened || ::fsync(opened.number()) != 0) return errno;
  return 0;
}

}  // namespace Nbdd
