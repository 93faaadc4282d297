// Compressed transfers of a connection that agreed on them: writes leave in compressed blocks where that
// saves something, and the data of reads may come in them. A connection that did not agree never comes here.

#include <algorithm>
#include <vector>

#include "nbd/request.h"
#include "nbdd/compression/block_codec.h"
#include "nbdd/limits.h"
#include "nbdd/remote/connection.h"

namespace Nbdd::Remote {

/// Makes the next requests ready to be sent: a few, so that those before them leave meanwhile.
void Connection::compressNext() {
  std::size_t bytes = 0;
  std::size_t backlog = stream_->unsent();
  for (std::size_t index = 0; index < ready_; ++index) backlog += outgoing_[index]->unsent_;
  const Effort effort = effortFor(backlog);
  while (ready_ < outgoing_.size() && (bytes < Limits::importCompressBatch || ready_ == 0)) {
    Request& request = *outgoing_[ready_++];
    bytes += request.payload.size();
    if (request.payload.size() >= Limits::compressionSmallest) compress(request, effort);
  }
}

void Connection::compress(Request& request, Effort effort) {
  std::vector<Attempt> attempts = sampler_.choose(request.payload, compression_->blockLength);
  if (attempts.empty()) return;
  const std::vector<Attempt> before = attempts;
  // To zero memory of its own for each request would cost more than to copy what is left of it.
  thread_local std::vector<std::byte> scratch;
  if (scratch.size() < request.payload.size()) scratch.resize(request.payload.size());
  const std::size_t length = compressBlocks(request.payload, compression_->blockLength, effort, attempts,
                                            std::span(scratch).first(request.payload.size()));
  sampler_.note(before, attempts);
  if (length == 0) return;
  request.compressed_.assign(scratch.begin(), scratch.begin() + static_cast<std::ptrdiff_t>(length));
  if (scratch.size() > 4 * Limits::importCompressBatch) scratch = {};
  Nbd::Request wire = wireRequest(request);
  wire.flags |= Nbd::plainFlags(request.command, agreement_.headers);
  wire.flags |= Nbd::CommandFlag::compressed;
  auto& header = inSlot_[request.cookie_ % slots].header;
  encode(wire, std::span(header).first<Nbd::extendedRequestSize>());
  Nbd::storeBig<std::uint32_t>(std::span(header).subspan(requestSize()).first<Nbd::compressedLengthSize>(),
                               static_cast<std::uint32_t>(length));
  request.unsent_ = wireSize(request);
}

bool Connection::takeCompressed(Bytes payload) {
  const auto piece = Nbd::decodeCompressedPiece(payload);
  if (!piece || !current_->reading_->takeContent(piece->offset, piece->plainLength)) {
    return violation("it sent data that were not asked for");
  }
  const auto plain = destinationOf(*current_, piece->offset, piece->plainLength);
  if (!expandBlocks(piece->blocks, compression_->blockLength, plain)) {
    return violation("it sent compressed data that are damaged");
  }
  return true;
}

}  // namespace Nbdd::Remote
