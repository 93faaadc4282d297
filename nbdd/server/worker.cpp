#include "nbdd/server/worker.h"

#include <signal.h>

#include <future>
#include <utility>

#include "nbdd/limits.h"
#include "nbdd/server/session.h"

namespace Nbdd {

Worker::Worker(ExportTable& table, Pools pools, bool allowRing, const WorkerEvents& events)
    : table_(table),
      pools_(pools),
      events_(events),
      inputMemory_(buffers_.take(Limits::inputBatch)),
      replyMemory_(buffers_.take(Limits::replyBatch)),
      payloadMemory_(loop_, Limits::workerPayload) {
  std::promise<void> started;
  std::future<void> ready = started.get_future();
  thread_ = std::thread([this, allowRing, &started] { run(allowRing, [&started] { started.set_value(); }); });
  ready.wait();
}

Worker::~Worker() { finish(); }

void Worker::finish() {
  if (!thread_.joinable()) {
    return;
  }
  loop_.post([this] {
    ending_ = true;
    for (const auto& [id, session] : sessions_) {
      session->abort();
    }
    stopping_.spawn(stopWhenDone());
  });
  thread_.join();
}

Io::Task<void> Worker::stopWhenDone() {
  Io::Scope::Joined joined = scope_.join();
  co_await joined;
  loop_.stop();
}

void Worker::run(bool allowRing, std::function<void()> started) {
  // sendfile has no flag that spares us the signal when the client is gone; the error says it all.
  sigset_t brokenPipe;
  ::sigemptyset(&brokenPipe);
  ::sigaddset(&brokenPipe, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
  files_ = Io::makeFileIo(loop_, pools_.storage, allowRing);
  computing_ = Io::makeFileIo(loop_, pools_.computing, false);
  engineName_ = files_->name();
  started();
  loop_.run();
  computing_.reset();
  files_.reset();
}

void Worker::adopt(SessionId id, Io::FileDescriptor socket, Control::Endpoint peer) {
  sessionCount_.fetch_add(1, std::memory_order_relaxed);
  loop_.post([this, id, socket = std::move(socket), peer = std::move(peer)]() mutable {
    auto session = std::make_unique<Session>(*this, id, std::move(socket), std::move(peer));
    Session& started = *session;
    sessions_.emplace(id, std::move(session));
    scope_.spawn(started.run());
    if (ending_) {
      started.abort();
    }
  });
}

void Worker::endSession(SessionId id) {
  loop_.post([this, id] {
    if (const auto session = sessions_.find(id); session != sessions_.end()) {
      session->second->end();
    }
  });
}

void Worker::endAllSessions() {
  loop_.post([this] {
    for (const auto& [id, session] : sessions_) {
      session->end();
    }
  });
}

void Worker::hurrySession(SessionId id) {
  loop_.post([this, id] {
    if (const auto session = sessions_.find(id); session != sessions_.end()) {
      session->second->hurry();
    }
  });
}

void Worker::wakeSession(SessionId id) {
  loop_.post([this, id] {
    if (const auto session = sessions_.find(id); session != sessions_.end()) {
      session->second->wake();
    }
  });
}

void Worker::sessionEnded(SessionId id) {
  loop_.defer([this, id] {
    sessions_.erase(id);
    sessionCount_.fetch_sub(1, std::memory_order_relaxed);
    events_.sessionEnded();
  });
}

}  // namespace Nbdd
