#include "nbdd/io/file_io.h"

#include <fcntl.h>
#include <liburing.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <exception>
#include <utility>
#include <vector>

namespace Nbdd::Io {

namespace {

template <class Call>
int resultOf(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0) {
      return static_cast<int>(result);
    }
    if (errno != EINTR) {
      return -errno;
    }
  }
}

/// Completed operations of one loop, until the loop resumes their coroutines.
class Completions {
 public:
  void add(FileOperation& operation) { completed_.push_back(&operation); }

  void resumeAll() {
    std::vector<FileOperation*> completed;
    completed.swap(completed_);
    for (const FileOperation* operation : completed) {
      operation->waiter.resume();
    }
    // Keep the memory for the next batch, unless a coroutine has completed something meanwhile.
    if (completed_.empty()) {
      completed.clear();
      completed_.swap(completed);
    }
  }

 private:
  std::vector<FileOperation*> completed_;
};

/// Blocking calls on the threads of the pool. The last completion of a burst wakes the loop once.
class PoolFileIo final : public FileIo {
 public:
  PoolFileIo(EventLoop& loop, ThreadPool& pool) : loop_(loop), pool_(pool) {}
  ~PoolFileIo() override {
    if (running_ != 0) {
      std::terminate();
    }
  }

  std::string_view name() const override { return "threads"; }

  void start(FileOperation& operation) override {
    ++running_;
    pool_.submit([this, &operation] {
      operation.result = operation.runBlocking();
      bool first = false;
      {
        const std::lock_guard lock(mutex_);
        first = completed_.empty();
        completed_.push_back(&operation);
        if (first) {
          loop_.post([this] { reap(); });
        }
      }
    });
  }

 private:
  void reap() {
    Completions completions;
    {
      const std::lock_guard lock(mutex_);
      for (FileOperation* operation : completed_) {
        completions.add(*operation);
        --running_;
      }
      completed_.clear();
    }
    completions.resumeAll();
  }

  EventLoop& loop_;
  ThreadPool& pool_;
  std::size_t running_ = 0;  // the loop's thread
  std::mutex mutex_;
  std::vector<FileOperation*> completed_;  // guarded by mutex_
};

/// io_uring, told of completions by an eventfd that the loop watches. What one turn of the loop starts is
/// submitted with one system call at the end of the turn.
class RingFileIo final : public FileIo, private EventHandler {
 public:
  /// Null if the kernel refuses.
  static std::unique_ptr<RingFileIo> make(EventLoop& loop, ThreadPool& pool) {
    auto engine = std::unique_ptr<RingFileIo>(new RingFileIo(loop, pool));
    return engine->open() ? std::move(engine) : nullptr;
  }

  ~RingFileIo() override {
    if (running_ != 0) {
      std::terminate();
    }
    if (open_) {
      loop_.unwatch(event_.number(), *this);
      io_uring_queue_exit(&ring_);
    }
  }

  std::string_view name() const override { return "io_uring"; }

  void start(FileOperation& operation) override {
    if (operation.kind() == FileOperation::Kind::call) {
      pool_.start(operation);
      return;
    }
    waiting_.push_back(&operation);
    if (!submitting_) {
      submitting_ = true;
      loop_.defer([this] { submit(); });
    }
  }

 private:
  // The completion queue holds twice what is ever in flight, so it cannot overflow.
  static constexpr unsigned int submissionEntries = 256;
  static constexpr unsigned int completionEntries = 4096;
  static constexpr std::size_t maximumRunning = completionEntries / 2;

  RingFileIo(EventLoop& loop, ThreadPool& pool) : loop_(loop), pool_(loop, pool) {}

  bool open() {
    // With DEFER_TASKRUN (Linux 6.1) completions are worked off when we ask for them, many at a time.
    for (const unsigned int flags :
         {IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN, IORING_SETUP_COOP_TASKRUN, 0U}) {
      io_uring_params parameters{};
      parameters.flags = flags | IORING_SETUP_CQSIZE | IORING_SETUP_CLAMP;
      parameters.cq_entries = completionEntries;
      if (io_uring_queue_init_params(submissionEntries, &ring_, &parameters) == 0) {
        open_ = true;
        deferred_ = (flags & IORING_SETUP_DEFER_TASKRUN) != 0;
        break;
      }
    }
    event_ = FileDescriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!open_ || !event_ || !supportsOurOperations() ||
        io_uring_register_eventfd(&ring_, event_.number()) != 0 ||
        loop_.watch(event_.number(), EPOLLIN | EPOLLET, *this) != 0) {
      if (open_) {
        io_uring_queue_exit(&ring_);
        open_ = false;
      }
      return false;
    }
    return true;
  }

  bool supportsOurOperations() {
    const std::unique_ptr<io_uring_probe, void (*)(io_uring_probe*)> probe(io_uring_get_probe_ring(&ring_),
                                                                           &io_uring_free_probe);
    if (!probe) {
      return false;
    }
    for (const int operation :
         {IORING_OP_READ, IORING_OP_WRITE, IORING_OP_FSYNC, IORING_OP_FALLOCATE, IORING_OP_FADVISE}) {
      if (io_uring_opcode_supported(probe.get(), operation) == 0) {
        return false;
      }
    }
    return true;
  }

  void submit() {
    submitting_ = false;
    while (!waiting_.empty() && running_ < maximumRunning) {
      io_uring_sqe* entry = io_uring_get_sqe(&ring_);
      if (entry == nullptr) {
        if (!flush()) {
          break;
        }
        continue;
      }
      FileOperation& operation = *waiting_.front();
      waiting_.pop_front();
      prepare(*entry, operation);
      io_uring_sqe_set_data(entry, &operation);
      ++running_;
    }
    flush();
    if (!waiting_.empty() && running_ == 0) {
      // Nothing in flight will bring us back here, so come back by ourselves.
      submitting_ = true;
      loop_.yield([this] { submit(); });
    }
  }

  /// Hands the prepared entries to the kernel. False: it takes none now (short of memory, or completions to
  /// be reaped first); they stay prepared and go out with the next submission.
  bool flush() {
    const int submitted = io_uring_submit(&ring_);
    if (submitted < 0 || io_uring_sq_ready(&ring_) != 0) {
      if (!submitting_) {
        submitting_ = true;
        loop_.yield([this] { submit(); });
      }
      return submitted > 0;
    }
    return true;
  }

  static void prepare(io_uring_sqe& entry, const FileOperation& operation) {
    const auto length = static_cast<unsigned int>(operation.length());
    switch (operation.kind()) {
      case FileOperation::Kind::read:
        io_uring_prep_read(&entry, operation.file(), operation.buffer(), length, operation.offset());
        break;
      case FileOperation::Kind::write:
        io_uring_prep_write(&entry, operation.file(), operation.buffer(), length, operation.offset());
        break;
      case FileOperation::Kind::syncData:
        io_uring_prep_fsync(&entry, operation.file(), IORING_FSYNC_DATASYNC);
        break;
      case FileOperation::Kind::allocate:
        io_uring_prep_fallocate(&entry, operation.file(), operation.mode(),
                                static_cast<off_t>(operation.offset()),
                                static_cast<off_t>(operation.length()));
        break;
      case FileOperation::Kind::willNeed:
        io_uring_prep_fadvise(&entry, operation.file(), operation.offset(),
                              static_cast<off_t>(operation.length()), POSIX_FADV_WILLNEED);
        break;
      case FileOperation::Kind::call:
        std::terminate();
    }
  }

  void onEvents(std::uint32_t /*events*/) override {
    // Watched edge-triggered: each completion signals anew, so the eventfd need not be read.
    if (deferred_) {
      io_uring_get_events(&ring_);
    }
    unsigned int head = 0;
    unsigned int count = 0;
    io_uring_cqe* completion = nullptr;
    io_uring_for_each_cqe(&ring_, head, completion) {
      auto* operation = static_cast<FileOperation*>(io_uring_cqe_get_data(completion));
      operation->result = completion->res;
      completions_.add(*operation);
      ++count;
    }
    io_uring_cq_advance(&ring_, count);
    running_ -= count;
    completions_.resumeAll();
    if (!waiting_.empty() && !submitting_) {
      submit();
    }
  }

  EventLoop& loop_;
  PoolFileIo pool_;
  io_uring ring_{};
  bool open_ = false;
  bool deferred_ = false;  // the kernel works completions off only when asked
  bool submitting_ = false;
  FileDescriptor event_;
  std::size_t running_ = 0;
  std::deque<FileOperation*> waiting_;
  Completions completions_;
};

}  // namespace

int FileOperation::runBlocking() {
  const auto position = static_cast<off_t>(offset_);
  const auto extent = static_cast<off_t>(length_);
  switch (kind_) {
    case Kind::read:
      return resultOf([&] { return ::pread(file_, buffer_, length_, position); });
    case Kind::write:
      return resultOf([&] { return ::pwrite(file_, buffer_, length_, position); });
    case Kind::syncData:
      return resultOf([&] { return ::fdatasync(file_); });
    case Kind::allocate:
      return resultOf([&] { return ::fallocate(file_, mode_, position, extent); });
    case Kind::willNeed:
      return -::posix_fadvise(file_, position, extent, POSIX_FADV_WILLNEED);
    case Kind::call:
      return function_();
  }
  std::terminate();
}

std::unique_ptr<FileIo> makeFileIo(EventLoop& loop, ThreadPool& pool, bool allowRing) {
  if (allowRing) {
    if (std::unique_ptr<FileIo> engine = RingFileIo::make(loop, pool)) {
      return engine;
    }
  }
  return std::make_unique<PoolFileIo>(loop, pool);
}

}  // namespace Nbdd::Io
