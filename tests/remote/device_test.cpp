#include "nbdd/remote/device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <latch>
#include <mutex>
#include <string>

#include "tests/remote/device_thread.h"
#include "tests/remote/scripted_server.h"

namespace Nbdd::Remote {
namespace {

using namespace std::chrono_literals;
using Control::FailureCode;
using Nbd::Command;
using Nbd::Error;
using Peer = ScriptedServer::Peer;
namespace Flag = Nbd::TransmissionFlag;

constexpr std::size_t size = std::size_t{1} << 20;

Device::Options options(const ScriptedServer& server) {
  return {.server = {.host = "127.0.0.1", .port = server.port()},
          .exportName = "memory",
          .patience = {.whole = 2s, .address = 1s},
          .pauses = {.first = 2ms, .longest = 20ms},
          .settleTime = 200ms};
}

Wire::Buffer filled(std::size_t length, unsigned char value) {
  return Wire::Buffer(length, std::byte{value});
}

// --- What a good server makes of it

class EveryHeaderStyle : public testing::TestWithParam<Nbd::HeaderStyle> {};

TEST_P(EveryHeaderStyle, ReadsWhatItWrote) {
  MemoryExport memory(size);
  memory.headers = GetParam();
  ScriptedServer server({[&](Peer& peer) { memory.serve(peer); }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  EXPECT_EQ(device.request(Command::write, 4096, 100'000, 0, std::byte{0x5a}), Error::none);
  const auto read = device.ask(Command::read, 0, 200'000);
  ASSERT_EQ(DeviceThread::result(*read), Error::none);
  const Wire::Buffer content = memory.content();
  EXPECT_TRUE(std::ranges::equal(read->memory, std::span(content).first(200'000)));
  EXPECT_EQ(content[4096], std::byte{0x5a});
  EXPECT_EQ(content[4095], std::byte{0});
}

TEST_P(EveryHeaderStyle, CarriesEveryCommand) {
  MemoryExport memory(size);
  memory.headers = GetParam();
  ScriptedServer server({[&](Peer& peer) { memory.serve(peer); }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  EXPECT_EQ(device.request(Command::write, 0, 8192, Nbd::CommandFlag::fua, std::byte{1}), Error::none);
  EXPECT_EQ(device.request(Command::writeZeroes, 0, 4096), Error::none);
  EXPECT_EQ(device.request(Command::trim, 4096, 100), Error::none);
  EXPECT_EQ(device.request(Command::flush, 0, 0), Error::none);
  const auto status = device.ask(Command::blockStatus, 0, 4096);
  if (GetParam() == Nbd::HeaderStyle::simple) {
    EXPECT_EQ(DeviceThread::result(*status), Error::inval) << "that needs chunks";
  } else {
    EXPECT_EQ(DeviceThread::result(*status), Error::none);
    EXPECT_EQ(status->found, (std::vector<Nbd::Extent>{{.length = 4096, .status = 0}}));
  }
  EXPECT_EQ(memory.content()[4195], std::byte{0});
  EXPECT_EQ(memory.content()[4196], std::byte{1});
}

INSTANTIATE_TEST_SUITE_P(Device, EveryHeaderStyle,
                         testing::Values(Nbd::HeaderStyle::simple, Nbd::HeaderStyle::structured,
                                         Nbd::HeaderStyle::extended));

TEST(Device, AnswersWhatTheLimitsForbidWithoutTheServer) {
  MemoryExport memory(size);
  std::atomic<int> asked = 0;
  memory.before = [&](const Nbd::Request&) { return ++asked, true; };
  ScriptedServer server({[&](Peer& peer) { memory.serve(peer); }});
  Device::Options readOnly = options(server);
  readOnly.readOnly = true;
  DeviceThread device(readOnly);
  ASSERT_TRUE(device.awaitConnected());
  EXPECT_EQ(device.request(Command::write, 0, 4096), Error::perm);
  EXPECT_EQ(device.request(Command::read, size, 1), Error::inval);
  EXPECT_EQ(device.request(Command::cache, 0, 1), Error::inval) << "the server does not offer it";
  EXPECT_EQ(device.request(Command::read, 0, 0), Error::none);
  EXPECT_EQ(asked, 0);
}

TEST(Device, KeepsManyRequestsInFlightAndTakesAnswersInAnyOrder) {
  constexpr std::size_t count = Limits::importRequestsInFlight;
  ScriptedServer server({[](Peer& peer) {
    const MemoryExport memory(size);
    ASSERT_TRUE(peer.handshake(memory.view));
    std::vector<Nbd::Request> requests;
    while (requests.size() < count) {
      const auto received = peer.receiveRequest();
      ASSERT_TRUE(received);
      requests.push_back(received->request);
    }
    std::ranges::reverse(requests);
    for (const Nbd::Request& request : requests) {
      peer.sendData(request, request.offset, filled(512, static_cast<unsigned char>(request.offset / 512)),
                    true);
    }
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  std::vector<std::unique_ptr<DeviceThread::Asked>> reads;
  for (std::size_t index = 0; index < count; ++index)
    reads.push_back(device.ask(Command::read, 512 * index, 512));
  for (std::size_t index = 0; index < count; ++index) {
    ASSERT_EQ(DeviceThread::result(*reads[index]), Error::none);
    EXPECT_EQ(reads[index]->memory, filled(512, static_cast<unsigned char>(index)));
  }
}

TEST(Device, WithdrawsWhatWaitsAndNothingElse) {
  MemoryExport memory(size);
  std::latch received(1);
  std::latch answer(1);
  ScriptedServer server({[&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view));
                           const auto first = peer.receiveRequest();
                           ASSERT_TRUE(first);
                           received.count_down();
                           answer.wait();
                           peer.sendNone(first->request);
                           // Ends, and leaves the second without an answer.
                           EXPECT_TRUE(peer.receiveRequest());
                         },
                         [&](Peer& peer) { memory.serve(peer); }});
  Device::Options patient = options(server);
  patient.connections = 1;
  patient.pauses = {.first = 300s, .longest = 300s};
  DeviceThread device(patient);
  ASSERT_TRUE(device.awaitConnected());
  const auto inFlight = device.ask(Command::write, 0, 512);
  received.wait();
  device.onLoop([&](Device& subject) { return subject.withdraw(*inFlight), 0; });
  answer.count_down();
  EXPECT_EQ(DeviceThread::result(*inFlight), Error::none) << "the server had it";
  const auto unanswered = device.ask(Command::write, 512, 512);
  ASSERT_TRUE(device.await([](const auto& seen) { return !seen.waiting.empty(); }));
  const auto late = device.ask(Command::write, 1024, 512);
  device.onLoop([&](Device& subject) {
    subject.withdraw(*late);
    subject.withdraw(*unanswered);
    return 0;
  });
  EXPECT_EQ(DeviceThread::result(*late), Error::io);
  EXPECT_EQ(DeviceThread::result(*unanswered), Error::io) << "its connection has ended at the server";
  EXPECT_EQ(memory.content()[512], std::byte{0});
}

TEST(Device, PutsReadsTogetherFromPiecesHolesAndInterleavedAnswers) {
  ScriptedServer server({[](Peer& peer) {
    const MemoryExport memory(size);
    ASSERT_TRUE(peer.handshake(memory.view));
    const Nbd::Request first = peer.receiveRequest()->request;
    const Nbd::Request second = peer.receiveRequest()->request;
    peer.sendData(first, 8192 + 4096, filled(8192, 1), false);
    peer.sendData(second, 0, filled(10, 7), false);
    peer.sendHole(first, 8192, 4096, false);
    peer.sendData(second, 10, filled(10, 8), true);
    peer.sendNone(first);
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  const auto first = device.ask(Command::read, 8192, 12288);
  const auto second = device.ask(Command::read, 0, 20);
  ASSERT_EQ(DeviceThread::result(*first), Error::none);
  ASSERT_EQ(DeviceThread::result(*second), Error::none);
  EXPECT_EQ(first->memory, Wire::join({filled(4096, 0), filled(8192, 1)}));
  EXPECT_EQ(second->memory, Wire::join({filled(10, 7), filled(10, 8)}));
}

TEST(Device, PassesErrorsOnAsErrors) {
  ScriptedServer server({[](Peer& peer) {
    const MemoryExport memory(size);
    ASSERT_TRUE(peer.handshake(memory.view));
    for (const Error error : {Error::io, Error::nospc, static_cast<Error>(4711)}) {
      const auto received = peer.receiveRequest();
      ASSERT_TRUE(received);
      // Part of a read's data may come before its error.
      if (error == Error::io) peer.sendData(received->request, 0, filled(512, 1), false);
      peer.sendError(received->request, error, false);
      peer.sendNone(received->request);
    }
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  EXPECT_EQ(device.request(Command::read, 0, 4096), Error::io);
  EXPECT_EQ(device.request(Command::write, 0, 4096), Error::nospc);
  EXPECT_EQ(device.request(Command::flush, 0, 0), Error::inval) << "numbers that nobody knows";
  EXPECT_EQ(device.seen().connected, 1);
}

// An answer may come while the data of a write are still on their way.
TEST(Device, SendsTheRestOfAWriteThatWasRefusedAtOnce) {
  static constexpr std::uint32_t large = 16 << 20;
  ScriptedServer server({[](Peer& peer) {
    const MemoryExport memory(std::size_t{64} << 20);
    ASSERT_TRUE(peer.handshake(memory.view));
    const auto request = peer.receiveRequestAlone();
    ASSERT_TRUE(request);
    peer.sendError(*request, Error::nospc, true);
    ASSERT_EQ(peer.receive(request->length).size(), large);
    const auto next = peer.receiveRequest();
    ASSERT_TRUE(next);
    peer.sendNone(next->request);
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  const auto write = device.ask(Command::write, 0, large);
  const auto flush = device.ask(Command::flush, 0, 0);
  EXPECT_EQ(DeviceThread::result(*write), Error::nospc);
  EXPECT_EQ(DeviceThread::result(*flush), Error::none);
}

// --- Several connections

TEST(Device, UsesSeveralConnectionsWhereTheServerAllowsIt) {
  MemoryExport memory(size);
  memory.view.transmissionFlags |= Flag::canMultiConn;
  ScriptedServer server({[&](Peer& peer) { memory.serve(peer); }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  while (device.onLoop([](Device& subject) { return subject.connections(); }) < Limits::importConnections) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(server.connections(), static_cast<int>(Limits::importConnections));
  EXPECT_EQ(device.seen().connected, 1);
}

/// Asks for `count` reads of `length` bytes at once, where several connections are allowed. Returns how many
/// of these were used before anything was answered.
std::size_t connectionsUsedFor(std::size_t count, std::uint32_t length) {
  MemoryExport memory(std::size_t{64} << 20);
  memory.view.transmissionFlags |= Flag::canMultiConn;
  std::latch arrived(static_cast<std::ptrdiff_t>(count));
  std::atomic<std::size_t> used = 0;
  ScriptedServer server({[&](Peer& peer) {
    ASSERT_TRUE(peer.handshake(memory.view));
    for (bool first = true; peer.receiveRequest(); first = false) {
      if (first) ++used;
      arrived.count_down();
    }
  }});
  DeviceThread device(options(server));
  EXPECT_TRUE(device.awaitConnected());
  while (device.onLoop([](Device& subject) { return subject.connections(); }) < Limits::importConnections) {
    std::this_thread::sleep_for(1ms);
  }
  std::vector<std::unique_ptr<DeviceThread::Asked>> reads;
  for (std::size_t index = 0; index < count; ++index) reads.push_back(device.ask(Command::read, 0, length));
  arrived.wait();
  device.stop();
  for (const auto& read : reads) EXPECT_EQ(DeviceThread::result(*read), Error::io);
  return used;
}

TEST(Device, KeepsSmallRequestsTogetherAndLargeOnesApart) {
  EXPECT_EQ(connectionsUsedFor(32, 4096), 1U);
  EXPECT_EQ(connectionsUsedFor(8, 1 << 20), Limits::importConnections);
}

TEST(Device, UsesOneConnectionOtherwise) {
  MemoryExport memory(size);
  ScriptedServer server({[&](Peer& peer) { memory.serve(peer); }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  for (int round = 0; round < 100; ++round) EXPECT_EQ(device.request(Command::read, 0, 512), Error::none);
  EXPECT_EQ(server.connections(), 1);
}

// --- A device beside another

/// Another device of the export that `first` has, which passes on what it cannot ask.
class SecondDevice {
 public:
  explicit SecondDevice(DeviceThread& first)
      : device(first.onLoop([](Device& subject) { return subject.forAnother(); }), [&](Request& request) {
          const std::lock_guard lock(mutex_);
          passed_.push_back(&request);
          more_.notify_all();
        }) {}

  /// Waits until so many requests were passed on.
  std::vector<Request*> passed(std::size_t count) {
    std::unique_lock lock(mutex_);
    more_.wait_for(lock, DeviceThread::patience, [&] { return passed_.size() >= count; });
    return passed_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable more_;
  std::vector<Request*> passed_;

 public:
  DeviceThread device;
};

TEST(Device, PassesOnWhatALostConnectionDidNotAnswer) {
  MemoryExport memory(size);
  memory.view.transmissionFlags |= Flag::canMultiConn;
  std::latch asked(1);
  ScriptedServer server({[&](Peer& peer) { memory.serve(peer); },
                         [&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view));
                           ASSERT_TRUE(peer.receiveRequest());
                           ASSERT_TRUE(peer.receiveRequest());
                           asked.count_down();
                         },
                         [&](Peer& peer) { peer.awaitEnd(); }});
  Device::Options alone = options(server);
  alone.connections = 1;
  DeviceThread first(alone);
  ASSERT_TRUE(first.awaitConnected());
  SecondDevice second(first);
  ASSERT_TRUE(second.device.awaitConnected());
  const auto one = second.device.ask(Command::write, 0, 4096);
  const auto other = second.device.ask(Command::write, 4096, 4096);
  asked.wait();
  const std::vector<Request*> passed = second.passed(2);
  ASSERT_EQ(passed, (std::vector<Request*>{one.get(), other.get()}));
  // What is asked while there is no connection goes the same way.
  const auto third = second.device.ask(Command::read, 0, 512);
  ASSERT_EQ(second.passed(3).back(), third.get());
  for (Request* const request : second.passed(3)) request->done(Error::none);
  EXPECT_EQ(DeviceThread::result(*third), Error::none);
}

TEST(Device, ThatIsOneOfSeveralRefusesAServerThatIsNotTheSame) {
  MemoryExport memory(size);
  memory.view.transmissionFlags |= Flag::canMultiConn;
  MemoryExport other(size);
  ScriptedServer server({[&](Peer& peer) { memory.serve(peer); }, [&](Peer& peer) { other.serve(peer); }});
  Device::Options alone = options(server);
  alone.connections = 1;
  DeviceThread first(alone);
  ASSERT_TRUE(first.awaitConnected());
  SecondDevice second(first);
  ASSERT_TRUE(second.device.await([](const DeviceThread::Seen& seen) { return !seen.waiting.empty(); }));
  EXPECT_EQ(second.device.seen().waiting.front().code, FailureCode::remoteExportChanged);
  EXPECT_EQ(second.device.seen().connected, 0);
}

// --- Servers that go away

TEST(Device, AsksAgainWhatALostConnectionDidNotAnswer) {
  MemoryExport memory(size);
  std::atomic<int> left = 5;
  memory.before = [&](const Nbd::Request&) { return left-- > 0; };
  ScriptedServer server({[&](Peer& peer) { memory.serve(peer); },
                         [&](Peer& peer) {
                           left = 1'000'000;
                           memory.serve(peer);
                         }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  std::vector<std::unique_ptr<DeviceThread::Asked>> writes;
  for (unsigned index = 0; index < 20; ++index) {
    writes.push_back(device.ask(Command::write, 4096 * index, 4096, 0, static_cast<std::byte>(index + 1)));
  }
  for (const auto& write : writes) EXPECT_EQ(DeviceThread::result(*write), Error::none);
  for (unsigned index = 0; index < 20; ++index) {
    EXPECT_EQ(memory.content()[4096 * index], static_cast<std::byte>(index + 1));
  }
  EXPECT_EQ(device.seen().connected, 2);
  ASSERT_FALSE(device.seen().waiting.empty());
  EXPECT_EQ(device.seen().waiting.front().code, FailureCode::connectionFailed);
}

// The rule that keeps old writes from landing on newer ones: what a connection carried is asked again only
// when the server has ended that connection.
TEST(Device, DoesNotAskAgainBeforeTheOldConnectionHasEndedAtTheServer) {
  const MemoryExport memory(size);
  std::atomic<bool> oldEnded = false;
  std::atomic<bool> tooEarly = false;
  ScriptedServer server({[&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view));
                           ASSERT_TRUE(peer.receiveRequest());
                           // Breaks the protocol, then takes its time to end.
                           peer.sendNone({.cookie = 4711});
                           peer.awaitEnd();
                           std::this_thread::sleep_for(300ms);
                           oldEnded = true;
                           peer.close();
                         },
                         [&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view));
                           const auto received = peer.receiveRequest();
                           ASSERT_TRUE(received);
                           tooEarly = !oldEnded;
                           peer.sendNone(received->request);
                           peer.awaitEnd();
                         }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  EXPECT_EQ(device.request(Command::write, 0, 4096), Error::none);
  EXPECT_TRUE(oldEnded);
  EXPECT_FALSE(tooEarly);
}

TEST(Device, LeavesAServerThatAnnouncesItsEndAndAsksTheNextOne) {
  const MemoryExport memory(size);
  std::atomic<bool> leftInOrder = false;
  ScriptedServer server({[&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view));
                           const auto received = peer.receiveRequest();
                           ASSERT_TRUE(received);
                           peer.sendError(received->request, Error::shutdown, true);
                           const auto request = peer.receiveRequestAlone();
                           leftInOrder = request && request->type == Command::disconnect;
                         },
                         [&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view));
                           const auto received = peer.receiveRequest();
                           ASSERT_TRUE(received);
                           peer.sendNone(received->request);
                           peer.awaitEnd();
                         }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  EXPECT_EQ(device.request(Command::flush, 0, 0), Error::none);
  EXPECT_TRUE(leftInOrder);
}

TEST(Device, IsNotConnectedWhileAServerThatAnnouncedItsEndLingers) {
  MemoryExport memory(size);
  std::latch seen(1);
  ScriptedServer server({[&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view));
                           const auto received = peer.receiveRequest();
                           ASSERT_TRUE(received);
                           peer.sendError(received->request, Error::shutdown, true);
                           seen.wait();  // and does not close
                         },
                         [&](Peer& peer) { memory.serve(peer); }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  const auto flush = device.ask(Command::flush, 0, 0);
  EXPECT_TRUE(device.await([](const DeviceThread::Seen& told) { return !told.waiting.empty(); }));
  seen.count_down();
  EXPECT_TRUE(device.awaitConnected(2));
  EXPECT_EQ(DeviceThread::result(*flush), Error::none);
}

struct Change {
  std::string what;
  std::function<void(Nbd::ExportView&)> make;
  bool accepted = false;
};

class ServerThatComesBack : public testing::TestWithParam<Change> {};

TEST_P(ServerThatComesBack, IsRefusedUnlessItOffersTheSame) {
  MemoryExport memory(size);
  MemoryExport changed(size);
  GetParam().make(changed.view);
  std::latch refused(1);
  std::atomic<bool> used = false;
  ScriptedServer server({[&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view));
                           ASSERT_TRUE(peer.receiveRequest());
                         },
                         [&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(changed.view));
                           used = peer.receiveRequest().has_value();
                           refused.count_down();
                         },
                         [&](Peer& peer) { memory.serve(peer); }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  const auto read = device.ask(Command::read, 0, 512);
  refused.wait();
  EXPECT_EQ(used, GetParam().accepted);
  EXPECT_EQ(DeviceThread::result(*read), Error::none) << "the third time, the right one is back";
  EXPECT_EQ(device.await(
                [](const DeviceThread::Seen& seen) {
                  return std::ranges::any_of(seen.waiting, [](const auto& why) {
                    return why.code == FailureCode::remoteExportChanged;
                  });
                },
                0ms),
            !GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(
    Device, ServerThatComesBack,
    testing::Values(Change{"Larger", [](Nbd::ExportView& view) { view.size *= 2; }},
                    Change{"Smaller", [](Nbd::ExportView& view) { view.size -= 512; }},
                    Change{"ReadOnly",
                           [](Nbd::ExportView& view) { view.transmissionFlags |= Flag::readOnly; }},
                    Change{"WithoutFlush",
                           [](Nbd::ExportView& view) {
                             view.transmissionFlags &= static_cast<std::uint16_t>(~unsigned{Flag::sendFlush});
                           }},
                    Change{"WithLargerBlocks", [](Nbd::ExportView& view) { view.minimumBlock = 512; }},
                    Change{"WithMoreAbilities",
                           [](Nbd::ExportView& view) { view.transmissionFlags |= Flag::sendCache; }, true}),
    [](const auto& each) { return each.param.what; });

// --- Servers that lie

struct Lie {
  std::string what;
  std::function<void(Peer&, const Nbd::Request&)> tell;
};

class LyingServer : public testing::TestWithParam<Lie> {};

TEST_P(LyingServer, IsDroppedAndLeftInTheEnd) {
  const MemoryExport memory(size);
  ScriptedServer server({[&](Peer& peer) {
    if (!peer.handshake(memory.view)) return;
    const auto received = peer.receiveRequest();
    if (!received) return;
    GetParam().tell(peer, received->request);
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  const auto read = device.ask(Command::read, 4096, 8192);
  EXPECT_EQ(DeviceThread::result(*read), Error::io);
  EXPECT_TRUE(device.await([](const DeviceThread::Seen& seen) { return seen.failed.has_value(); }));
  EXPECT_EQ(device.seen().failed->code, FailureCode::remoteProtocolError) << device.seen().failed->message;
  EXPECT_EQ(server.connections(), Limits::violationsInARow);
}

INSTANTIATE_TEST_SUITE_P(
    Device, LyingServer,
    testing::Values(
        Lie{"UnknownCookie",
            [](Peer& peer, const Nbd::Request& request) {
              peer.sendNone({.cookie = request.cookie + 1, .offset = request.offset});
            }},
        Lie{"OldCookie",
            [](Peer& peer, const Nbd::Request& request) {
              peer.sendNone({.cookie = request.cookie ^ 0x100, .offset = request.offset});
            }},
        Lie{"NoReplyAtAll", [](Peer& peer, const Nbd::Request&) { peer.send(filled(64, 0x42)); }},
        Lie{"SimpleReplyToARead",
            [](Peer& peer, const Nbd::Request& request) {
              peer.replySimply(request, Error::none, filled(8192, 0));
            }},
        Lie{"NothingOfTheData", [](Peer& peer, const Nbd::Request& request) { peer.sendNone(request); }},
        Lie{"APartOfTheData",
            [](Peer& peer, const Nbd::Request& request) {
              peer.sendData(request, 4096, filled(8191, 0), true);
            }},
        Lie{"MoreThanTheData",
            [](Peer& peer, const Nbd::Request& request) {
              peer.sendData(request, 4096, filled(8193, 0), true);
            }},
        Lie{"DataBefore",
            [](Peer& peer, const Nbd::Request& request) {
              peer.sendData(request, 4095, filled(8192, 0), true);
            }},
        Lie{"DataTwice",
            [](Peer& peer, const Nbd::Request& request) {
              peer.sendData(request, 4096, filled(4096, 0), false);
              peer.sendData(request, 4096 + 4095, filled(4097, 0), true);
            }},
        Lie{"AHoleOutside",
            [](Peer& peer, const Nbd::Request& request) { peer.sendHole(request, 4096, 8193, true); }},
        Lie{"AHoleThatWraps",
            [](Peer& peer, const Nbd::Request& request) {
              peer.sendHole(request, 0xffff'ffff'ffff'f000, 8192, true);
            }},
        Lie{"ABlockStatusForARead",
            [](Peer& peer, const Nbd::Request& request) {
              const Nbd::Extent extent{.length = 4096, .status = 0};
              Wire::Buffer bytes(128);
              bytes.resize(Nbd::ReplyEncoder(peer.headers())
                               .blockStatus(bytes, request, Nbd::ReplyFlag::done, 0, std::span(&extent, 1)));
              peer.send(bytes);
            }},
        Lie{"AnEndlessChunk",
            [](Peer& peer, const Nbd::Request& request) {
              Wire::Buffer bytes(Nbd::extendedChunkHeaderSize);
              Nbd::encodeExtendedChunkHeader(std::span(bytes).first<Nbd::extendedChunkHeaderSize>(),
                                             request.cookie, request.offset, 0, Nbd::ReplyChunk::offsetData,
                                             0xffff'ffff'ffff);
              peer.send(bytes);
            }},
        Lie{"AnErrorWithoutNumber",
            [](Peer& peer, const Nbd::Request& request) {
              Wire::Buffer bytes(Nbd::extendedChunkHeaderSize);
              Nbd::encodeExtendedChunkHeader(std::span(bytes).first<Nbd::extendedChunkHeaderSize>(),
                                             request.cookie, request.offset, Nbd::ReplyFlag::done,
                                             Nbd::ReplyChunk::error, 6);
              bytes.resize(bytes.size() + 6);
              peer.send(bytes);
            }}),
    [](const auto& each) { return each.param.what; });

TEST(Device, DoesNotTakeAnAcknowledgementForDataThatWereNotSent) {
  const MemoryExport memory(std::size_t{64} << 20);
  ScriptedServer server({[&](Peer& peer) {
    if (!peer.handshake(memory.view)) return;
    const auto request = peer.receiveRequestAlone();
    if (!request) return;
    peer.sendNone(*request);
    std::this_thread::sleep_for(300ms);  // while the client sends what fits into the buffers between us
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  EXPECT_EQ(device.request(Command::write, 0, 30 << 20), Error::io);
  ASSERT_TRUE(device.await([](const DeviceThread::Seen& seen) { return seen.failed.has_value(); }));
  EXPECT_NE(device.seen().failed->message.find("acknowledged"), std::string::npos);
}

// --- Stop, wherever it is

TEST(Device, StopsWhileNobodyListens) {
  Device::Options nowhere{.server = {.host = "127.0.0.1", .port = 1}, .exportName = "x"};
  DeviceThread device(nowhere);
  EXPECT_TRUE(device.await([](const DeviceThread::Seen& seen) { return seen.waiting.size() >= 2; }));
  EXPECT_EQ(device.seen().waiting.front().code, FailureCode::connectionRefused);
}

TEST(Device, StopsDuringTheHandshake) {
  std::latch connected(1);
  ScriptedServer server({[&](Peer& peer) {
    connected.count_down();
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  connected.wait();
}

TEST(Device, StopsWhileAServerIsSilentAndFailsWhatWasAsked) {
  const MemoryExport memory(size);
  std::latch asked(1);
  ScriptedServer server({[&](Peer& peer) {
    ASSERT_TRUE(peer.handshake(memory.view));
    ASSERT_TRUE(peer.receiveRequest());
    asked.count_down();
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  std::vector<std::unique_ptr<DeviceThread::Asked>> reads;
  for (int index = 0; index < 300; ++index) reads.push_back(device.ask(Command::read, 0, 4096));
  asked.wait();
  device.stop();
  for (const auto& read : reads) EXPECT_EQ(DeviceThread::result(*read), Error::io);
  EXPECT_EQ(device.request(Command::read, 0, 512), Error::io) << "also what is asked later";
}

// None is forgotten while the others end; the destructor waits for all.
TEST(Device, StopsWithSeveralConnectionsThatAllWait) {
  MemoryExport memory(size);
  memory.view.transmissionFlags |= Flag::canMultiConn;
  std::latch asked(Limits::importConnections);
  ScriptedServer server({[&](Peer& peer) {
    ASSERT_TRUE(peer.handshake(memory.view));
    ASSERT_TRUE(peer.receiveRequest());
    asked.count_down();
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  while (device.onLoop([](Device& subject) { return subject.connections(); }) < Limits::importConnections) {
    std::this_thread::sleep_for(1ms);
  }
  std::vector<std::unique_ptr<DeviceThread::Asked>> reads;
  for (std::size_t index = 0; index < Limits::importConnections; ++index) {
    reads.push_back(device.ask(Command::read, 0, size));
  }
  asked.wait();
  device.stop();
  for (const auto& read : reads) EXPECT_EQ(DeviceThread::result(*read), Error::io);
}

TEST(Device, StopsWhileAWriteCannotBeSent) {
  const MemoryExport memory(std::size_t{64} << 20);
  std::latch asked(1);
  std::latch over(1);
  ScriptedServer server({[&](Peer& peer) {
    ASSERT_TRUE(peer.handshake(memory.view));
    ASSERT_TRUE(peer.receiveRequestAlone());
    asked.count_down();
    over.wait();  // reads nothing
  }});
  {
    DeviceThread device(options(server));
    ASSERT_TRUE(device.awaitConnected());
    const auto write = device.ask(Command::write, 0, 32 << 20);
    asked.wait();
    device.stop();
    EXPECT_EQ(DeviceThread::result(*write), Error::io);
  }
  over.count_down();
}

TEST(Device, StopsWhileAnOldConnectionDoesNotEnd) {
  const MemoryExport memory(size);
  std::latch lied(1);
  std::latch over(1);
  ScriptedServer server({[&](Peer& peer) {
    ASSERT_TRUE(peer.handshake(memory.view));
    ASSERT_TRUE(peer.receiveRequest());
    peer.sendNone({.cookie = 4711});
    lied.count_down();
    over.wait();
  }});
  {
    DeviceThread device(options(server));
    ASSERT_TRUE(device.awaitConnected());
    const auto write = device.ask(Command::write, 0, 512);
    lied.wait();
    EXPECT_EQ(write->answer.wait_for(100ms), std::future_status::timeout);
    device.stop();
    EXPECT_EQ(DeviceThread::result(*write), Error::io);
  }
  over.count_down();
}

// --- Dialling

TEST(Device, TellsWhyAServerCannotBeUsed) {
  struct Case {
    FailureCode code;
    ScriptedServer::Script script;
  };
  const MemoryExport memory(size);
  MemoryExport other(size);
  other.view.name = "other";
  const std::vector<Case> cases{
      {FailureCode::noSuchRemoteExport, [&](Peer& peer) { peer.handshake(other.view); }},
      {FailureCode::remoteProtocolError,
       [](Peer& peer) { peer.send(Wire::text("SSH-2.0-nothing like that")); }},
      {FailureCode::connectionFailed, [](Peer&) {}},
      {FailureCode::remoteTimeout, [](Peer& peer) { peer.awaitEnd(); }},
      {FailureCode::remoteProtocolError,
       [](Peer& peer) {  // options without end
         peer.send(Wire::join({Wire::number(Nbd::greetingMagic), Wire::number(Nbd::optionMagic),
                               Wire::number(std::uint16_t{1})}));
         Wire::Buffer replies;
         for (int index = 0; index < 1000; ++index) {
           replies = Wire::join({replies, Wire::reply(Nbd::Option::structuredReply, Nbd::ReplyType::info)});
         }
         for (int round = 0; round < 200; ++round) peer.send(replies);
         peer.awaitEnd();
       }},
  };
  for (const Case& subject : cases) {
    ScriptedServer server({subject.script});
    Device::Options impatient = options(server);
    impatient.patience.whole = 1s;
    DeviceThread device(impatient);
    ASSERT_TRUE(device.await([](const DeviceThread::Seen& seen) { return !seen.waiting.empty(); }));
    EXPECT_EQ(device.seen().waiting.front().code, subject.code) << device.seen().waiting.front().message;
    EXPECT_EQ(device.seen().connected, 0);
  }
}

TEST(Device, LooksNamesUp) {
  MemoryExport memory(size);
  ScriptedServer server({[&](Peer& peer) { memory.serve(peer); }});
  Device::Options named = options(server);
  named.server.host = "localhost";
  DeviceThread device(named);
  EXPECT_TRUE(device.awaitConnected());
  named.server.host = "no-such-host.invalid";
  DeviceThread nobody(named);
  ASSERT_TRUE(nobody.await([](const DeviceThread::Seen& seen) { return !seen.waiting.empty(); }));
  EXPECT_NE(nobody.seen().waiting.front().code, FailureCode::internalError);
}

}  // namespace
}  // namespace Nbdd::Remote
