#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "control/records.h"
#include "nbdd/io/buffer.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/io/file_io.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/thread_pool.h"
#include "nbdd/server/conversation.h"
#include "nbdd/server/export_table.h"
#include "nbdd/server/memory_budget.h"

namespace Nbdd {

class Session;

/// What workers tell the rest of the service; called on the worker's thread.
struct WorkerEvents {
  std::function<void()> sessionEnded;
  std::function<void(Control::ExportId, int error)> storageFailed;
  /// What the private extension tells; without one it is not spoken.
  const ExtensionService* extension = nullptr;
};

/// One thread with an event loop, and the sessions that live on it.
class Worker {
 public:
  /// Threads that the workers share.
  struct Pools {
    Io::ThreadPool& storage;
    Io::ThreadPool& handshakes;  // the arithmetic of TLS
    Io::ThreadPool& computing;   // compression
  };

  /// Starts the thread. `table`, the pools and `events` outlive it.
  Worker(ExportTable& table, Pools pools, bool allowRing, const WorkerEvents& events);
  /// As `finish`.
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  /// Ends all sessions hard, awaits their running requests, and joins the thread. Other workers may still
  /// post here until all have finished: none of them may be destroyed before. The thread that made it.
  void finish();

  // Any thread:

  /// Takes over an accepted connection.
  void adopt(SessionId id, Io::FileDescriptor socket, Control::Endpoint peer);
  /// Lets the session finish its running requests, then ends it. Unknown ids are ignored.
  void endSession(SessionId id);
  void endAllSessions();
  /// Gives a session whose client has ended its side a deadline. Unknown ids are ignored.
  void hurrySession(SessionId id);
  /// Tells a session that what it waits for to attach may have come about.
  void wakeSession(SessionId id);
  std::size_t sessionCount() const { return sessionCount_.load(std::memory_order_relaxed); }
  std::string_view storageEngine() const { return engineName_; }
  void post(Io::Function function) { loop_.post(std::move(function)); }

  // The worker's thread:

  Io::EventLoop& loop() { return loop_; }
  Io::FileIo& files() { return *files_; }
  /// For calls that keep a processor busy.
  Io::FileIo& computing() { return *computing_; }
  Io::BufferPool& buffers() { return buffers_; }
  ExportTable& table() { return table_; }
  Io::ThreadPool& handshakes() { return pools_.handshakes; }
  MemoryBudget& payloadMemory() { return payloadMemory_; }
  const WorkerEvents& events() const { return events_; }
  /// Tasks that no session owns: they may outlive the one that began them.
  Io::Scope& scope() { return scope_; }

  /// Memory that all sessions share in turn, so that an idle connection needs none: nothing in it survives a
  /// suspension.
  std::span<std::byte> inputMemory() { return inputMemory_.bytes(); }
  std::span<std::byte> replyMemory() { return replyMemory_.bytes(); }

  /// The session's last act; it is destroyed at the end of the turn.
  void sessionEnded(SessionId id);

 private:
  void run(bool allowRing, std::function<void()> started);
  Io::Task<void> stopWhenDone();

  ExportTable& table_;
  const Pools pools_;
  const WorkerEvents& events_;
  Io::EventLoop loop_;
  std::atomic<std::size_t> sessionCount_ = 0;
  std::string_view engineName_;

  // The worker's thread:
  Io::BufferPool buffers_;
  Io::Buffer inputMemory_;
  Io::Buffer replyMemory_;
  MemoryBudget payloadMemory_;
  std::unique_ptr<Io::FileIo> files_;
  std::unique_ptr<Io::FileIo> computing_;
  Io::Scope scope_;
  Io::Scope stopping_;
  std::unordered_map<SessionId, std::unique_ptr<Session>> sessions_;
  bool ending_ = false;

  std::thread thread_;
};

}  // namespace Nbdd
