#include "tests/simulation/world/file_engine.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>
#include <vector>

#include "tests/simulation/world/disk.h"

namespace Simulation {

namespace {

using Nbdd::Io::FileOperation;

class FileEngine final : public Nbdd::Io::FileIo {
 public:
  FileEngine(World& world, Nbdd::Io::EventLoop& loop) : world_(world), loop_(loop) {}
  ~FileEngine() override {
    if (running_ != 0) {
      world_.impossible("an engine ends while operations are running");
    }
  }

  std::string_view name() const override { return "simulation"; }

  void complete(FileOperation& operation, int result) {
    operation.result = result;
    completed_.push_back(&operation);
    if (completed_.size() == 1) {
      loop_.post([this] { reap(); });
    }
  }

 protected:
  void start(FileOperation& operation) override;

 private:
  void reap() {
    for (const FileOperation* operation : std::exchange(completed_, {})) {
      --running_;
      operation->waiter.resume();
    }
  }

  World& world_;
  Nbdd::Io::EventLoop& loop_;
  std::size_t running_ = 0;
  std::vector<FileOperation*> completed_;
};

/// An operation between its start and its completion: first it takes effect, then the loop is told.
class Operation final : public Work {
 public:
  Operation(World& world, FileEngine& engine, FileOperation& operation)
      : world_(world), engine_(engine), operation_(operation) {}

  bool advance() override {
    if (!result_) {
      result_ = takeEffect();
      return false;
    }
    if (std::exchange(syncRuns_, false)) {
      result_ = endSync();
      return false;
    }
    engine_.complete(operation_, *result_);
    return true;
  }

 private:
  int takeEffect() {
    const FileOperation::Kind kind = operation_.kind();
    const bool transfer = kind == FileOperation::Kind::read || kind == FileOperation::Kind::write;
    if (kind != FileOperation::Kind::call && world_.random().chance(world_.faults().interrupted)) {
      return transfer && world_.random().chance(500) ? -EAGAIN : -EINTR;
    }
    if (kind == FileOperation::Kind::syncData) {
      if (world_.bug() == Bug::noSync) {
        return 0;
      }
      syncBegun_ = disk().beginSync();
      syncRuns_ = true;
      return 0;
    }
    const int result = operation_.runBlocking();
    if (world_.bug() == Bug::shortWrite && kind == FileOperation::Kind::write && result > 0) {
      return static_cast<int>(operation_.length());
    }
    if (world_.bug() == Bug::staleRead && kind == FileOperation::Kind::read && result == -EIO) {
      return static_cast<int>(operation_.length());
    }
    return result;
  }

  int endSync() {
    const int result = disk().endSync(syncBegun_);
    return world_.bug() == Bug::syncSwallowed ? 0 : result;
  }

  Disk& disk() const { return world_.find<File>(operation_.file())->disk; }

  World& world_;
  FileEngine& engine_;
  FileOperation& operation_;
  std::optional<int> result_;
  std::size_t syncBegun_ = 0;
  bool syncRuns_ = false;
};

void FileEngine::start(FileOperation& operation) {
  ++running_;
  world_.begin(std::make_unique<Operation>(world_, *this, operation));
}

class Job final : public Work {
 public:
  explicit Job(std::move_only_function<void()> function) : function_(std::move(function)) {}
  bool advance() override {
    function_();
    return true;
  }

 private:
  std::move_only_function<void()> function_;
};

}  // namespace

std::unique_ptr<Nbdd::Io::FileIo> makeFileEngine(World& world, Nbdd::Io::EventLoop& loop) {
  return std::make_unique<FileEngine>(world, loop);
}

std::unique_ptr<Work> makeJob(std::move_only_function<void()> function) {
  return std::make_unique<Job>(std::move(function));
}

}  // namespace Simulation
