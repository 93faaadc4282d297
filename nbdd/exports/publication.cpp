#include "nbdd/exports/publication.h"

namespace Nbdd {

namespace {

Control::ExportTransferCounters countersOf(std::uint64_t transfers, std::uint64_t bytes,
                                           std::uint64_t transferred) {
  Control::ExportTransferCounters counters;
  counters.numTransTotal = transfers;
  counters.bytesTransTotal = bytes;
  counters.bytesTransTransferred = transferred;
  return counters;
}

}  // namespace

void TransferCounters::add(Totals& totals, const Batch& batch) {
  totals.transfers.fetch_add(batch.transfers, std::memory_order_relaxed);
  totals.bytes.fetch_add(batch.bytes, std::memory_order_relaxed);
  totals.bytesTransferred.fetch_add(batch.bytesTransferred, std::memory_order_relaxed);
}

Control::ExportStatistics TransferCounters::statistics() const {
  constexpr auto order = std::memory_order_relaxed;
  return {.rx = countersOf(received_.transfers.load(order), received_.bytes.load(order),
                           received_.bytesTransferred.load(order)),
          .tx = countersOf(sent_.transfers.load(order), sent_.bytes.load(order),
                           sent_.bytesTransferred.load(order))};
}

}  // namespace Nbdd
