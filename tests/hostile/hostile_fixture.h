#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>

#include "tests/support/raw_client.h"
#include "tests/support/running_nbdd.h"

namespace Hostile {

/// A well-behaved client that goes on working while others misbehave: it writes, reads back and compares, and
/// now and then it comes back on a new connection. Ends, and says how it went, when told to.
class Bystander {
 public:
  Bystander(std::uint16_t port, std::string exportName, std::uint32_t transferLength);
  ~Bystander() { finish(); }
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;

  /// Returns whether one more round was completed before the time is over.
  [[nodiscard]] bool completesARound(std::chrono::milliseconds limit) const;
  void finish();
  // After finish():
  [[nodiscard]] const std::string& complaint() const { return complaint_; }
  [[nodiscard]] std::chrono::milliseconds longestRound() const { return longestRound_; }

 private:
  void run();

  std::uint16_t port_;
  std::string exportName_;
  std::uint32_t transferLength_;
  std::atomic<bool> finishing_ = false;
  std::atomic<std::size_t> rounds_ = 0;
  std::string complaint_;
  std::chrono::milliseconds longestRound_{0};
  std::thread thread_;
};

/// Every test has a service of its own with an export to attack, and a bystander who must not notice.
/// Whatever a test did, afterwards the service runs, holds no more descriptors than before, and little more
/// memory.
class HostileTest : public testing::Test {
 protected:
  static constexpr std::uint64_t targetSize = 96 * 1024 * 1024;  // more than one request may ask for
  static constexpr std::chrono::milliseconds bystandersPatience{10'000};

  explicit HostileTest(std::uint32_t bystandersTransfer = 4096);
  void TearDown() override;

  [[nodiscard]] Wire::RawClient connect() const { return Wire::RawClient(nbdd_.port()); }
  /// A client in the transmission phase of the target.
  [[nodiscard]] Wire::RawClient enter(Wire::RawClient::Session session = {}) const;
  /// A client behind the greeting and its own flags.
  [[nodiscard]] Wire::RawClient negotiate() const;
  /// The bytes of the target as they are in its file.
  [[nodiscard]] Wire::Buffer targetBytes(std::uint64_t offset, std::size_t length) const;
  /// Fails the test unless the service's memory has grown by less than `kibibytes` since the test began.
  void expectMemoryBelow(std::size_t kibibytes) const;

  Testing::RunningNbdd nbdd_;
  Testing::RunningNbdd::Export target_;

 private:
  Testing::RunningNbdd::Export bystandersExport_;
  std::size_t descriptorsBefore_;
  std::size_t kibibytesBefore_;
  Bystander bystander_;
};

}  // namespace Hostile
