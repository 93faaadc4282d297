#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "nbd/constants.h"
#include "nbd/reply.h"
#include "nbd/request.h"

namespace Nbd {

/// Whether the chunks of the reply to one READ are what the protocol allows: pieces of data and holes, in any
/// order, that tile the request exactly, or an error. The client asks before it uses a chunk; once a function
/// has returned false, the server has broken the protocol, and the client must disconnect.
///
/// Holds maxReadPieces ranges at most, one while the pieces come in order. One thread.
class ReadReply {
 public:
  explicit ReadReply(const Request& request);

  /// Takes the range of an OFFSET_DATA or OFFSET_HOLE chunk. False if it is empty, lies outside of the
  /// request, overlaps an earlier one, is a second one though fragments were forbidden (DF), or lies apart
  /// from too many others.
  [[nodiscard]] bool takeContent(std::uint64_t offset, std::uint64_t length);

  /// Takes an error chunk. False if its offset lies outside of the request. The first error counts.
  [[nodiscard]] bool takeError(const ErrorChunk& chunk);

  /// To be asked behind the last chunk: whether the reply was whole, or told an error.
  [[nodiscard]] bool isComplete() const;

  /// The error that the reply told, or `none`. Until the reply is complete nothing of its data is certain.
  [[nodiscard]] Error error() const { return error_; }

 private:
  struct Range {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
  };

  Range request_;
  bool mayFragment_;
  Error error_ = Error::none;
  std::vector<Range> received_;  // in order, apart from one another
};

}  // namespace Nbd
