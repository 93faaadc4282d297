#include "nbdd/exports/node.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "tests/support/loop_device.h"
#include "tests/support/service_process.h"

namespace Nbdd {
namespace {

using Control::FailureCode;
using ::Testing::LoopDevice;
using ::Testing::TemporaryDirectory;

FailureCode codeOfOpening(const std::string& path, bool readOnly = false) {
  const auto opened = openNode(path, readOnly);
  return opened ? FailureCode{} : opened.error().code;
}

/// The same, asked by a user without privileges: the superuser is never refused.
FailureCode codeForOrdinaryUser(const std::string& path, bool readOnly) {
  const pid_t child = ::fork();
  if (child == 0) {
    constexpr uid_t nobody = 65'534;
    if (::geteuid() == 0 && ::seteuid(nobody) != 0) ::_exit(255);
    ::_exit(static_cast<int>(codeOfOpening(path, readOnly)));
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  return static_cast<FailureCode>(WEXITSTATUS(status));
}

TEST(Node, AFileIsMeasuredExactly) {
  const TemporaryDirectory directory;
  for (const std::uintmax_t size : {0U, 1U, 511U, 512U, 513U, 4096U, 1'000'001U}) {
    const auto opened = openNode(directory.sparse("disk.img", size), false);
    ASSERT_TRUE(opened.has_value()) << opened.error().message;
    EXPECT_EQ(opened->node.size, size);
    EXPECT_FALSE(opened->node.blockDevice);
    EXPECT_EQ(opened->node.logicalBlock, 1U);
    const Elements elements = elementsOf(opened->node);
    EXPECT_EQ(elements.count * elements.size, size);
    EXPECT_EQ(elements.size, size % 512 == 0 ? 512U : 1U);
  }
}

TEST(Node, TheDescriptorBlocksAndIsNotInherited) {
  const TemporaryDirectory directory;
  const auto opened = openNode(directory.sparse("disk.img", 512), false);
  ASSERT_TRUE(opened.has_value());
  EXPECT_EQ(::fcntl(opened->node.descriptor.number(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(::fcntl(opened->node.descriptor.number(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(Node, MemoryIsToldFromDisks) {
  const std::string file = "/dev/shm/nbdd-node-test-" + std::to_string(::getpid());
  const Io::FileDescriptor made(::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  ASSERT_TRUE(made);
  const auto opened = openNode(file, false);
  ::unlink(file.c_str());
  ASSERT_TRUE(opened.has_value());
  EXPECT_TRUE(opened->node.memoryBacked);
}

TEST(Node, WhatIsNotThere) {
  const TemporaryDirectory directory;
  const std::string file = directory.write("file", "");
  EXPECT_EQ(codeOfOpening(directory.path() / "missing"), FailureCode::nodeNotFound);
  EXPECT_EQ(codeOfOpening(file + "/below"), FailureCode::nodeNotFound);
  std::filesystem::create_symlink("loop", directory.path() / "loop");
  EXPECT_EQ(codeOfOpening(directory.path() / "loop"), FailureCode::nodeNotFound);
  std::filesystem::create_symlink("missing", directory.path() / "dangling");
  EXPECT_EQ(codeOfOpening(directory.path() / "dangling"), FailureCode::nodeNotFound);
}

TEST(Node, WhatHoldsNoStorage) {
  const TemporaryDirectory directory;
  EXPECT_EQ(codeOfOpening(directory.path()), FailureCode::nodeIsDirectory);
  EXPECT_EQ(codeOfOpening("/"), FailureCode::nodeIsDirectory);
  EXPECT_EQ(codeOfOpening("/dev/null"), FailureCode::nodeNotSupported);
  const std::string fifo = directory.path() / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(codeOfOpening(fifo, true), FailureCode::nodeNotSupported);
  EXPECT_EQ(codeOfOpening(fifo, false), FailureCode::nodeNotSupported);

  const std::string path = directory.path() / "socket";
  const Io::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(codeOfOpening(path), FailureCode::nodeNotSupported);
}

TEST(Node, WhatIsNoPath) {
  EXPECT_EQ(codeOfOpening(""), FailureCode::invalidArgument);
  EXPECT_EQ(codeOfOpening("relative"), FailureCode::invalidArgument);
  EXPECT_EQ(codeOfOpening(std::string("/dev/null\0x", 11)), FailureCode::invalidArgument);
  EXPECT_EQ(codeOfOpening("/\xff"), FailureCode::invalidArgument);
  EXPECT_EQ(codeOfOpening("/" + std::string(5000, 'x')), FailureCode::invalidArgument);
  EXPECT_EQ(codeOfOpening("/" + std::string(300, 'x')), FailureCode::invalidArgument);
}

TEST(Node, PermissionsAreToldApart) {
  const TemporaryDirectory directory;
  std::filesystem::permissions(directory.path(), std::filesystem::perms(0755));
  const std::string secret = directory.sparse("secret", 512);
  ASSERT_EQ(::chmod(secret.c_str(), 0000), 0);
  EXPECT_EQ(codeForOrdinaryUser(secret, true), FailureCode::nodeAccessDenied);
  const std::string readable = directory.sparse("readable", 512);
  ASSERT_EQ(::chmod(readable.c_str(), 0444), 0);
  EXPECT_EQ(codeForOrdinaryUser(readable, true), FailureCode{});
  EXPECT_EQ(codeForOrdinaryUser(readable, false), FailureCode::nodeAccessDenied);
  const std::string inside = directory.path() / "closed";
  std::filesystem::create_directory(inside);
  const std::string below = directory.sparse("closed/disk.img", 512);
  ASSERT_EQ(::chmod(inside.c_str(), 0000), 0);
  EXPECT_EQ(codeForOrdinaryUser(below, true), FailureCode::nodeAccessDenied);
  ASSERT_EQ(::chmod(inside.c_str(), 0700), 0);
}

TEST(Node, LocksKeepWritersApart) {
  const TemporaryDirectory directory;
  const std::string file = directory.sparse("disk.img", 512);
  {
    const auto writer = openNode(file, false);
    ASSERT_TRUE(writer.has_value());
    EXPECT_EQ(codeOfOpening(file, false), FailureCode::nodeInUse);
    EXPECT_EQ(codeOfOpening(file, true), FailureCode::nodeInUse);
  }
  const auto reader = openNode(file, true);
  ASSERT_TRUE(reader.has_value()) << "the lock outlived its descriptor";
  EXPECT_EQ(codeOfOpening(file, true), FailureCode{});
  EXPECT_EQ(codeOfOpening(file, false), FailureCode::nodeInUse);
}

TEST(Node, ARunningProgramIsInUse) {
  const TemporaryDirectory directory;
  const std::string program = directory.path() / "sleep";
  std::filesystem::copy_file("/bin/sleep", program);
  const pid_t child = ::fork();
  if (child == 0) {
    ::execl(program.c_str(), "sleep", "60", nullptr);
    ::_exit(127);
  }
  // The child's image is the program as soon as /proc says so.
  std::error_code ignored;
  const std::string image = "/proc/" + std::to_string(child) + "/exe";
  for (int turn = 0; turn < 2000 && std::filesystem::read_symlink(image, ignored) != program; ++turn)
    ::usleep(1000);
  EXPECT_EQ(codeOfOpening(program, false), FailureCode::nodeInUse);
  EXPECT_EQ(codeOfOpening(program, true), FailureCode{});
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

TEST(Node, AllPathsToANodeHaveOneIdentity) {
  const TemporaryDirectory directory;
  const std::string file = directory.sparse("disk.img", 512);
  std::filesystem::create_symlink(file, directory.path() / "symbolic");
  std::filesystem::create_hard_link(file, directory.path() / "hard");
  const auto identity = identifyNode(file);
  ASSERT_TRUE(identity.has_value());
  EXPECT_EQ(identifyNode(directory.path() / "symbolic"), identity);
  EXPECT_EQ(identifyNode(directory.path() / "hard"), identity);
  EXPECT_NE(identifyNode(directory.sparse("other", 512)), identity);
}

TEST(Node, ASharedNodeIsMeasuredAnewUnderTheSameLock) {
  const TemporaryDirectory directory;
  const std::string file = directory.sparse("disk.img", 512);
  auto first = openNode(file, false);
  ASSERT_TRUE(first.has_value());
  std::filesystem::resize_file(file, 1024);
  const auto second = shareNode(first->node, first->identity, file, true);
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(second->node.size, 1024U);
  EXPECT_TRUE(second->node.readOnly);
  first->node.descriptor.reset();
  EXPECT_EQ(codeOfOpening(file, true), FailureCode::nodeInUse) << "the lock fell with the first descriptor";
}

TEST(Node, ABlockDeviceIsMeasuredAndTakenExclusively) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root makes loop devices";
  const TemporaryDirectory directory;
  const LoopDevice device(directory.sparse("disk.img", 1024 * 1024));
  if (device.path().empty()) GTEST_SKIP() << "this system has no loop devices";
  const auto writer = openNode(device.path(), false);
  ASSERT_TRUE(writer.has_value()) << writer.error().message;
  EXPECT_TRUE(writer->node.blockDevice);
  EXPECT_EQ(writer->node.size, 1024U * 1024U);
  EXPECT_EQ(writer->node.logicalBlock, 512U);
  EXPECT_EQ(elementsOf(writer->node), (Elements{2048, 512}));
  // What a mount, a volume manager or another service does to a device is the same.
  EXPECT_EQ(codeOfOpening(device.path(), false), FailureCode::nodeInUse);
  std::filesystem::create_symlink(device.path(), directory.path() / "symbolic");
  EXPECT_EQ(identifyNode(directory.path() / "symbolic"), identifyNode(device.path()));
}

}  // namespace
}  // namespace Nbdd
