#include "nbdd/server/export_table.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace Nbdd {
namespace {

constexpr auto firstId = Control::ExportId{1};
constexpr auto secondId = Control::ExportId{2};

Publication publication(Control::ExportId id, std::string name) {
  OpenNode node;
  node.size = 4096;
  return {.id = id,
          .name = std::move(name),
          .description = "",
          .storage = std::make_shared<Storage>(std::move(node)),
          .counters = std::make_shared<TransferCounters>()};
}

std::shared_ptr<const Publication> found(const ExportTable& table, std::string_view name) {
  const std::optional<Nbd::ExportView> view = table.find(name);
  return view ? std::static_pointer_cast<const Publication>(view->handle) : nullptr;
}

/// Both ends of a TCP connection on loopback.
struct Connection {
  Io::FileDescriptor server;
  Io::FileDescriptor client;

  Connection() {
    const Io::FileDescriptor listener(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener.number(), generic, length) != 0 || ::listen(listener.number(), 1) != 0 ||
        ::getsockname(listener.number(), generic, &length) != 0) {
      std::abort();
    }
    client = Io::FileDescriptor(::socket(AF_INET, SOCK_STREAM, 0));
    if (::connect(client.number(), generic, length) != 0) {
      std::abort();
    }
    server = Io::FileDescriptor(::accept(listener.number(), nullptr, nullptr));
  }

  /// Returns when the server's kernel knows that the client has closed.
  void closeClient() {
    client.reset();
    char byte = 0;
    EXPECT_EQ(::recv(server.number(), &byte, 1, 0), 0);
  }
};

class ExportTableTest : public ::testing::Test {
 protected:
  ExportTable::Attachment attach(Control::ExportId id, SessionId session, const Connection& connection) {
    return table_.attach(held_.at(id),
                         {.id = session, .worker = nullptr, .socket = connection.server.number(), .peer = {}},
                         [this] { ++wakes_; });
  }

  void publish(Control::ExportId id, const std::string& name) {
    table_.publish(publication(id, name));
    held_[id] = found(table_, name);
  }

  int lastLeft_ = 0;
  int wakes_ = 0;
  ExportTable table_{[this](Control::ExportId) { ++lastLeft_; }};
  std::map<Control::ExportId, std::shared_ptr<const Publication>> held_;
};

TEST_F(ExportTableTest, FindsByName) {
  publish(firstId, "one");
  publish(secondId, "two");
  EXPECT_EQ(found(table_, "two")->id, secondId);
  EXPECT_EQ(found(table_, "three"), nullptr);
  EXPECT_EQ(found(table_, "On"), nullptr);
}

TEST_F(ExportTableTest, TheEmptyNameIsTheOnlyExport) {
  EXPECT_EQ(found(table_, ""), nullptr);
  publish(firstId, "one");
  EXPECT_EQ(found(table_, "")->id, firstId);
  publish(secondId, "two");
  EXPECT_EQ(found(table_, ""), nullptr);
  table_.withdraw(firstId);
  EXPECT_EQ(found(table_, "")->id, secondId);
}

TEST_F(ExportTableTest, ListsWhatIsPublishedNow) {
  EXPECT_TRUE(table_.list()->empty());
  publish(firstId, "one");
  const auto before = table_.list();
  publish(secondId, "two");
  EXPECT_EQ(before->size(), 1U);
  ASSERT_EQ(table_.list()->size(), 2U);
  EXPECT_EQ(table_.list()->back().name, "two");
  table_.withdraw(firstId);
  table_.withdraw(firstId);
  EXPECT_EQ(table_.list()->size(), 1U);
}

TEST_F(ExportTableTest, AReservedServerTakesOnlySessionsWithTheLease) {
  const Connection connection;
  publish(firstId, "one");
  const Reservations::LeaseId held{std::byte{1}};
  const Reservations::LeaseId other{std::byte{2}};
  const auto attachWith = [&](SessionId session, std::optional<Reservations::LeaseId> lease) {
    return table_.attach(held_.at(firstId),
                         {.id = session, .socket = connection.server.number(), .peer = {}, .lease = lease},
                         [] {});
  };
  table_.admitOnly(held);
  EXPECT_FALSE(table_.admits(std::nullopt));
  EXPECT_FALSE(table_.admits(other));
  EXPECT_TRUE(table_.admits(held));
  EXPECT_EQ(attachWith(1, std::nullopt), ExportTable::Attachment::reserved);
  EXPECT_EQ(attachWith(2, other), ExportTable::Attachment::reserved);
  EXPECT_EQ(attachWith(3, held), ExportTable::Attachment::attached);
  EXPECT_EQ(table_.sessions().size(), 1U);

  table_.admitOnly(std::nullopt);
  EXPECT_EQ(attachWith(4, held), ExportTable::Attachment::reserved) << "nobody, while it is cleared";
  EXPECT_EQ(attachWith(5, std::nullopt), ExportTable::Attachment::reserved);

  table_.detach(firstId, 3);
  table_.admitAll();
  EXPECT_EQ(attachWith(6, std::nullopt), ExportTable::Attachment::attached);
}

TEST_F(ExportTableTest, NobodyAttachesToWhatIsWithdrawnOrPublishedAnew) {
  const Connection connection;
  publish(firstId, "one");
  const auto old = held_[firstId];
  table_.withdraw(firstId);
  EXPECT_EQ(attach(firstId, 7, connection), ExportTable::Attachment::withdrawn);
  publish(firstId, "one");
  held_[firstId] = old;
  EXPECT_EQ(attach(firstId, 7, connection), ExportTable::Attachment::withdrawn);
  EXPECT_EQ(table_.sessionCount(firstId), 0U);
}

TEST_F(ExportTableTest, CountsSessionsAndTellsWhenTheLastHasLeft) {
  const Connection connection;
  Connection other;
  publish(firstId, "one");
  EXPECT_EQ(attach(firstId, 7, connection), ExportTable::Attachment::attached);
  EXPECT_EQ(attach(firstId, 8, other), ExportTable::Attachment::attached);
  EXPECT_EQ(table_.sessions(firstId).size(), 2U);
  table_.detach(firstId, 7);
  EXPECT_EQ(lastLeft_, 0);
  table_.detach(firstId, 8);
  EXPECT_EQ(lastLeft_, 1);
  table_.detach(firstId, 8);
  EXPECT_EQ(lastLeft_, 1);
}

// What a dead connection still has under way must have ended before its successor may write.
TEST_F(ExportTableTest, ANewSessionWaitsForThoseWhosePeerIsGone) {
  Connection dead;
  const Connection alive;
  const Connection next;
  publish(firstId, "one");
  ASSERT_EQ(attach(firstId, 1, dead), ExportTable::Attachment::attached);
  ASSERT_EQ(attach(firstId, 2, alive), ExportTable::Attachment::attached);
  dead.closeClient();
  EXPECT_EQ(attach(firstId, 3, next), ExportTable::Attachment::mustWait);
  EXPECT_EQ(wakes_, 0);
  ASSERT_EQ(table_.sessionsOfGonePeers(firstId).size(), 1U);
  EXPECT_EQ(table_.sessionsOfGonePeers(firstId).front().id, 1U);
  table_.detach(firstId, 1);
  EXPECT_EQ(wakes_, 1);
  EXPECT_EQ(attach(firstId, 3, next), ExportTable::Attachment::attached);
}

// It may have been let in meanwhile, and have written what the one that waited would write over.
TEST_F(ExportTableTest, WhoseClientHasGoneWhileItWaitedComesTooLate) {
  Connection dead;
  Connection waiting;
  const Connection next;
  publish(firstId, "one");
  ASSERT_EQ(attach(firstId, 1, dead), ExportTable::Attachment::attached);
  dead.closeClient();
  ASSERT_EQ(attach(firstId, 2, waiting), ExportTable::Attachment::mustWait);
  waiting.closeClient();
  table_.detach(firstId, 1);
  ASSERT_EQ(attach(firstId, 3, next), ExportTable::Attachment::attached);
  EXPECT_EQ(attach(firstId, 2, waiting), ExportTable::Attachment::overtaken);
  table_.detach(firstId, 3);
  EXPECT_EQ(attach(firstId, 2, waiting), ExportTable::Attachment::overtaken);
}

// Nobody can have come after it, and its requests are as good as any.
TEST_F(ExportTableTest, WhoseClientHasGoneEarlyIsServedAsLongAsItIsTheYoungest) {
  Connection gone;
  publish(firstId, "one");
  gone.closeClient();
  EXPECT_EQ(attach(firstId, 1, gone), ExportTable::Attachment::attached);
}

}  // namespace
}  // namespace Nbdd
