#include "nbdd/imports/kernel_driver.h"

#include <gtest/gtest.h>

namespace Nbdd::KernelDriver {
namespace {

TEST(KernelDriver, KnowsADeviceByTheNameOfItsNode) {
  EXPECT_EQ(indexOf("/dev/nbd0"), 0U);
  EXPECT_EQ(indexOf("/dev/nbd31"), 31U);
  EXPECT_EQ(indexOf("/sys/block/nbd7"), 7U);
  EXPECT_EQ(indexOf(pathOf(12)), 12U);
  for (const char* const other : {"", "/dev/nbd", "/dev/nbd0p1", "/dev/nbdx", "/dev/sda", "/dev/nbd-1",
                                  "/dev/nbd 1", "/dev/nbd99999999999999999999"}) {
    EXPECT_FALSE(indexOf(other)) << other;
  }
}

TEST(KernelDriver, SeesNothingOfADeviceThatIsNotThere) {
  EXPECT_FALSE(look(4'000'000'000));
  EXPECT_EQ(usersOf(4'000'000'000), 0U);
  EXPECT_TRUE(find("an identifier that nobody has").empty());
}

TEST(KernelDriver, SaysWhatIsMissing) {
  // Which of the two depends on the host; with both, requests are possible, and this one finds no device.
  if (const auto missing = KernelDriver::missing()) {
    EXPECT_TRUE(*missing == "the kernel's nbd driver: modprobe nbd" || *missing == "root or CAP_SYS_ADMIN")
        << *missing;
  }
  const auto refused = reconfigure(4'000'000'000, "nobody", -1);
  ASSERT_FALSE(refused);
  EXPECT_FALSE(refused.error().empty());
}

}  // namespace
}  // namespace Nbdd::KernelDriver
