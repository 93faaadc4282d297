#include "nbdd/imports/mounts.h"

#include <gtest/gtest.h>

namespace Nbdd {
namespace {

TEST(Mounts, KnowsWhatIsMountedAndWhatIsNot) {
  EXPECT_TRUE(isMountPoint("/proc"));
  EXPECT_FALSE(isMountPoint("/proc/self"));
  EXPECT_FALSE(isMountPoint("/pro"));
  EXPECT_FALSE(isMountPoint(""));
}

}  // namespace
}  // namespace Nbdd
