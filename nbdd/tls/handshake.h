#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/stream.h"
#include "nbdd/io/task.h"
#include "nbdd/io/thread_pool.h"
#include "nbdd/tls/channel.h"
#include "nbdd/tls/credentials.h"

namespace Nbdd::Tls {

/// Where the arithmetic of a handshake is made, so that a thousand clients that come at once do not stall
/// those who are there. All of it outlives the handshake.
struct Aside {
  Io::ThreadPool& pool;
  /// The other side's. It stands still while a step waits for the pool or runs there: who waits for us is not
  /// late.
  Io::Timer& deadline;
  /// Whether the handshake is given up: a step that has not begun is not made any more.
  std::stop_token givenUp;
};

/// Makes the TLS handshake on a stream that is in the clear so far, and has the stream go through TLS from
/// then on.
///
/// The arithmetic is made aside, or here and now if there is no such place. The stream outlives the task.
/// Bounding the time is the caller's business: he interrupts the stream's reading or shuts it down. The
/// failure is for people, escaped.
Io::Task<std::expected<Peer, std::string>> shakeHands(Io::Stream& stream, std::optional<Aside> aside,
                                                      std::shared_ptr<const Credentials> credentials,
                                                      std::string host = {});

}  // namespace Nbdd::Tls
