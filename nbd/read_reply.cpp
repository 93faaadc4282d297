#include "nbd/read_reply.h"

#include <algorithm>

#include "nbd/contract.h"
#include "nbd/limits.h"

namespace Nbd {

ReadReply::ReadReply(const Request& request)
    : request_{.begin = request.offset, .end = request.offset + request.length},
      mayFragment_((request.flags & CommandFlag::df) == 0) {
  require(request_.begin <= request_.end);
}

bool ReadReply::takeContent(std::uint64_t offset, std::uint64_t length) {
  if (length == 0 || offset < request_.begin || offset > request_.end || length > request_.end - offset)
    return false;
  if (!mayFragment_ && !received_.empty()) return false;
  const Range piece{.begin = offset, .end = offset + length};
  const auto behind = std::ranges::upper_bound(received_, piece.begin, {}, &Range::begin);
  const bool hasBefore = behind != received_.begin();
  const bool hasBehind = behind != received_.end();
  if (hasBefore && std::prev(behind)->end > piece.begin) return false;
  if (hasBehind && behind->begin < piece.end) return false;
  const bool joinsBefore = hasBefore && std::prev(behind)->end == piece.begin;
  const bool joinsBehind = hasBehind && behind->begin == piece.end;
  if (joinsBefore && joinsBehind) {
    std::prev(behind)->end = behind->end;
    received_.erase(behind);
  } else if (joinsBefore) {
    std::prev(behind)->end = piece.end;
  } else if (joinsBehind) {
    behind->begin = piece.begin;
  } else {
    if (received_.size() == maxReadPieces) return false;
    received_.insert(behind, piece);
  }
  return true;
}

bool ReadReply::takeError(const ErrorChunk& chunk) {
  if (chunk.offset && (*chunk.offset < request_.begin || *chunk.offset > request_.end)) return false;
  if (error_ == Error::none) error_ = chunk.error;
  return true;
}

bool ReadReply::isComplete() const {
  if (error_ != Error::none || request_.begin == request_.end) return true;
  return received_.size() == 1 && received_.front().begin == request_.begin &&
         received_.front().end == request_.end;
}

}  // namespace Nbd
