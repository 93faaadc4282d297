#include "nbdd/exports/publication.h"

namespace Nbdd {

void TransferCounters::add(Totals& totals, const Batch& batch) {
  totals.transfers.fetch_add(batch.transfers, std::memory_order_relaxed);
  totals.bytes.fetch_add(batch.bytes, std::memory_order_relaxed);
  totals.bytesTransferred.fetch_add(batch.bytesTransferred, std::memory_order_relaxed);
  if (batch.compressed > 0) totals.compressed.fetch_add(batch.compressed, std::memory_order_relaxed);
}

Control::ExportTransferCounters TransferCounters::countersOf(const Totals& totals) {
  constexpr auto order = std::memory_order_relaxed;
  return {.numTransTotal = totals.transfers.load(order),
          .numTransCompressed = totals.compressed.load(order),
          .bytesTransTotal = totals.bytes.load(order),
          .bytesTransTransferred = totals.bytesTransferred.load(order)};
}

Control::ExportStatistics TransferCounters::statistics() const {
  return {.rx = countersOf(received_), .tx = countersOf(sent_)};
}

}  // namespace Nbdd
