#include "nbdd/io/thread_pool.h"

#include <system_error>
#include <utility>

namespace Nbdd::Io {

ThreadPool::~ThreadPool() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

void ThreadPool::submit(std::move_only_function<void()> job) {
  const std::lock_guard lock(mutex_);
  jobs_.push_back(std::move(job));
  if (jobs_.size() <= idle_) {
    wake_.notify_one();
  } else if (threads_.size() < maximumThreads_) {
    try {
      threads_.emplace_back([this] { work(); });
    } catch (const std::system_error&) {
      // The system is short of threads. Those that run will get to the job; without any there is no way on.
      if (threads_.empty()) {
        throw;
      }
    }
  }
}

void ThreadPool::work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    ++idle_;
    wake_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
    --idle_;
    if (jobs_.empty()) {
      return;
    }
    std::move_only_function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job();
    job = nullptr;
    lock.lock();
  }
}

}  // namespace Nbdd::Io
