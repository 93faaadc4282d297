#include "nbdd/server/sender.h"

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "nbdd/limits.h"

namespace Nbdd {

namespace {

// Room for further small replies behind the first one that has to wait. Before a range of a file there is one
// header alone, so this is no more than the least that the pool hands out.
constexpr std::size_t copyCapacity = std::size_t{4} * 1024;

constexpr std::size_t maximumPieces = 64;

}  // namespace

void Sender::send(std::span<const std::byte> bytes, bool more) {
  if (failed_ || bytes.empty()) {
    return;
  }
  if (queue_.empty()) {
    const ssize_t sent = stream_.send(bytes, more);
    if (sent < 0 && sent != -EAGAIN) {
      fail();
      return;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
    if (bytes.empty()) {
      awaitFlushed();
      return;
    }
  }
  appendCopy(bytes);
  flushSoon(false);
}

void Sender::sendFile(std::shared_ptr<Storage> storage, std::uint64_t offset, std::uint64_t length) {
  if (failed_) {
    return;
  }
  Piece piece;
  piece.storage = std::move(storage);
  piece.offset = offset;
  piece.length = length;
  if (queue_.empty()) {
    const ssize_t sent = sendRange(piece);
    if (sent < 0 && sent != -EAGAIN) {
      fail();
      return;
    }
    if (piece.length == 0) {
      awaitFlushed();
      return;
    }
  }
  queue_.push_back(std::move(piece));
  flushSoon(false);
}

void Sender::post(Io::Buffer buffer, std::size_t length, MemoryBudget::Share share) {
  if (failed_) {
    return;
  }
  Piece piece;
  piece.buffer = std::move(buffer);
  piece.end = length;
  piece.share = std::move(share);
  pending_ += piece.buffer.size();
  backlog_ += length;
  queue_.push_back(std::move(piece));
  flushSoon(true);
}

void Sender::post(std::span<const std::byte> bytes) {
  if (failed_) {
    return;
  }
  appendCopy(bytes);
  flushSoon(true);
}

void Sender::appendCopy(std::span<const std::byte> bytes) {
  if (queue_.empty() || queue_.back().storage ||
      queue_.back().buffer.size() - queue_.back().end < bytes.size()) {
    Piece piece;
    piece.buffer = buffers_.take(std::max(bytes.size(), copyCapacity));
    pending_ += piece.buffer.size();
    queue_.push_back(std::move(piece));
  }
  Piece& last = queue_.back();
  std::memcpy(last.buffer.data() + last.end, bytes.data(), bytes.size());
  last.end += bytes.size();
  backlog_ += bytes.size();
}

/// Whoever waits for the end of sending waits for what the stream's layer has taken as well.
void Sender::awaitFlushed() {
  if (!stream_.flushed()) {
    flushSoon(false);
  }
}

void Sender::flushSoon(bool endOfTurn) {
  if (flushing_.running() == 0) {
    flushing_.spawn(flush(endOfTurn));
  }
}

Io::Task<void> Sender::flush(bool endOfTurn) {
  if (endOfTurn) {
    Io::EndOfTurn turn(stream_.loop());
    co_await turn;
  }
  for (;;) {
    const Outcome outcome = failed_ ? Outcome::failed : sendQueued();
    if (outcome == Outcome::failed) {
      fail();
      break;
    }
    drained_.notify();
    if (outcome == Outcome::done) {
      stall_.cancel();  // whatever comes next has its own time
      break;
    }
    watchStall();
    Io::Stream::Waiting writable = stream_.writable();
    co_await writable;
  }
}

Sender::Outcome Sender::sendQueued() {
  while (!queue_.empty()) {
    const ssize_t sent = queue_.front().storage ? sendRange(queue_.front()) : sendBuffers();
    if (sent == -EAGAIN) {
      return Outcome::blocked;
    }
    if (sent < 0) {
      return Outcome::failed;
    }
  }
  return stream_.flushed() ? Outcome::done : Outcome::blocked;
}

ssize_t Sender::sendBuffers() {
  std::array<iovec, maximumPieces> pieces;
  std::size_t count = 0;
  for (const Piece& piece : queue_) {
    if (piece.storage || count == pieces.size()) {
      break;
    }
    pieces[count++] = {.iov_base = piece.buffer.data() + piece.begin, .iov_len = piece.end - piece.begin};
  }
  const bool fileFollows = count < queue_.size() && queue_[count].storage;
  const ssize_t sent = stream_.send(std::span<const iovec>(pieces).first(count), fileFollows);
  if (sent > 0) {
    taken(static_cast<std::size_t>(sent));
  }
  return sent;
}

void Sender::taken(std::size_t bytes) {
  sent_ += bytes;
  backlog_ -= bytes;
  while (bytes > 0) {
    Piece& piece = queue_.front();
    const std::size_t part = std::min(bytes, piece.end - piece.begin);
    piece.begin += part;
    bytes -= part;
    pending_ -= part;
    if (piece.begin == piece.end) {
      pending_ -= piece.buffer.size() - piece.end;
      queue_.pop_front();
    }
  }
}

/// The queue is blocked: if it holds shares of the budget, the client has only so long to read on.
void Sender::watchStall() {
  const bool holdsShare =
      std::ranges::any_of(queue_, [](const Piece& piece) { return static_cast<bool>(piece.share); });
  if (holdsShare && !stall_.running()) {
    sentAtLastLook_ = sent_;
    lastProgress_ = stream_.loop().now();
    stall_.start(Limits::contendedPeriod);
  }
}

void Sender::checkStall() {
  const bool contended =
      std::ranges::any_of(queue_, [](const Piece& piece) { return piece.share.contended(); });
  const std::uint64_t progress = sent_ - std::exchange(sentAtLastLook_, sent_);
  const Io::Clock::time_point now = stream_.loop().now();
  if (progress > 0) {
    lastProgress_ = now;
  }
  if ((contended && progress < Limits::contendedProgress) || now - lastProgress_ >= Limits::stallTime) {
    fail();
  } else if (!queue_.empty()) {
    stall_.start(Limits::contendedPeriod);
  }
}

ssize_t Sender::sendRange(Piece& piece) {
  while (piece.length > 0) {
    const ssize_t sent = stream_.sendFile(piece.storage->descriptor(), piece.offset, piece.length);
    if (sent < 0) {
      return sent;
    }
    if (sent == 0) {
      // The file has become shorter than the export. The header that promised these bytes is out, so the
      // connection cannot go on.
      return -EIO;
    }
    sent_ += static_cast<std::uint64_t>(sent);
    piece.offset += static_cast<std::uint64_t>(sent);
    piece.length -= static_cast<std::uint64_t>(sent);
  }
  if (!queue_.empty() && &piece == &queue_.front()) {
    queue_.pop_front();
  }
  return 0;
}

Io::Task<void> Sender::finish() {
  while (!failed_ && !idle()) {
    Io::Signal::Waiting wait = drained_.wait();
    co_await wait;
  }
  Io::Scope::Joined joined = flushing_.join();
  co_await joined;
}

void Sender::fail() {
  if (!failed_) {
    failed_ = true;
    queue_.clear();
    pending_ = 0;
    backlog_ = 0;
    stream_.shutDown();
    drained_.notify();
  }
}

}  // namespace Nbdd
