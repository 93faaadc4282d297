#pragma once

#include <unistd.h>

#include <utility>

namespace Nbdd::Io {

/// Owns one file descriptor and closes it at the end of its life. -1 means none.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int number) : number_(number) {}
  FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  int number() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }

  /// Gives up ownership without closing.
  int release() { return std::exchange(number_, -1); }

  void reset() {
    if (number_ >= 0) {
      ::close(std::exchange(number_, -1));
    }
  }

 private:
  int number_ = -1;
};

}  // namespace Nbdd::Io
