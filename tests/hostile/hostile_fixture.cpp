#include "tests/hostile/hostile_fixture.h"

#include <algorithm>
#include <exception>
#include <fstream>

namespace Hostile {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t bystandersSize = 16 * 1024 * 1024;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isInstrumented = true;
#elif defined(__has_feature)
constexpr bool isInstrumented = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool isInstrumented = false;
#endif

Wire::Buffer pattern(std::size_t length, std::size_t round) {
  Wire::Buffer bytes(length);
  for (std::size_t index = 0; index < length; ++index)
    bytes[index] = static_cast<std::byte>(index * 7 + round);
  return bytes;
}

}  // namespace

Bystander::Bystander(std::uint16_t port, std::string exportName, std::uint32_t transferLength)
    : port_(port),
      exportName_(std::move(exportName)),
      transferLength_(transferLength),
      thread_([this] { run(); }) {}

void Bystander::finish() {
  finishing_ = true;
  if (thread_.joinable()) thread_.join();
}

bool Bystander::completesARound(std::chrono::milliseconds limit) const {
  const std::size_t before = rounds_;
  const auto deadline = Clock::now() + limit;
  while (rounds_ == before && Clock::now() < deadline) std::this_thread::sleep_for(1ms);
  return rounds_ != before;
}

void Bystander::run() {
  constexpr std::size_t roundsPerConnection = 16;
  try {
    while (!finishing_) {
      const auto begin = Clock::now();
      Wire::RawClient client(port_);
      client.enter(exportName_);
      for (std::size_t round = 0; round < roundsPerConnection && !finishing_; ++round, ++rounds_) {
        const auto start = round == 0 ? begin : Clock::now();
        const std::uint64_t offset = rounds_ * transferLength_ % bystandersSize;
        const Wire::Buffer written = pattern(transferLength_, rounds_);
        if (client.write(offset, written) != Nbd::Error::none) throw Wire::Disappointment("a write failed");
        if (client.read(offset, transferLength_).second != written)
          throw Wire::Disappointment("other data came back");
        longestRound_ =
            std::max(longestRound_, std::chrono::ceil<std::chrono::milliseconds>(Clock::now() - start));
      }
      client.disconnect();
    }
  } catch (const std::exception& exception) {
    complaint_ = exception.what();
  }
}

HostileTest::HostileTest(std::uint32_t bystandersTransfer)
    : target_(nbdd_.publish("target", targetSize)),
      bystandersExport_(nbdd_.publish("bystander", bystandersSize)),
      descriptorsBefore_(nbdd_.descriptorCount()),
      kibibytesBefore_(nbdd_.residentKibibytes()),
      bystander_(nbdd_.port(), bystandersExport_.name, bystandersTransfer) {}

void HostileTest::TearDown() {
  EXPECT_TRUE(bystander_.completesARound(bystandersPatience));
  bystander_.finish();
  EXPECT_EQ(bystander_.complaint(), "");
  EXPECT_LT(bystander_.longestRound(), bystandersPatience);
  // A session that ended lingers for a moment. Storage that is first used may open descriptors of its own: a
  // few.
  constexpr std::size_t fewDescriptors = 4;
  const auto isTidy = [&] {
    return nbdd_.descriptorCount() <= descriptorsBefore_ + fewDescriptors && nbdd_.clientCount(target_) == 0;
  };
  const auto deadline = Clock::now() + 10s;
  while (!isTidy() && Clock::now() < deadline) std::this_thread::sleep_for(20ms);
  EXPECT_TRUE(isTidy()) << nbdd_.descriptorCount() << " descriptors after " << descriptorsBefore_ << ", and "
                        << nbdd_.clientCount(target_) << " clients";
  EXPECT_EQ(nbdd_.stop().exitCode, 0) << nbdd_.log();
}

Wire::RawClient HostileTest::enter(Wire::RawClient::Session session) const {
  Wire::RawClient client = connect();
  client.enter(target_.name, session);
  return client;
}

Wire::RawClient HostileTest::negotiate() const {
  Wire::RawClient client = connect();
  client.receiveGreeting();
  client.send(Wire::clientFlags());
  return client;
}

Wire::Buffer HostileTest::targetBytes(std::uint64_t offset, std::size_t length) const {
  Wire::Buffer bytes(length);
  std::ifstream file(target_.file, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(offset));
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(length));
  EXPECT_TRUE(file.good());
  return bytes;
}

void HostileTest::expectMemoryBelow(std::size_t kibibytes) const {
  if (isInstrumented) return;  // sanitizers keep what is freed
  EXPECT_LT(nbdd_.residentKibibytes(), kibibytesBefore_ + kibibytes);
}

}  // namespace Hostile
