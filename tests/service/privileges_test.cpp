#include "nbdd/service/privileges.h"

#include <gtest/gtest.h>
#include <linux/capability.h>

#include <string>

namespace Nbdd {
namespace {

TEST(Privileges, AreReadFromTheKernelsWords) {
  const std::string status =
      "Name:\tnbdd\nCapInh:\t0000000000000000\nCapPrm:\t00000000000004ff\nCapEff:\t0000000000000402\n"
      "NoNewPrivs:\t1\nSeccomp:\t2\nSeccomp_filters:\t3\n";
  EXPECT_EQ(parsePrivileges(status, 7),
            (Privileges{.user = 7,
                        .capabilities = 1U << CAP_NET_BIND_SERVICE | 1U << CAP_DAC_OVERRIDE,
                        .filtered = true,
                        .noNew = true}));
}

TEST(Privileges, WhatIsNotThereIsNotMadeUp) {
  EXPECT_FALSE(parsePrivileges("", 0).has_value());
  EXPECT_FALSE(parsePrivileges("CapEff:\tx\nNoNewPrivs:\t1\nSeccomp:\t2\n", 0).has_value());
  EXPECT_FALSE(parsePrivileges("CapEff:\t1\nSeccomp:\t2\n", 0).has_value());
  EXPECT_FALSE(parsePrivileges("CapEff:", 0).has_value());
}

TEST(Privileges, AreToldInOneLine) {
  EXPECT_EQ(
      describe({.user = 7, .capabilities = 1U << CAP_NET_BIND_SERVICE, .filtered = true, .noNew = true}),
      "runs as user 7; may listen on ports below 1024; may not open nodes of any owner, mount the nodes of "
      "imports and use the kernel's nbd driver; system calls are filtered; can gain no privileges");
  EXPECT_EQ(
      describe({.user = 7}),
      "runs as user 7; may not open nodes of any owner, listen on ports below 1024, mount the nodes of "
      "imports "
      "and use the kernel's nbd driver; system calls are not filtered; can gain privileges by set-user-ID "
      "programs");
}

TEST(Privileges, OfThisProcessAreThere) { EXPECT_FALSE(describe(ownPrivileges()).empty()); }

}  // namespace
}  // namespace Nbdd
