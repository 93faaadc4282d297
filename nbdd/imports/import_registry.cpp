#include "nbdd/imports/import_registry.h"

#include <fmt/core.h>

#include <algorithm>
#include <cctype>
#include <limits>
#include <string_view>
#include <system_error>
#include <utility>

#include "nbd/bytes.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/remote/address.h"

namespace Nbdd {

namespace {

using Control::FailureCode;
using Control::ImportId;
using Control::ImportState;

std::unexpected<Control::Failure> fail(FailureCode code, std::string message) {
  return std::unexpected(Control::Failure{code, std::move(message)});
}

std::uint32_t number(ImportId id) { return static_cast<std::uint32_t>(id); }

/// Whether `host` may be an address or the name of a host.
bool isHost(std::string_view host) {
  constexpr std::size_t longest = 255;
  const auto allowed = [](unsigned char each) {
    return std::isalnum(each) != 0 || std::string_view(".-_:%").contains(static_cast<char>(each));
  };
  if (host.empty() || host.size() > longest || !std::ranges::all_of(host, allowed)) return false;
  // What looks like an address must be one: no resolver would make more of it.
  const bool isName = host.find_first_not_of("0123456789.") != std::string_view::npos && !host.contains(':');
  return isName || !Remote::parseAddress(std::string(host), 1).empty();
}

Control::Variant describe(const NodeStatus& status) {
  Control::Variant entries;
  const bool active = !status.path.empty();
  entries.push_back({"state", std::string(active           ? "active"
                                          : status.missing ? "not available"
                                                           : "not active")});
  if (active) entries.push_back({"path", status.path});
  if (status.missing) entries.push_back({"needs", *status.missing});
  if (active) entries.push_back({"users", std::uint64_t{status.users}});
  return entries;
}

}  // namespace

ImportRegistry::ImportRegistry(Start start, Save save) : start_(std::move(start)), save_(std::move(save)) {}

ImportRegistry::~ImportRegistry() = default;

void ImportRegistry::restore(const SavedState& state) {
  nextId_ = state.nextImportId;
  for (const SavedImport& saved : state.imports) {
    Import restored;
    restored.saved = saved;
    restored.state = importReturnOf(saved.wanted).state;
    imports_.emplace(saved.id, std::move(restored));
  }
  for (auto position = imports_.begin(); position != imports_.end(); ++position) {
    if (importReturnOf(position->second.saved.wanted).effect == ImportEffect::connect) connect(position);
  }
}

void ImportRegistry::describe(SavedState& state) const {
  state.nextImportId = nextId_;
  state.imports.clear();
  state.imports.reserve(imports_.size());
  for (const auto& [id, subject] : imports_) state.imports.push_back(subject.saved);
}

// --- What the operator asks

Control::Result<ImportId> ImportRegistry::add(const Control::ImportDescriptor& descriptor) {
  if (imports_.size() >= Limits::imports || nextId_ > std::numeric_limits<std::uint32_t>::max()) {
    return fail(FailureCode::limitReached, "there are as many imports as the service can hold");
  }
  constexpr Control::Flags known{Control::ImportFlag::dontAnnounceStorage,
                                 Control::ImportFlag::forceReadOnly};
  if ((descriptor.flags.mask() & ~known.mask()) != 0) {
    return fail(FailureCode::invalidArgument, "the import has a flag that this service does not know");
  }
  if (!Nbd::isWireString(descriptor.name)) {
    return fail(FailureCode::invalidArgument, "an export's name is at most 4096 bytes of UTF-8");
  }
  if (!isHost(descriptor.server.address)) {
    return fail(FailureCode::invalidArgument,
                fmt::format("\"{}\" is neither an address nor the name of a host",
                            escaped(descriptor.server.address)));
  }
  const auto id = static_cast<ImportId>(nextId_);
  Import added;
  added.saved = {.id = id, .name = descriptor.name, .server = descriptor.server, .flags = descriptor.flags};
  imports_.emplace(id, std::move(added));
  ++nextId_;
  if (auto stored = save_(); !stored) {
    imports_.erase(id);
    --nextId_;
    return std::unexpected(std::move(stored.error()));
  }
  log(LogLevel::info, "import-added", "import {} added: \"{}\" of {}", number(id), escaped(descriptor.name),
      descriptor.server.address);
  return id;
}

void ImportRegistry::enable(ImportId id, Control::Answer<void> answer) {
  const auto position = find(id);
  if (!position) return answer(std::unexpected(position.error()));
  handle(*position, ImportEvent::enable, std::move(answer));
}

void ImportRegistry::disable(ImportId id, bool force, Control::Answer<void> answer) {
  const auto position = find(id);
  if (!position) return answer(std::unexpected(position.error()));
  const Import& subject = (*position)->second;
  const bool inUse = subject.run && subject.run->statusWithUsers().inUse();
  handle(*position,
         force   ? ImportEvent::disableByForce
         : inUse ? ImportEvent::disableInUse
                 : ImportEvent::disable,
         std::move(answer));
}

Control::Result<void> ImportRegistry::remove(ImportId id) {
  const auto position = find(id);
  if (!position) return std::unexpected(position.error());
  Control::Result<void> result;
  handle(*position, ImportEvent::remove,
         [&result](Control::Result<void> outcome) { result = std::move(outcome); });
  return result;
}

// --- The table, carried out

void ImportRegistry::handle(Imports::iterator position, ImportEvent event, Control::Answer<void> answer,
                            const std::optional<Control::Failure>& why) {
  Import& subject = position->second;
  const ImportTransition* const row = findTransition(subject.state, event);
  if (row == nullptr) return;  // news that is too old to matter
  if (row->answer == ImportAnswer::wrongState) {
    return answer(fail(FailureCode::wrongState,
                       fmt::format("import {} is {}: {} is not possible now", number(position->first),
                                   toText(subject.state), toText(event))));
  }
  if (row->answer == ImportAnswer::inUse) {
    return answer(fail(FailureCode::importInUse,
                       fmt::format("a program uses the node of import {}", number(position->first))));
  }
  if (!row->to) {
    Imports::node_type removed = imports_.extract(position);
    auto stored = save_();
    if (stored) {
      log(LogLevel::info, "import-removed", "import {} removed", number(removed.key()));
    } else {
      imports_.insert(std::move(removed));
    }
    return answer(std::move(stored));
  }
  if (auto stored = remember(subject, *row); !stored) {
    if (answer) return answer(std::move(stored));
    return handle(position, ImportEvent::notSaved, {}, stored.error());
  }

  if (subject.state != *row->to) {
    log(LogLevel::info, "import-state", "import {} is {}{}{}", number(position->first), toText(*row->to),
        why ? ": " : "", why ? why->message : "");
  }
  // Whoever waits for what is undone now waits in vain.
  if (row->effect == ImportEffect::end && row->answer == ImportAnswer::later) {
    answerWaiting(subject, fail(FailureCode::wrongState, "the import was disabled meanwhile"));
  }
  const bool underWay = row->effect != ImportEffect::none || subject.state == ImportState::disabling ||
                        !subject.waiting.empty();
  subject.state = *row->to;
  if (row->reason) subject.reason = row->reason;
  if (row->effect == ImportEffect::connect) subject.reason.reset();
  if (why || row->effect != ImportEffect::none || subject.state == ImportState::connected) {
    subject.trouble = why ? why->message : std::string();
  }
  if (row->answer == ImportAnswer::success || (row->answer == ImportAnswer::later && !underWay)) {
    answer({});
  } else if (row->answer == ImportAnswer::later) {
    subject.waiting.push_back(std::move(answer));
  } else if (row->answer == ImportAnswer::allSuccess) {
    answerWaiting(subject, {});
  } else if (row->answer == ImportAnswer::allFailure) {
    failWaiting(subject, *why);
  }
  if (row->effect == ImportEffect::connect) connect(position);
  if (row->effect == ImportEffect::end) {
    if (subject.run) {
      subject.run->end(NodeEnding::forGood);
    } else {
      ended(position->first);
    }
  }
}

/// Saves what the row wants to be remembered, or leaves all as it was.
Control::Result<void> ImportRegistry::remember(Import& subject, const ImportTransition& row) {
  if (!row.wanted || *row.wanted == subject.saved.wanted) return {};
  const Wanted before = std::exchange(subject.saved.wanted, *row.wanted);
  auto stored = save_();
  if (!stored) subject.saved.wanted = before;
  return stored;
}

void ImportRegistry::connect(Imports::iterator position) {
  const ImportId id = position->first;
  try {
    position->second.run = start_(
        position->second.saved,
        {.serverReached = [this, id] { reached(id); },
         .serverLost = [this, id](const Control::Failure& why) { lost(id, why); },
         .serverUnusable =
             [this, id](const Control::Failure& why) { happened(id, ImportEvent::serverUnusable, why); },
         .nodesFailed = [this,
                         id](const Control::Failure& why) { happened(id, ImportEvent::nodesFailed, why); },
         .ended = [this, id] { ended(id); }});
  } catch (const std::system_error& error) {
    happened(id, ImportEvent::nodesFailed,
             Control::Failure{FailureCode::limitReached,
                              fmt::format("the system has no thread for the import ({})", error.what())});
  }
}

void ImportRegistry::happened(ImportId id, ImportEvent event, const std::optional<Control::Failure>& why) {
  const auto position = imports_.find(id);
  if (position != imports_.end()) handle(position, event, {}, why);
}

void ImportRegistry::reached(ImportId id) {
  const auto position = imports_.find(id);
  if (position == imports_.end()) return;
  if (position->second.run) position->second.size = position->second.run->status().size;
  handle(position, ImportEvent::serverReached, {});
}

void ImportRegistry::lost(ImportId id, const Control::Failure& why) {
  const auto position = imports_.find(id);
  if (position == imports_.end()) return;
  const bool awaited = position->second.state == ImportState::connecting && !position->second.waiting.empty();
  handle(position, awaited ? ImportEvent::enableFailed : ImportEvent::serverLost, {}, why);
}

void ImportRegistry::ended(ImportId id) {
  const auto position = imports_.find(id);
  if (position == imports_.end()) return;
  position->second.run.reset();
  // The trouble that led here stays to be told.
  const std::string trouble = position->second.trouble;
  handle(position, ImportEvent::ended, {});
  position->second.trouble = trouble;
  checkClosed();
}

void ImportRegistry::answerWaiting(Import& subject, const Control::Result<void>& result) {
  for (Control::Answer<void>& answer : std::exchange(subject.waiting, {})) answer(result);
}

/// Whoever waits is told of `why` when the import has ended: then he finds it as he expects it.
void ImportRegistry::failWaiting(Import& subject, const Control::Failure& why) {
  for (Control::Answer<void>& answer : subject.waiting) {
    answer = [answer = std::move(answer), why](const Control::Result<void>& /*ended*/) mutable {
      answer(std::unexpected(why));
    };
  }
}

void ImportRegistry::close(std::move_only_function<void()> done) {
  closed_ = std::move(done);
  for (const auto& [id, subject] : imports_) {
    if (subject.run) subject.run->end(NodeEnding::untilRestart);
  }
  checkClosed();
}

void ImportRegistry::checkClosed() {
  const bool running =
      std::ranges::any_of(imports_, [](const auto& entry) { return entry.second.run != nullptr; });
  if (closed_ && !running) std::exchange(closed_, {})();
}

// --- What the operator sees

std::vector<ImportId> ImportRegistry::list() const {
  std::vector<ImportId> ids;
  ids.reserve(imports_.size());
  for (const auto& [id, subject] : imports_) ids.push_back(id);
  return ids;
}

Control::Result<Control::ImportInfo> ImportRegistry::info(ImportId id) const {
  const auto position = find(id);
  if (!position) return std::unexpected(position.error());
  const Import& subject = (*position)->second;
  Control::ImportInfo info;
  info.id = id;
  info.descriptor = {
      .name = subject.saved.name, .server = subject.saved.server, .flags = subject.saved.flags};
  info.state = subject.state;
  info.size = subject.size;
  if (subject.run) {
    const ImportStatus status = subject.run->status();
    info.node = status.node();
    info.connections = static_cast<std::uint32_t>(status.connections);
  }
  info.disableReason = subject.reason;
  info.description = description(subject);
  return info;
}

std::string ImportRegistry::description(const Import& subject) {
  switch (subject.state) {
    case ImportState::connecting:
      return subject.trouble.empty() ? "connecting to the server"
                                     : "waiting for the server: " + subject.trouble;
    case ImportState::connected:
      return subject.run && subject.run->status().readOnly ? "connected, can only be read" : "connected";
    default:
      return subject.trouble;
  }
}

Control::Result<Control::Variant> ImportRegistry::nodeInterfaces(ImportId id) const {
  const auto position = find(id);
  if (!position) return std::unexpected(position.error());
  const Import& subject = (*position)->second;
  std::vector<NodeStatus> nodes;
  if (subject.run) nodes = subject.run->statusWithUsers().nodes;
  if (nodes.empty()) {
    for (const InterfaceKind& kind : interfaceKinds()) {
      NodeStatus& status = nodes.emplace_back();
      status.name = kind.name;
      status.missing = kind.missing();
    }
  }
  Control::Variant interfaces;
  for (const NodeStatus& status : nodes) {
    interfaces.push_back({std::string(status.name), Nbdd::describe(status)});
  }
  return interfaces;
}

std::size_t ImportRegistry::activeCount() const {
  return static_cast<std::size_t>(std::ranges::count_if(imports_, [](const auto& entry) {
    return entry.second.state != ImportState::added && entry.second.state != ImportState::disabled;
  }));
}

Control::Result<ImportRegistry::Imports::iterator> ImportRegistry::find(ImportId id) {
  const auto position = imports_.find(id);
  if (position == imports_.end()) {
    return fail(FailureCode::noSuchImport, fmt::format("there is no import with ID {}", number(id)));
  }
  return position;
}

Control::Result<ImportRegistry::Imports::const_iterator> ImportRegistry::find(ImportId id) const {
  const auto position = imports_.find(id);
  if (position == imports_.end()) {
    return fail(FailureCode::noSuchImport, fmt::format("there is no import with ID {}", number(id)));
  }
  return position;
}

void ImportRegistry::setCompression(bool enable) {
  for (const auto& [id, subject] : imports_) {
    if (subject.run) subject.run->setCompression(enable);
  }
}

}  // namespace Nbdd
