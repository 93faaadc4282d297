#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "control/failure.h"
#include "nbdd/imports/node_interface.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/remote/device.h"

namespace Nbdd {

/// What an enabled import looks like from outside at one moment.
struct ImportStatus {
  std::uint64_t size = 0;  ///< bytes; 0 until the server was reached
  bool readOnly = false;
  std::size_t connections = 0;
  std::vector<NodeStatus> nodes;  ///< in the order of interfaceKinds()

  /// Whether a program has one of the nodes open.
  bool inUse() const;
  /// The path of the best node; empty if there is none.
  std::string node() const;
};

/// An enabled import, as the registry sees it. The thread of the control loop.
class ImportRun {
 public:
  virtual ~ImportRun() = default;

  /// Takes the nodes away and closes the connections, whatever programs and server do; the event `ended`
  /// follows soon.
  virtual void end(NodeEnding ending) = 0;
  virtual ImportStatus status() const = 0;
  /// The status, with all users of the nodes: takes some milliseconds.
  virtual ImportStatus statusWithUsers() const = 0;
  /// Compresses transfers from now on, or does not.
  virtual void setCompression(bool enable) = 0;
};

/// What a run tells, on the control loop's thread, in the order in which it happens; none after `ended`, and
/// none after the run was destroyed.
struct ImportEvents {
  std::function<void()> serverReached;
  std::function<void(Control::Failure)> serverLost;
  std::function<void(Control::Failure)> serverUnusable;
  std::function<void(Control::Failure)> nodesFailed;
  std::function<void()> ended;
};

/// An import while it is enabled: the connections to its server and its nodes, on a thread of their own.
///
/// The thread that makes it calls all functions, and runs the loop on which the events are told.
class RunningImport final : public ImportRun {
 public:
  struct Options {
    Remote::Device::Options device;
    std::filesystem::path directory;  ///< where its nodes go; made if it is not there
    std::string identity;             ///< as NodeContext::identity
  };

  /// Starts the thread and begins to connect. Throws std::system_error if the system has no thread for it.
  RunningImport(Io::EventLoop& control, Options options, ImportEvents events);
  /// Ends it as `end` does, and waits.
  ~RunningImport() override;
  RunningImport(const RunningImport&) = delete;
  RunningImport& operator=(const RunningImport&) = delete;

  void end(NodeEnding ending) override;
  ImportStatus status() const override;
  ImportStatus statusWithUsers() const override;
  void setCompression(bool enable) override;

 private:
  /// What the events are told to, for as long as somebody listens. The control loop's thread.
  struct Ear {
    ImportEvents events;
    bool listening = true;
  };
  struct Node {
    std::unique_ptr<NodeInterface> interface;
    std::size_t kind = 0;
  };

  // The import's thread:
  NodeContext context();
  void inheritNodes();
  void connected();
  void openNodes();
  void publishStatus();
  Io::Task<void> endAll(NodeEnding ending);

  /// Any thread: has the control loop call `event` with the ear's events.
  void tell(std::move_only_function<void(const ImportEvents&)> event);

  Io::EventLoop& control_;
  const Options options_;
  const std::shared_ptr<Ear> ear_;
  bool ending_ = false;
  Io::EventLoop loop_;

  mutable std::mutex mutex_;
  ImportStatus status_;  // guarded by mutex_

  // The import's thread:
  Remote::Device device_;
  std::vector<Node> inherited_;  // not opened yet
  std::vector<Node> nodes_;
  std::vector<NodeStatus> nodeStatus_;
  bool opened_ = false;
  bool closing_ = false;
  Io::Scope scope_;

  std::thread thread_;
};

}  // namespace Nbdd
