#pragma once

#include <cstdint>
#include <string>

namespace Testing {

/// A block device made of a file, for as long as this lives. Its path is empty where the system gives none:
/// loop devices are for root.
class LoopDevice {
 public:
  /// `blockSize` is that of the device's logical blocks.
  explicit LoopDevice(const std::string& file, std::uint32_t blockSize = 512);
  ~LoopDevice();
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;

  const std::string& path() const { return path_; }

 private:
  int device_ = -1;
  std::string path_;
};

}  // namespace Testing
