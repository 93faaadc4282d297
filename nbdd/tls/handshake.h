#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <string>

#include "nbdd/io/stream.h"
#include "nbdd/io/task.h"
#include "nbdd/io/thread_pool.h"
#include "nbdd/tls/channel.h"
#include "nbdd/tls/credentials.h"

namespace Nbdd::Tls {

/// Makes the TLS handshake on a stream that is in the clear so far, and has the stream go through TLS from
/// then on.
///
/// The arithmetic runs on `pool`, so that a thousand clients that come at once do not stall those who are
/// there, or here and now if `pool` is null. Stream and pool outlive the task. Bounding the time is the
/// caller's business: he interrupts the stream's reading or shuts it down. The failure is for people,
/// escaped.
Io::Task<std::expected<Peer, std::string>> shakeHands(Io::Stream& stream, Io::ThreadPool* pool,
                                                      std::shared_ptr<const Credentials> credentials,
                                                      std::string host = {});

}  // namespace Nbdd::Tls
