#include "nbdd/server/listener.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <optional>
#include <string>

namespace Nbdd {
namespace {

std::string congestionControlOf(int socket) {
  std::array<char, 16> name{};
  socklen_t length = name.size() - 1;
  EXPECT_EQ(::getsockopt(socket, IPPROTO_TCP, TCP_CONGESTION, name.data(), &length), 0);
  return name.data();
}

TEST(Listener, ConnectionsWithinTheHostAreNotPaced) {
  Io::EventLoop loop;
  std::optional<Io::FileDescriptor> accepted;
  const auto listener = Listener::open(loop, {.addresses = {"127.0.0.1"}, .port = 0},
                                       [&](Io::FileDescriptor socket, const Control::Endpoint& /*peer*/) {
                                         accepted = std::move(socket);
                                         loop.stop();
                                       });
  ASSERT_TRUE(listener);

  const Io::FileDescriptor client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons((*listener)->port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::connect(client.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  loop.run();

  ASSERT_TRUE(accepted);
  const std::string usual = congestionControlOf(client.number());
  EXPECT_EQ(congestionControlOf(accepted->number()), usual.starts_with("bbr") ? "reno" : usual);
}

}  // namespace
}  // namespace Nbdd
