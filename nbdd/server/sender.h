#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>

#include "nbdd/exports/storage.h"
#include "nbdd/io/buffer.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/signal.h"
#include "nbdd/io/stream.h"
#include "nbdd/server/memory_budget.h"

namespace Nbdd {

/// Sends replies on one connection, in the order given, whole or not at all seen from the client's side.
///
/// What the kernel takes at once is sent at once; the rest waits in a queue, and a coroutine sends it as the
/// client reads. File contents wait as a range of the file, not as bytes. One worker's thread.
class Sender {
 public:
  Sender(Io::Stream& stream, Io::BufferPool& buffers)
      : stream_(stream),
        buffers_(buffers),
        drained_(stream.loop()),
        stall_(stream.loop(), [this] { checkStall(); }) {}

  /// Sends or queues a copy of `bytes`. `more`: something else follows at once.
  void send(std::span<const std::byte> bytes, bool more = false);
  /// Sends or queues a range of the storage's file, which must be in memory.
  void sendFile(std::shared_ptr<Storage> storage, std::uint64_t offset, std::uint64_t length);
  /// Queues the first `length` bytes of `buffer`, or a copy of `bytes`, to go out at the end of the loop's
  /// turn, together with what else completes in it. `share` of the memory budget is given back with the
  /// buffer.
  void post(Io::Buffer buffer, std::size_t length, MemoryBudget::Share share = {});
  void post(std::span<const std::byte> bytes);

  /// Bytes of memory that wait for the client to read: whole buffers, but for what of them has been sent.
  std::size_t pending() const { return pending_; }
  /// Bytes that are ready to leave and wait for the network, here or in the socket.
  std::size_t backlog() const { return backlog_ + stream_.unsent(); }
  bool idle() const { return queue_.empty() && stream_.flushed(); }
  /// Nothing can be sent any more; what is queued is dropped.
  bool failed() const { return failed_; }

  /// Notified whenever the queue has become shorter, or sending has failed.
  Io::Signal& progress() { return drained_; }

  /// Awaits that everything queued is sent, or that sending has failed. No one else may wait on `progress`.
  Io::Task<void> finish();

  /// Gives up: nothing is sent any more.
  void fail();

 private:
  struct Piece {
    Io::Buffer buffer;  // bytes [begin, end) of it are to be sent; empty for a range of a file
    std::size_t begin = 0;
    std::size_t end = 0;
    std::shared_ptr<Storage> storage;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    MemoryBudget::Share share;
  };
  enum class Outcome { done, blocked, failed };

  void appendCopy(std::span<const std::byte> bytes);
  void awaitFlushed();
  void flushSoon(bool endOfTurn);
  Io::Task<void> flush(bool endOfTurn);
  Outcome sendQueued();
  ssize_t sendBuffers();
  ssize_t sendRange(Piece& piece);
  void taken(std::size_t bytes);
  void watchStall();
  void checkStall();

  Io::Stream& stream_;
  Io::BufferPool& buffers_;
  Io::Signal drained_;
  Io::Timer stall_;                   // runs while the queue holds shares of the budget and is blocked
  std::uint64_t sent_ = 0;            // bytes out of the queue, ever
  std::uint64_t sentAtLastLook_ = 0;  // when stall_ was started
  Io::Clock::time_point lastProgress_;
  Io::Scope flushing_;
  std::deque<Piece> queue_;
  std::size_t pending_ = 0;
  std::size_t backlog_ = 0;  // bytes of buffers
  bool failed_ = false;
};

}  // namespace Nbdd
