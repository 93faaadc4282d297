#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "control/records.h"
#include "nbdd/exports/storage.h"

namespace Nbdd {

/// What clients have transferred with one export. Connections add to it once per batch of requests, not per
/// request; any thread may read it.
class alignas(64) TransferCounters {
 public:
  struct Batch {
    std::uint64_t transfers = 0;
    std::uint64_t bytes = 0;             // that clients asked for or sent
    std::uint64_t bytesTransferred = 0;  // that crossed the wire: holes do not
    std::uint64_t compressed = 0;        // of the transfers, how many were compressed
  };

  void addReceived(const Batch& batch) { add(received_, batch); }
  void addSent(const Batch& batch) { add(sent_, batch); }
  Control::ExportStatistics statistics() const;
  /// When the counting began: when the export was added, or the service started with it.
  std::chrono::steady_clock::time_point began() const { return began_; }

 private:
  struct Totals {
    std::atomic<std::uint64_t> transfers = 0;
    std::atomic<std::uint64_t> bytes = 0;
    std::atomic<std::uint64_t> bytesTransferred = 0;
    std::atomic<std::uint64_t> compressed = 0;
  };
  static void add(Totals& totals, const Batch& batch);
  static Control::ExportTransferCounters countersOf(const Totals& totals);

  const std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
  Totals received_;
  Totals sent_;
};

/// An enabled export as clients see it. Immutable but for the storage behind it and the counters.
struct Publication {
  Control::ExportId id{};
  std::string name;
  std::string description;
  std::string uuid = {};
  std::shared_ptr<Storage> storage;
  std::shared_ptr<TransferCounters> counters;
};

}  // namespace Nbdd
