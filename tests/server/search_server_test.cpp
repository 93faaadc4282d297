// Clients that have a server search its exports, while exports come and go and clients leave.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "nbd/extension.h"
#include "nbdd/server/server.h"
#include "tests/support/raw_client.h"

namespace Nbdd {
namespace {

using Nbd::ReplyType;
using Wire::Buffer;
using Wire::RawClient;

constexpr std::uint32_t exportCount = 200;

std::string nameOf(std::uint32_t number) { return "vol" + std::to_string(number); }

Publication publication(std::uint32_t number) {
  OpenNode node;
  node.size = std::uint64_t{number} * 1024;
  return {.id = Control::ExportId{number},
          .name = nameOf(number),
          .description = "",
          .uuid = "c0ffee00-0000-4000-8000-000000000001",
          .storage = std::make_shared<Storage>(std::move(node)),
          .counters = std::make_shared<TransferCounters>()};
}

/// A server on a thread of its own that speaks the extension and offers `exportCount` exports.
class SearchServerTest : public ::testing::Test {
 protected:
  SearchServerTest() {
    std::promise<void> ready;
    thread_ = std::jthread([this, &ready] {
      Io::EventLoop loop;
      Server server(loop, {.workers = 2, .extension = Nbd::Extension::Hello{}},
                    {.lastClientLeft = [](Control::ExportId) {},
                     .storageFailed = [](Control::ExportId, int) {},
                     .properties = [] { return std::vector<Nbd::Extension::Property>(); }});
      for (std::uint32_t number = 1; number <= exportCount; ++number) server.publish(publication(number));
      EXPECT_TRUE(server.listen({.addresses = {"127.0.0.1"}, .port = 0}));
      port_ = server.port();
      loop_ = &loop;
      server_ = &server;
      loop.post([&] { ready.set_value(); });
      loop.run();
    });
    ready.get_future().wait();
  }

  ~SearchServerTest() override {
    loop_->stop();
    thread_.join();
  }

  std::unique_ptr<RawClient> greeted() const {
    auto client = std::make_unique<RawClient>(port_);
    client->receiveGreeting();
    client->send(Wire::clientFlags());
    return client;
  }

  static void ask(RawClient& client, std::string_view expression) {
    Buffer request;
    Nbd::Extension::appendHeader(request, {.kind = Nbd::Extension::Kind::evaluate});
    request.push_back(std::byte{1});
    client.send(Wire::option(Nbd::Option::extension, Wire::join({request, Wire::text(expression)})));
  }

  /// The matches that come, up to the end of the answer; nothing if it is a refusal.
  static std::optional<std::vector<Nbd::Extension::ExportEntry>> answer(RawClient& client) {
    std::vector<Nbd::Extension::ExportEntry> entries;
    for (;;) {
      const Wire::OptionReply reply = client.receiveOptionReply();
      if (reply.type == ReplyType::ack) return entries;
      if (reply.type != ReplyType::extension) return std::nullopt;
      const Nbd::Bytes body = Nbd::Bytes(reply.data).subspan(Nbd::Extension::headerSize);
      EXPECT_TRUE(Nbd::Extension::readExports(body, entries));
    }
  }

  Io::EventLoop* loop_ = nullptr;
  Server* server_ = nullptr;
  std::uint16_t port_ = 0;
  std::jthread thread_;
};

TEST_F(SearchServerTest, ClientsFindWhatTheyAskFor) {
  const auto client = greeted();
  ask(*client, "size > 190K and name ~ vol1*");
  const auto found = answer(*client);
  ASSERT_TRUE(found.has_value());
  ASSERT_EQ(found->size(), 9U);
  EXPECT_EQ(found->front().name, "vol191");
  EXPECT_EQ(found->front().size, 191U * 1024);
  ask(*client, "colour == red");
  EXPECT_EQ(answer(*client), std::nullopt);
  ask(*client, "true");
  EXPECT_EQ(answer(*client)->size(), exportCount) << "a mistake does not end the conversation";
}

TEST_F(SearchServerTest, ManyClientsSearchWhileExportsComeAndGo) {
  std::atomic<bool> over = false;
  std::jthread changes([&] {
    for (std::uint32_t number = 1; !over; number = number % (exportCount / 2) + 1) {
      std::promise<void> done;
      loop_->post([&] {
        server_->withdraw(Control::ExportId{number});
        server_->publish(publication(number));
        done.set_value();
      });
      done.get_future().wait();
    }
  });
  std::vector<std::jthread> searches;
  for (int client = 0; client < 8; ++client) {
    searches.emplace_back([this] {
      const auto connection = greeted();
      for (int round = 0; round < 20; ++round) {
        ask(*connection, "size > 150K and name =~ '^vol[0-9]+$' and clients == 0");
        const auto found = answer(*connection);
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(found->size(), exportCount - 150) << "those that nobody touches";
      }
    });
  }
  searches.clear();
  over = true;
}

TEST_F(SearchServerTest, AClientMayLeaveInTheMiddleOfItsSearch) {
  for (int round = 0; round < 50; ++round) {
    const auto client = greeted();
    ask(*client, "true");
    if (round % 2 == 0) {
      client->reset();
    } else {
      client->close();
    }
  }
  const auto last = greeted();
  ask(*last, "true");
  EXPECT_EQ(answer(*last)->size(), exportCount);
}

TEST_F(SearchServerTest, TheServerMayEndInTheMiddleOfASearch) {
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int client = 0; client < 20; ++client) {
    clients.push_back(greeted());
    ask(*clients.back(), "name =~ '(a|v)+(o+l+)+[0-9]*$'");
  }
  std::promise<void> closed;
  loop_->post([&] { server_->close([&] { closed.set_value(); }); });
  EXPECT_EQ(closed.get_future().wait_for(RawClient::patience), std::future_status::ready);
}

}  // namespace
}  // namespace Nbdd
