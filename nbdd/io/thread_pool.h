#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace Nbdd::Io {

/// Threads for calls that block. They are started as work comes, up to a limit, so that a cold disk sees many
/// requests at once; jobs beyond that wait in order. Any thread may submit.
class ThreadPool {
 public:
  explicit ThreadPool(std::size_t maximumThreads) : maximumThreads_(maximumThreads) {}
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;
  /// Runs what was submitted, then ends the threads.
  ~ThreadPool();

  void submit(std::move_only_function<void()> job);

 private:
  void work();

  const std::size_t maximumThreads_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::move_only_function<void()>> jobs_;
  std::vector<std::thread> threads_;
  std::size_t idle_ = 0;
  bool ending_ = false;
};

}  // namespace Nbdd::Io
