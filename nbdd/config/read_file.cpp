#include "nbdd/config/read_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "nbdd/io/file_descriptor.h"

namespace Nbdd {

std::expected<std::string, int> readFile(const std::filesystem::path& path, std::size_t limit) {
  const Io::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status{};
  if (!file || ::fstat(file.number(), &status) != 0) return std::unexpected(errno);
  if (S_ISDIR(status.st_mode)) return std::unexpected(EISDIR);
  if (!S_ISREG(status.st_mode)) return std::unexpected(EINVAL);
  // The size is only where to begin: the file may grow while it is read, and one in /proc says 0.
  std::string content;
  constexpr std::size_t step = std::size_t{64} * 1024;
  content.reserve(std::min(limit, static_cast<std::size_t>(status.st_size) + 1));
  while (true) {
    const std::size_t length = content.size();
    content.resize(length + step);
    const ssize_t received = ::read(file.number(), content.data() + length, step);
    if (received < 0 && errno != EINTR) return std::unexpected(errno);
    content.resize(length + static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
    if (content.size() > limit) return std::unexpected(EFBIG);
    if (received == 0) return content;
  }
}

}  // namespace Nbdd
