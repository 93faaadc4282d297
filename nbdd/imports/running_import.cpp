#include "nbdd/imports/running_import.h"

#include <fmt/core.h>

#include <algorithm>
#include <iterator>
#include <system_error>
#include <utility>

#include "nbdd/log/log.h"

namespace Nbdd {

bool ImportStatus::inUse() const {
  return std::ranges::any_of(nodes, [](const NodeStatus& each) { return each.users > 0; });
}

std::string ImportStatus::node() const {
  const auto best = std::ranges::find_if(nodes, [](const NodeStatus& each) { return !each.path.empty(); });
  return best == nodes.end() ? std::string() : best->path;
}

RunningImport::RunningImport(Io::EventLoop& control, Options options, ImportEvents events)
    : control_(control),
      options_(std::move(options)),
      ear_(std::make_shared<Ear>(std::move(events))),
      device_(loop_, options_.device,
              {.connected = [this] { connected(); },
               .waiting =
                   [this](const Control::Failure& why) {
                     tell([why](const ImportEvents& listener) { listener.serverLost(why); });
                   },
               .failed =
                   [this](const Control::Failure& why) {
                     tell([why](const ImportEvents& listener) { listener.serverUnusable(why); });
                   },
               .changed = [this] { publishStatus(); }}) {
  loop_.post([this] {
    inheritNodes();
    device_.start();
  });
  thread_ = std::thread([this] { loop_.run(); });
}

RunningImport::~RunningImport() {
  ear_->listening = false;
  end(NodeEnding::forGood);
  thread_.join();
}

void RunningImport::end(NodeEnding ending) {
  if (std::exchange(ending_, true)) return;
  loop_.post([this, ending] { scope_.spawn(endAll(ending)); });
}

ImportStatus RunningImport::status() const {
  ImportStatus status;
  {
    const std::lock_guard lock(mutex_);
    status = status_;
  }
  for (std::size_t kind = 0; kind < status.nodes.size(); ++kind) {
    NodeStatus& node = status.nodes[kind];
    const auto isThere = interfaceKinds()[kind].isThere;
    if (node.path.empty() || isThere == nullptr || isThere(node.path)) continue;
    node.path.clear();
    node.users = 0;
    node.missing = "somebody has taken it away; disable the import and enable it again";
  }
  return status;
}

ImportStatus RunningImport::statusWithUsers() const {
  ImportStatus now = status();
  for (std::size_t kind = 0; kind < now.nodes.size(); ++kind) {
    const auto countUsers = interfaceKinds()[kind].countUsers;
    if (!now.nodes[kind].path.empty() && countUsers != nullptr) {
      now.nodes[kind].users = countUsers(now.nodes[kind].path);
    }
  }
  return now;
}

void RunningImport::setCompression(bool enable) {
  loop_.post([this, enable] {
    device_.setCompression(enable);
    for (const Node& node : nodes_) node.interface->setCompression(enable);
  });
}

void RunningImport::tell(std::move_only_function<void(const ImportEvents&)> event) {
  control_.post([ear = ear_, event = std::move(event)]() mutable {
    if (ear->listening) event(ear->events);
  });
}

// --- The import's thread

NodeContext RunningImport::context() {
  return {.loop = loop_,
          .device = device_,
          .directory = options_.directory,
          .identity = options_.identity,
          .changed = [this] { publishStatus(); }};
}

void RunningImport::inheritNodes() {
  for (std::size_t kind = 0; kind < interfaceKinds().size(); ++kind) {
    const auto inherit = interfaceKinds()[kind].inherit;
    if (inherit == nullptr || interfaceKinds()[kind].missing()) continue;
    if (auto interface = inherit(context())) inherited_.push_back({std::move(interface), kind});
  }
}

void RunningImport::connected() {
  if (closing_) return;
  if (!std::exchange(opened_, true)) {
    openNodes();
    publishStatus();
    if (nodes_.empty()) {
      return tell([why = nodeStatus_.back().missing.value_or("")](const ImportEvents& listener) {
        listener.nodesFailed({Control::FailureCode::importNodeFailed, why});
      });
    }
  }
  tell([](const ImportEvents& listener) { listener.serverReached(); });
}

void RunningImport::openNodes() {
  std::error_code error;
  std::filesystem::create_directories(options_.directory, error);
  for (std::size_t kind = 0; kind < interfaceKinds().size(); ++kind) {
    NodeStatus& status = nodeStatus_.emplace_back();
    status.name = interfaceKinds()[kind].name;
    status.missing = interfaceKinds()[kind].missing();
    if (error) status.missing = fmt::format("its directory cannot be made: {}", error.message());
    if (status.missing) continue;
    const auto inherited = std::ranges::find(inherited_, kind, &Node::kind);
    auto interface = inherited != inherited_.end() ? std::move(inherited->interface)
                                                   : interfaceKinds()[kind].make(context());
    if (const auto path = interface->open()) {
      status.path = path->native();
      nodes_.push_back({std::move(interface), kind});
    } else {
      status.missing = path.error().message;
      log(LogLevel::warning, "node-failed", "the node \"{}\" in {} cannot be made: {}", status.name,
          escaped(options_.directory.native()), path.error().message);
    }
  }
  inherited_.clear();
}

void RunningImport::publishStatus() {
  for (const Node& node : nodes_) nodeStatus_[node.kind].users = node.interface->users();
  const std::lock_guard lock(mutex_);
  if (device_.hasGeometry()) {
    status_.size = device_.limits().size;
    status_.readOnly = (device_.limits().transmissionFlags & Nbd::TransmissionFlag::readOnly) != 0;
  }
  status_.connections = device_.connections();
  status_.nodes = nodeStatus_;
}

Io::Task<void> RunningImport::endAll(NodeEnding ending) {
  closing_ = true;
  std::ranges::move(std::exchange(inherited_, {}), std::back_inserter(nodes_));
  // Programs see the end of the node first, and only then that their requests have failed.
  for (const Node& node : nodes_) node.interface->close(ending);
  device_.stop();
  for (const Node& node : nodes_) {
    Io::Task<void> closing = node.interface->closed();
    co_await closing;
  }
  Io::Scope::Joined stopped = device_.stopped();
  co_await stopped;
  nodes_.clear();
  std::error_code ignored;
  std::filesystem::remove(options_.directory, ignored);  // if nothing of others is in it
  tell([](const ImportEvents& listener) { listener.ended(); });
  loop_.stop();
}

}  // namespace Nbdd
