#include "tests/support/loop_device.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Testing {

LoopDevice::LoopDevice(const std::string& file, std::uint32_t blockSize) {
  const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  const int backing = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
  loop_config config{};
  config.fd = static_cast<std::uint32_t>(backing);
  config.block_size = blockSize;
  // Somebody else may take the free device first.
  for (int attempt = 0; control >= 0 && backing >= 0 && attempt < 10 && path_.empty(); ++attempt) {
    const std::string path = "/dev/loop" + std::to_string(::ioctl(control, LOOP_CTL_GET_FREE));
    if (device_ >= 0) ::close(device_);
    device_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (device_ >= 0 && ::ioctl(device_, LOOP_CONFIGURE, &config) == 0) path_ = path;
  }
  if (control >= 0) ::close(control);
  if (backing >= 0) ::close(backing);
}

LoopDevice::~LoopDevice() {
  if (!path_.empty()) ::ioctl(device_, LOOP_CLR_FD, 0);
  if (device_ >= 0) ::close(device_);
}

}  // namespace Testing
