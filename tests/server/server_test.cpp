#include "nbdd/server/server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/raw_client.h"

namespace Nbdd {
namespace {

using Wire::Buffer;
using Wire::RawClient;

constexpr auto diskId = Control::ExportId{1};
constexpr std::uint64_t diskSize = 8ULL * 1024 * 1024;

Buffer noise(std::size_t size, unsigned int seed) {
  std::mt19937 random(seed);
  Buffer bytes(size);
  std::ranges::generate(bytes, [&] { return static_cast<std::byte>(random()); });
  return bytes;
}

struct Setting {
  const char* directory;
  bool allowRing;
};

void PrintTo(const Setting& setting, std::ostream* stream) {
  *stream << setting.directory << (setting.allowRing ? ", io_uring" : ", threads");
}

/// A server on a thread of its own with one export, on a disk or in memory, with io_uring or without.
class ServerTest : public ::testing::TestWithParam<Setting> {
 protected:
  /// Runs `action` on the control loop's thread and returns what it returns.
  template <class Action>
  auto onControlLoop(Action action) {
    std::promise<decltype(action(*server_))> promise;
    auto future = promise.get_future();
    loop_->post([&] {
      if constexpr (std::is_void_v<decltype(action(*server_))>) {
        action(*server_);
        promise.set_value();
      } else {
        promise.set_value(action(*server_));
      }
    });
    return future.get();
  }

  ServerTest() {
    std::string path = std::string(GetParam().directory) + "/server_test_XXXXXX";
    file_ = Io::FileDescriptor(::mkostemp(path.data(), O_CLOEXEC));
    path_ = path;
    EXPECT_EQ(::ftruncate(file_.number(), static_cast<off_t>(diskSize)), 0);
    std::promise<void> ready;
    thread_ = std::jthread([this, &ready] {
      Io::EventLoop loop;
      Server server(loop, {.workers = 2, .allowRing = GetParam().allowRing},
                    {.lastClientLeft = [this](Control::ExportId) { ++lastClientLeft_; },
                     .storageFailed = [](Control::ExportId, int) {}});
      loop_ = &loop;
      server_ = &server;
      loop.post([&] { ready.set_value(); });
      loop.run();
    });
    ready.get_future().wait();
    publish();
    const auto listening = onControlLoop(
        [](Server& server) { return server.listen({.addresses = {"127.0.0.1", "::1"}, .port = 0}); });
    EXPECT_TRUE(listening) << listening.error().message;
    port_ = onControlLoop([](Server& server) { return server.port(); });
  }

  ~ServerTest() override {
    loop_->stop();
    thread_.join();
    ::unlink(path_.c_str());
  }

  /// Runs `action`, which is given the function to call when it is done, and waits for that.
  template <class Action>
  void untilDone(Action action) {
    std::promise<void> promise;
    auto future = promise.get_future();
    loop_->post([&] { action(*server_, [&promise] { promise.set_value(); }); });
    ASSERT_EQ(future.wait_for(RawClient::patience), std::future_status::ready);
  }

  void publish(bool readOnly = false) {
    OpenNode node;
    node.descriptor = Io::FileDescriptor(::open(path_.c_str(), O_RDWR | O_CLOEXEC));
    node.readOnly = readOnly;
    node.memoryBacked = std::string(GetParam().directory) == "/dev/shm";
    node.localDisk = !node.memoryBacked;
    node.size = diskSize;
    counters_ = std::make_shared<TransferCounters>();
    auto storage = std::make_shared<Storage>(std::move(node));
    onControlLoop([&](Server& server) {
      server.publish(
          {.id = diskId, .name = "disk", .description = "", .storage = storage, .counters = counters_});
    });
  }

  RawClient enter(RawClient::Session session = {}) {
    RawClient client(port_);
    client.enter("disk", session);
    return client;
  }

  /// Enters the export and has more replies waiting than the server keeps for anybody.
  static void askForMoreThanItReads(RawClient& client) {
    client.enter("disk");
    for (std::uint64_t cookie = 0; cookie < 64; ++cookie) {
      for (const std::uint32_t length : {4096U, 60'000U, 1'048'576U}) {
        client.request(
            {.flags = 0, .type = Nbd::Command::read, .cookie = cookie, .offset = 0, .length = length});
      }
    }
  }

  Buffer fileContent(std::uint64_t offset, std::size_t length) const {
    Buffer bytes(length);
    EXPECT_EQ(::pread(file_.number(), bytes.data(), length, static_cast<off_t>(offset)),
              static_cast<ssize_t>(length));
    return bytes;
  }

  std::string path_;
  Io::FileDescriptor file_;
  Io::EventLoop* loop_ = nullptr;
  Server* server_ = nullptr;
  std::shared_ptr<TransferCounters> counters_;
  std::uint16_t port_ = 0;
  std::atomic<int> lastClientLeft_ = 0;
  std::jthread thread_;
};

constexpr std::size_t sizes[] = {1, 511, 4096, 65'535, 65'536, 200'000, 1'048'577, 5'000'000};

TEST_P(ServerTest, ReadsBackWhatItWroteWhateverTheSize) {
  RawClient client = enter();
  unsigned int seed = 0;
  for (const std::size_t size : sizes) {
    const Buffer data = noise(size, ++seed);
    const std::uint64_t offset = 1000 + seed * 7;
    ASSERT_EQ(client.write(offset, data, seed % 2 == 0 ? Nbd::CommandFlag::fua : std::uint16_t{0}),
              Nbd::Error::none);
    EXPECT_EQ(fileContent(offset, size), data);
    const auto [error, read] = client.read(offset, static_cast<std::uint32_t>(size));
    EXPECT_EQ(error, Nbd::Error::none);
    EXPECT_EQ(read, data) << size;
  }
}

// In memory such a file is copied from and to without a system call, until it gets holes.
TEST_P(ServerTest, ServesAFileWithoutHoles) {
  ASSERT_EQ(::fallocate(file_.number(), 0, 0, static_cast<off_t>(diskSize)), 0);
  publish();
  RawClient client = enter();
  unsigned int seed = 0;
  const auto writeAndRead = [&] {
    for (const std::size_t size : sizes) {
      const Buffer data = noise(size, ++seed);
      const std::uint64_t offset = 1000 + seed * 7;
      ASSERT_EQ(client.write(offset, data), Nbd::Error::none);
      EXPECT_EQ(fileContent(offset, size), data);
      EXPECT_EQ(client.read(offset, static_cast<std::uint32_t>(size)).second, data) << size;
    }
  };
  writeAndRead();
  client.request({.flags = 0, .type = Nbd::Command::trim, .cookie = 1, .offset = 0, .length = 4'194'304});
  ASSERT_EQ(client.receiveSimpleReply().error, Nbd::Error::none);
  EXPECT_EQ(client.read(4096, 4096).second, Buffer(4096));
  writeAndRead();
  ASSERT_EQ(::ftruncate(file_.number(), 4096), 0);
  EXPECT_EQ(client.read(8192, 4096).first, Nbd::Error::io);
}

TEST_P(ServerTest, ReportsAFileWithoutHolesThatHasBecomeShorter) {
  ASSERT_EQ(::fallocate(file_.number(), 0, 0, static_cast<off_t>(diskSize)), 0);
  publish();
  RawClient client = enter();
  ASSERT_EQ(client.read(8192, 4096).first, Nbd::Error::none);
  ASSERT_EQ(::ftruncate(file_.number(), 4096), 0);
  EXPECT_EQ(client.read(8192, 4096).first, Nbd::Error::io);
  EXPECT_EQ(client.read(0, 4096).first, Nbd::Error::none);
}

// Everything at once, cut into pieces that no request respects; the replies come in any order.
TEST_P(ServerTest, KeepsManyRequestsInFlight) {
  constexpr std::uint32_t block = 8192;
  constexpr std::uint64_t count = 500;
  RawClient client = enter();
  Buffer requests;
  for (std::uint64_t index = 0; index < count; ++index) {
    std::array<std::byte, Nbd::requestSize> header{};
    Nbd::encodeRequest(
        header,
        {.flags = 0, .type = Nbd::Command::write, .cookie = index, .offset = index * block, .length = block});
    const Buffer data = noise(block, static_cast<unsigned int>(index));
    requests.insert(requests.end(), header.begin(), header.end());
    requests.insert(requests.end(), data.begin(), data.end());
  }
  std::jthread sender([&] {
    const Nbd::Bytes all(requests);
    for (std::size_t done = 0; done < all.size(); done += 10'007) {
      client.send(all.subspan(done, std::min<std::size_t>(10'007, all.size() - done)));
    }
  });
  std::map<std::uint64_t, int> replies;
  for (std::uint64_t index = 0; index < count; ++index) {
    const Nbd::SimpleReply reply = client.receiveSimpleReply();
    EXPECT_EQ(reply.error, Nbd::Error::none);
    ++replies[reply.cookie];
  }
  sender.join();
  EXPECT_EQ(replies.size(), count);
  for (std::uint64_t index = 0; index < count; index += 37) {
    EXPECT_EQ(fileContent(index * block, block), noise(block, static_cast<unsigned int>(index)));
  }
}

TEST_P(ServerTest, SendsHolesAsHolesUnlessToldNotTo) {
  RawClient client = enter({.structuredReplies = true});
  for (const std::uint32_t length : {4096U, 1'048'576U}) {
    client.request({.flags = 0, .type = Nbd::Command::read, .cookie = 5, .offset = 0, .length = length});
    const RawClient::Chunk hole = client.receiveChunk();
    EXPECT_EQ(hole.header.type, Nbd::ReplyChunk::offsetHole);
    EXPECT_TRUE(hole.header.isDone());
    EXPECT_EQ(Nbd::decodeOffsetHole(hole.payload), (Nbd::Hole{.offset = 0, .length = length}));

    client.request({.flags = Nbd::CommandFlag::df,
                    .type = Nbd::Command::read,
                    .cookie = 6,
                    .offset = 0,
                    .length = length});
    const RawClient::Chunk data = client.receiveChunk();
    EXPECT_EQ(data.header.type, Nbd::ReplyChunk::offsetData);
    EXPECT_TRUE(data.header.isDone());
    EXPECT_EQ(data.payload.size(), 8 + length);
  }
}

// The chunk that tells of a hole takes more room than these replies have.
TEST_P(ServerTest, SendsAFewZeroesAsData) {
  RawClient client = enter({.structuredReplies = true});
  for (std::uint32_t length = 1; length <= 4; ++length) {
    client.request({.flags = 0, .type = Nbd::Command::read, .cookie = 5, .offset = 7, .length = length});
    const RawClient::Chunk data = client.receiveChunk();
    EXPECT_EQ(data.header.type, Nbd::ReplyChunk::offsetData);
    EXPECT_TRUE(data.header.isDone());
    EXPECT_EQ(data.payload.size(), 8 + length);
  }
}

// Chunks of one reply, whatever their order, tile the request: data and holes alike.
TEST_P(ServerTest, TilesAReadOfAFileWithHoles) {
  RawClient client = enter({.structuredReplies = true});
  Buffer expected(2'000'000);
  for (const std::size_t offset : {100'000UL, 700'000UL, 1'500'000UL}) {
    const Buffer data = noise(100'000, static_cast<unsigned int>(offset));
    std::ranges::copy(data, expected.begin() + static_cast<std::ptrdiff_t>(offset));
    ASSERT_EQ(::pwrite(file_.number(), data.data(), data.size(), static_cast<off_t>(offset)), 100'000);
  }
  client.request({.flags = 0, .type = Nbd::Command::read, .cookie = 5, .offset = 0, .length = 2'000'000});
  Buffer received(expected.size(), std::byte{0xee});
  for (bool done = false; !done;) {
    const RawClient::Chunk chunk = client.receiveChunk();
    done = chunk.header.isDone();
    if (chunk.header.type == Nbd::ReplyChunk::offsetHole) {
      const auto hole = Nbd::decodeOffsetHole(chunk.payload);
      ASSERT_TRUE(hole);
      std::fill_n(received.begin() + static_cast<std::ptrdiff_t>(hole->offset), hole->length, std::byte{0});
    } else {
      ASSERT_EQ(chunk.header.type, Nbd::ReplyChunk::offsetData);
      const auto offset = Nbd::loadBig<std::uint64_t>(Nbd::Bytes(chunk.payload).first<8>());
      std::copy(chunk.payload.begin() + 8, chunk.payload.end(),
                received.begin() + static_cast<std::ptrdiff_t>(offset));
    }
  }
  EXPECT_EQ(received, expected);
}

TEST_P(ServerTest, ZeroesAndTrims) {
  RawClient client = enter();
  const Buffer data = noise(1'000'000, 1);
  for (const std::uint16_t flags : {std::uint16_t{0}, Nbd::CommandFlag::noHole, Nbd::CommandFlag::fua}) {
    ASSERT_EQ(client.write(0, data), Nbd::Error::none);
    client.request(
        {.flags = flags, .type = Nbd::Command::writeZeroes, .cookie = 1, .offset = 3000, .length = 500'001});
    EXPECT_EQ(client.receiveSimpleReply().error, Nbd::Error::none);
    EXPECT_EQ(client.read(3000, 500'001).second, Buffer(500'001));
    EXPECT_EQ(client.read(0, 3000).second, Buffer(data.begin(), data.begin() + 3000));
    EXPECT_EQ(client.read(503'001, 1000).second, Buffer(data.begin() + 503'001, data.begin() + 504'001));
  }
  client.request({.flags = 0, .type = Nbd::Command::trim, .cookie = 2, .offset = 600'000, .length = 200'000});
  EXPECT_EQ(client.receiveSimpleReply().error, Nbd::Error::none);
  EXPECT_EQ(client.read(500'000, 100'000).second.size(), 100'000U);
  for (const Nbd::Command command : {Nbd::Command::flush, Nbd::Command::cache}) {
    client.request({.flags = 0, .type = command, .cookie = 3, .offset = 0, .length = 0});
    EXPECT_EQ(client.receiveSimpleReply().error, Nbd::Error::none);
  }
}

TEST_P(ServerTest, TellsTheAllocation) {
  const Buffer data = noise(131'072, 1);
  ASSERT_EQ(::pwrite(file_.number(), data.data(), data.size(), 1'048'576), 131'072);
  RawClient client = enter({.structuredReplies = true, .allocationContext = true});
  const auto extents = [&](std::uint16_t flags) {
    client.request(
        {.flags = flags, .type = Nbd::Command::blockStatus, .cookie = 9, .offset = 0, .length = 2'097'152});
    const RawClient::Chunk chunk = client.receiveChunk();
    EXPECT_TRUE(chunk.header.isDone());
    std::vector<Nbd::Extent> found;
    EXPECT_TRUE(Nbd::decodeBlockStatus(chunk.header.type, chunk.payload, found));
    return found;
  };
  constexpr std::uint32_t hole = Nbd::AllocationFlag::hole | Nbd::AllocationFlag::zero;
  EXPECT_EQ(extents(0), (std::vector<Nbd::Extent>{{1'048'576, hole}, {131'072, 0}, {917'504, hole}}));
  EXPECT_EQ(extents(Nbd::CommandFlag::reqOne), (std::vector<Nbd::Extent>{{1'048'576, hole}}));
}

TEST_P(ServerTest, ReportsAFileThatHasBecomeShorter) {
  RawClient client = enter();
  ASSERT_EQ(::ftruncate(file_.number(), 4096), 0);
  EXPECT_EQ(client.read(8192, 4096).first, Nbd::Error::io);
  EXPECT_EQ(client.read(0, 4096).first, Nbd::Error::none);
}

// A hole would be an answer, and a wrong one.
TEST_P(ServerTest, DoesNotReadWhatAFileHasLostAsZeroes) {
  ASSERT_EQ(::ftruncate(file_.number(), 1'048'576), 0);
  RawClient client = enter({.structuredReplies = true});
  client.request(
      {.flags = 0, .type = Nbd::Command::read, .cookie = 5, .offset = 524'288, .length = 1'048'576});
  bool failed = false;
  try {
    while (!failed) {
      const RawClient::Chunk chunk = client.receiveChunk();
      failed = chunk.header.isError();
      ASSERT_FALSE(chunk.header.isDone() && !failed);
    }
  } catch (const Wire::Disappointment&) {
    failed = true;  // the header of the data was out already: the end of the connection tells it
  }
  EXPECT_TRUE(failed);
}

TEST_P(ServerTest, CountsTransfers) {
  RawClient client = enter();
  ASSERT_EQ(client.write(0, noise(5000, 1)), Nbd::Error::none);
  ASSERT_EQ(client.read(0, 3000).first, Nbd::Error::none);
  ASSERT_EQ(client.read(0, 70'000).first, Nbd::Error::none);
  const Control::ExportStatistics statistics = counters_->statistics();
  EXPECT_EQ(statistics.rx.numTransTotal, 1U);
  EXPECT_EQ(statistics.rx.bytesTransTotal, 5000U);
  EXPECT_EQ(statistics.rx.bytesTransTransferred, 5000U);
  EXPECT_EQ(statistics.tx.numTransTotal, 2U);
  EXPECT_EQ(statistics.tx.bytesTransTotal, 73'000U);
  EXPECT_EQ(statistics.tx.numTransCompressed, 0U);
}

TEST_P(ServerTest, NamesItsClients) {
  EXPECT_EQ(onControlLoop([](Server& server) { return server.clientCount(diskId); }), 0U);
  RawClient one = enter();
  RawClient other = enter();
  ASSERT_EQ(one.read(0, 1).first, Nbd::Error::none);
  ASSERT_EQ(other.read(0, 1).first, Nbd::Error::none);
  const auto clients = onControlLoop([](Server& server) { return server.clients(diskId); });
  ASSERT_EQ(clients.size(), 2U);
  EXPECT_EQ(clients[0].endpoint.address, "127.0.0.1");
  EXPECT_NE(clients[0].endpoint.port, clients[1].endpoint.port);
}

TEST_P(ServerTest, EndsSessionsAfterTheirRunningRequests) {
  RawClient client = enter();
  ASSERT_EQ(client.write(0, noise(4096, 1)), Nbd::Error::none);
  // A large write whose data never arrive in full is dropped, not applied.
  client.request({.flags = 0, .type = Nbd::Command::write, .cookie = 7, .offset = 0, .length = 1'000'000},
                 noise(500'000, 2));
  onControlLoop([](Server& server) { server.withdraw(diskId); });
  untilDone([](Server& server, Io::Function done) { server.endSessions(diskId, std::move(done)); });
  EXPECT_TRUE(client.isClosedByServer());
  EXPECT_EQ(fileContent(0, 4096), noise(4096, 1));
  EXPECT_EQ(onControlLoop([](Server& server) { return server.clientCount(diskId); }), 0U);
  EXPECT_EQ(lastClientLeft_, 1);
  EXPECT_THROW(enter(), Wire::Disappointment);
  publish();
  EXPECT_EQ(enter().read(0, 4096).second, noise(4096, 1));
}

// The operator does not wait for it: what it asked for has ended, only the replies lie unread.
TEST_P(ServerTest, EndsASessionWhoseClientNeverReads) {
  const Buffer data = noise(1'048'576, 4);
  ASSERT_EQ(::pwrite(file_.number(), data.data(), data.size(), 0), 1'048'576);
  RawClient stalled(port_, 4096);
  askForMoreThanItReads(stalled);
  // Another client is served all the while.
  RawClient other = enter();
  EXPECT_EQ(other.read(0, 4096).second, Buffer(data.begin(), data.begin() + 4096));
  onControlLoop([](Server& server) { server.withdraw(diskId); });
  untilDone([](Server& server, Io::Function done) { server.endSessions(diskId, std::move(done)); });
  EXPECT_EQ(onControlLoop([](Server& server) { return server.clientCount(diskId); }), 0U);
}

TEST_P(ServerTest, EndsSessionsOfNobodyAtOnce) {
  untilDone([](Server& server, Io::Function done) { server.endSessions(diskId, std::move(done)); });
}

TEST_P(ServerTest, ClosesWithClientsInEveryPhase) {
  RawClient connected(port_);
  RawClient greeted(port_);
  greeted.receiveGreeting();
  RawClient serving = enter();
  ASSERT_EQ(serving.read(0, 4096).first, Nbd::Error::none);
  untilDone([](Server& server, Io::Function done) { server.close(std::move(done)); });
  EXPECT_TRUE(connected.isClosedByServer());
  EXPECT_TRUE(greeted.isClosedByServer());
  EXPECT_TRUE(serving.isClosedByServer());
  EXPECT_FALSE(onControlLoop([](Server& server) { return server.listening(); }));
  EXPECT_EQ(onControlLoop([](Server& server) { return server.connectionCount(); }), 0U);
  EXPECT_THROW(RawClient(port_).receiveGreeting(), std::runtime_error);
}

// Its session has nothing left to do but to wait a moment for the client to close.
TEST_P(ServerTest, ClosesThoughAClientThatSaidGoodbyeStays) {
  RawClient leaving = enter();
  leaving.request({.flags = 0, .type = Nbd::Command::disconnect, .cookie = 1, .offset = 0, .length = 0});
  EXPECT_TRUE(leaving.receiveToEnd().empty());
  untilDone([](Server& server, Io::Function done) { server.close(std::move(done)); });
  EXPECT_EQ(onControlLoop([](Server& server) { return server.connectionCount(); }), 0U);
}

TEST_P(ServerTest, FinishesWhatAClientAskedBeforeItSaidGoodbye) {
  RawClient client = enter();
  const Buffer data = noise(200'000, 3);
  client.request({.flags = 0, .type = Nbd::Command::write, .cookie = 1, .offset = 0, .length = 200'000},
                 data);
  client.request({.flags = 0, .type = Nbd::Command::disconnect, .cookie = 2, .offset = 0, .length = 0});
  EXPECT_EQ(client.receiveSimpleReply().error, Nbd::Error::none);
  EXPECT_TRUE(client.isClosedByServer());
  EXPECT_EQ(fileContent(0, data.size()), data);
}

TEST_P(ServerTest, GivesADistinctCodeForEachWayNotToListen) {
  using Control::FailureCode;
  EXPECT_EQ(onControlLoop(
                [&](Server& server) { return server.listen({.addresses = {"127.0.0.1"}, .port = port_}); })
                .error()
                .code,
            FailureCode::portInUse);
  EXPECT_EQ(
      onControlLoop([](Server& server) { return server.listen({.addresses = {"192.0.2.1"}, .port = 0}); })
          .error()
          .code,
      FailureCode::addressNotAvailable);
  EXPECT_EQ(
      onControlLoop([](Server& server) { return server.listen({.addresses = {"somewhere"}, .port = 0}); })
          .error()
          .code,
      FailureCode::addressNotAvailable);
  // The failures left the old sockets alone.
  EXPECT_EQ(enter().read(0, 1).first, Nbd::Error::none);
}

TEST_P(ServerTest, ListensOnAllAddressesOrOnNone) {
  untilDone([](Server& server, Io::Function done) { server.close(std::move(done)); });
  const auto result = onControlLoop([&](Server& server) {
    return server.listen({.addresses = {"127.0.0.1", "192.0.2.1"}, .port = port_});
  });
  ASSERT_FALSE(result);
  EXPECT_FALSE(onControlLoop([](Server& server) { return server.listening(); }));
  EXPECT_THROW(RawClient(port_).receiveGreeting(), std::runtime_error);
}

TEST_P(ServerTest, LeavesLoopbackOutOfItsEndpoints) {
  EXPECT_TRUE(onControlLoop([](Server& server) { return server.endpoints(); }).empty());
}

INSTANTIATE_TEST_SUITE_P(Settings, ServerTest,
                         ::testing::Values(Setting{"/tmp", true}, Setting{"/tmp", false},
                                           Setting{"/dev/shm", true}),
                         [](const auto& setting) {
                           return std::string(setting.param.directory == std::string("/tmp") ? "disk"
                                                                                             : "memory") +
                                  (setting.param.allowRing ? "Ring" : "Threads");
                         });

/// What takes seconds: one setting shows it.
class SlowServerTest : public ServerTest {};

// It has ended its side, so the next client is kept waiting, but not for as long as the first one likes.
TEST_P(SlowServerTest, LetsClientsInThoughOneThatHasEndedItsSideNeverReads) {
  RawClient stalled(port_, 4096);
  askForMoreThanItReads(stalled);
  stalled.endSending();
  EXPECT_EQ(enter().read(0, 4096).second, Buffer(4096));
}

INSTANTIATE_TEST_SUITE_P(Settings, SlowServerTest, ::testing::Values(Setting{"/dev/shm", true}));

}  // namespace
}  // namespace Nbdd
