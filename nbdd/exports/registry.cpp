#include "nbdd/exports/registry.h"

#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <system_error>
#include <thread>
#include <utility>

#include "nbdd/exports/identity.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"

namespace Nbdd {

namespace {

using Control::ExportId;
using Control::ExportReason;
using Control::ExportState;
using Control::FailureCode;

std::unexpected<Control::Failure> fail(FailureCode code, std::string message) {
  return std::unexpected(Control::Failure{code, std::move(message)});
}

std::uint32_t number(ExportId id) { return static_cast<std::uint32_t>(id); }

ExportReason reasonFor(FailureCode code) {
  return code == FailureCode::nodeAccessDenied || code == FailureCode::nodeReadOnly
             ? ExportReason::accessDenied
             : ExportReason::accessError;
}

/// An event that the table does not know of in this state is a mistake of ours, not of the operator.
const ExportTransition& rowFor(ExportState state, ExportEvent event) {
  const ExportTransition* const row = findTransition(state, event);
  if (row == nullptr) std::abort();
  return *row;
}

}  // namespace

ExportRegistry::ExportRegistry(ExportPublisher& publisher, Save save)
    : publisher_(publisher), save_(std::move(save)) {}

void ExportRegistry::restore(const SavedState& state) {
  nextId_ = state.nextExportId;
  for (const SavedExport& saved : state.exports) {
    Export restored;
    restored.saved = saved;
    restored.state = returnOf(saved.wanted).state;
    restored.counters = std::make_shared<TransferCounters>();
    byName_.emplace(saved.name, saved.id);
    byPath_.emplace(saved.node, saved.id);
    const auto identity = identifyNode(saved.node);
    Export& subject = exports_.emplace(saved.id, std::move(restored)).first->second;
    if (identity && ownerOf(*identity, &subject) == nullptr) remember(subject, *identity);
  }
  const auto patience = std::chrono::steady_clock::now() + Limits::restorePatience;
  for (auto position = exports_.begin(); position != exports_.end(); ++position) {
    if (returnOf(position->second.saved.wanted).effect != ExportEffect::openNode) continue;
    awaitNode(position->second, patience);
    static_cast<void>(serve(position));  // a failure is the export's state from now on, and in the log
  }
}

// A predecessor that was killed may still hold its nodes: the kernel first finishes the requests of its
// io_uring, and only then lets go of its files.
void ExportRegistry::awaitNode(Export& subject, std::chrono::steady_clock::time_point deadline) {
  bool told = false;
  for (;;) {
    const auto opened = openUnlessExported(subject);
    if (opened || opened.error().code != FailureCode::nodeInUse) return;
    if (std::chrono::steady_clock::now() >= deadline) return;
    if (!std::exchange(told, true)) {
      log(LogLevel::info, "node-awaited", "export {} waits for its node, which is in use",
          number(subject.saved.id));
    }
    std::this_thread::sleep_for(Limits::lockRetry);
  }
}

void ExportRegistry::describe(SavedState& state) const {
  state.nextExportId = nextId_;
  state.exports.clear();
  state.exports.reserve(exports_.size());
  for (const auto& [id, subject] : exports_) state.exports.push_back(subject.saved);
}

Control::Result<ExportId> ExportRegistry::add(const Control::ExportDescriptor& descriptor) {
  if (exports_.size() >= Limits::exports || nextId_ > std::numeric_limits<std::uint32_t>::max()) {
    return fail(FailureCode::limitReached, "there are as many exports as the service can hold");
  }
  constexpr Control::Flags known{Control::ExportFlag::readOnly};
  if ((descriptor.flags.mask() & ~known.mask()) != 0) {
    return fail(FailureCode::invalidArgument, "the export has a flag that this service does not know");
  }
  const auto identity = identifyNode(descriptor.node);
  if (!identity) return std::unexpected(identity.error());
  const Export* owner = ownerOf(*identity, nullptr);
  if (const auto samePath = byPath_.find(descriptor.node); owner == nullptr && samePath != byPath_.end()) {
    owner = &exports_.at(samePath->second);
  }
  if (owner != nullptr) {
    return fail(
        FailureCode::nodeAlreadyExported,
        fmt::format("{} is exported already, with ID {}", escaped(descriptor.node), number(owner->saved.id)));
  }
  const auto opened = open(descriptor.node, *identity, descriptor.flags.has(Control::ExportFlag::readOnly));
  if (!opened) return std::unexpected(opened.error());
  auto saved = describeNew(descriptor, *opened);
  if (!saved) return std::unexpected(std::move(saved.error()));

  const ExportId id = saved->id;
  Export added;
  added.saved = std::move(*saved);
  added.counters = std::make_shared<TransferCounters>();
  Export& subject = exports_.emplace(id, std::move(added)).first->second;
  ++nextId_;
  if (auto stored = save_(); !stored) {
    exports_.erase(id);
    --nextId_;
    return std::unexpected(std::move(stored.error()));
  }
  byName_.emplace(subject.saved.name, id);
  byPath_.emplace(subject.saved.node, id);
  remember(subject, opened->identity);
  log(LogLevel::info, "export-added", "export {} added: {} as \"{}\"", number(id),
      escaped(subject.saved.node), escaped(subject.saved.name));
  return id;
}

Control::Result<SavedExport> ExportRegistry::describeNew(const Control::ExportDescriptor& descriptor,
                                                         const OpenedNode& opened) const {
  Elements elements = elementsOf(opened.node);
  if (descriptor.elemSize != 0) {
    const bool fits = opened.node.size % descriptor.elemSize == 0;
    elements = {opened.node.size / descriptor.elemSize, descriptor.elemSize};
    if (!fits) return fail(FailureCode::invalidArgument, "the element size does not divide the node's size");
  }
  if (descriptor.elemCount != 0 && descriptor.elemCount != elements.count) {
    return fail(FailureCode::invalidArgument, "element count and size do not make up the node's size");
  }
  SavedExport saved;
  if (descriptor.name && !descriptor.name->empty()) {
    saved.name = *descriptor.name;
    if (!isExportName(saved.name)) {
      return fail(FailureCode::invalidArgument,
                  "an export's name is at most 4096 bytes of UTF-8 without control characters");
    }
    if (byName_.contains(saved.name)) {
      return fail(FailureCode::nameInUse,
                  fmt::format("another export is called \"{}\"", escaped(saved.name)));
    }
  } else {
    saved.name =
        chooseExportName(descriptor.node, [&](const std::string& name) { return byName_.contains(name); });
  }
  saved.id = static_cast<ExportId>(nextId_);
  saved.node = descriptor.node;
  saved.flags = descriptor.flags;
  saved.uuid = makeUuid();
  saved.elemCount = elements.count;
  saved.elemSize = elements.size;
  return saved;
}

Control::Result<void> ExportRegistry::enable(ExportId id) {
  const auto position = find(id);
  if (!position) return std::unexpected(position.error());
  return handle(*position, ExportEvent::enable);
}

Control::Result<void> ExportRegistry::disable(ExportId id) {
  const auto position = find(id);
  if (!position) return std::unexpected(position.error());
  return handle(*position, ExportEvent::disable);
}

void ExportRegistry::disableByForce(ExportId id, Control::Answer<void> answer) {
  const auto position = find(id);
  if (!position) return answer(std::unexpected(position.error()));
  Export& subject = (*position)->second;
  const bool waits = rowFor(subject.state, ExportEvent::disableByForce).answer == ExportAnswer::later;
  auto handled = handle(*position, ExportEvent::disableByForce);
  if (!handled || !waits) return answer(std::move(handled));
  subject.waiting.push_back(std::move(answer));
  if (subject.state != ExportState::disabling) answerWaiting(subject, {});
}

Control::Result<void> ExportRegistry::remove(ExportId id) {
  const auto position = find(id);
  if (!position) return std::unexpected(position.error());
  return handle(*position, ExportEvent::remove);
}

Control::Result<void> ExportRegistry::handle(Exports::iterator position, ExportEvent event) {
  Export& subject = position->second;
  const ExportTransition& row = rowFor(subject.state, event);
  if (row.answer == ExportAnswer::wrongState) {
    return fail(FailureCode::wrongState,
                fmt::format("export {} is {}: {} is not possible now", number(position->first),
                            toText(subject.state), toText(event)));
  }
  if (row.effect == ExportEffect::openNode) return serve(position);
  if (!row.to) {
    Exports::node_type removed = exports_.extract(position);
    if (auto stored = save_(); !stored) {
      exports_.insert(std::move(removed));
      return std::unexpected(std::move(stored.error()));
    }
    forget(removed.mapped());
    std::erase_if(storages_, [](const auto& entry) {
      return std::ranges::all_of(entry.second, [](const auto& candidate) { return candidate.expired(); });
    });
    log(LogLevel::info, "export-removed", "export {} removed", number(removed.key()));
    return {};
  }
  if (auto entered = enter(subject, row); !entered) return entered;
  if (row.effect == ExportEffect::drain || row.effect == ExportEffect::endSessions)
    stopServing(subject, row.effect);
  return {};
}

Control::Result<void> ExportRegistry::serve(Exports::iterator position) {
  Export& subject = position->second;
  auto opened = openUnlessExported(subject);
  if (!opened) {
    const ExportTransition& row = rowFor(subject.state, ExportEvent::nodeRefused);
    if (auto entered = enter(subject, row); !entered) return entered;
    log(LogLevel::warning, "node-refused", "export {} cannot be served: {}", number(position->first),
        opened.error().message);
    subject.reason = reasonFor(opened.error().code);
    return std::unexpected(std::move(opened.error()));
  }
  SavedExport changed = subject.saved;
  if (changed.elemCount * changed.elemSize != opened->node.size) {
    const Elements elements = elementsOf(opened->node);
    changed.elemCount = elements.count;
    changed.elemSize = elements.size;
  }
  const ExportTransition& row = rowFor(subject.state, ExportEvent::nodeOpened);
  if (auto entered = enter(subject, row, changed); !entered) return entered;
  remember(subject, opened->identity);
  std::vector<std::weak_ptr<Storage>>& held = storages_[opened->identity];
  std::erase_if(held, [](const auto& candidate) { return candidate.expired(); });
  const std::shared_ptr<Storage> predecessor = held.empty() ? nullptr : held.back().lock();
  auto storage = std::make_shared<Storage>(std::move(opened->node), predecessor.get());
  held.push_back(storage);
  publisher_.publish({.id = position->first,
                      .name = subject.saved.name,
                      .description = {},
                      .uuid = subject.saved.uuid,
                      .storage = std::move(storage),
                      .counters = subject.counters});
  return {};
}

Control::Result<OpenedNode> ExportRegistry::openUnlessExported(Export& subject) {
  const auto identity = identifyNode(subject.saved.node);
  if (!identity) return std::unexpected(identity.error());
  if (const Export* const owner = ownerOf(*identity, &subject)) {
    return fail(FailureCode::nodeAlreadyExported,
                fmt::format("{} is exported already, with ID {}", escaped(subject.saved.node),
                            number(owner->saved.id)));
  }
  return open(subject.saved.node, *identity, subject.saved.flags.has(Control::ExportFlag::readOnly));
}

Control::Result<OpenedNode> ExportRegistry::open(const std::string& path, const NodeIdentity& identity,
                                                 bool readOnly) {
  const auto held = storages_.find(identity);
  if (held != storages_.end()) {
    for (const std::weak_ptr<Storage>& candidate : held->second) {
      const std::shared_ptr<Storage> storage = candidate.lock();
      if (storage && (readOnly || !storage->readOnly())) {
        return shareNode(storage->node(), identity, path, readOnly);
      }
    }
  }
  return openNode(path, readOnly);
}

Control::Result<void> ExportRegistry::enter(Export& subject, const ExportTransition& row,
                                            const std::optional<SavedExport>& changed) {
  SavedExport next = changed.value_or(subject.saved);
  if (row.wanted) next.wanted = *row.wanted;
  if (next != subject.saved) {
    std::swap(subject.saved, next);
    if (auto stored = save_(); !stored) {
      std::swap(subject.saved, next);
      return stored;
    }
  }
  if (subject.state != *row.to) {
    log(LogLevel::info, "export-state", "export {} is {}", number(subject.saved.id), toText(*row.to));
  }
  subject.state = *row.to;
  if (subject.state != ExportState::failed) subject.reason.reset();
  return {};
}

void ExportRegistry::stopServing(Export& subject, ExportEffect effect) {
  const ExportId id = subject.saved.id;
  publisher_.withdraw(id);
  if (effect == ExportEffect::endSessions) {
    publisher_.endSessions(id, [this, id] { lastClientLeft(id); });
  } else if (publisher_.clientCount(id) == 0) {
    lastClientLeft(id);
  }
}

void ExportRegistry::lastClientLeft(ExportId id) {
  const auto position = exports_.find(id);
  if (position == exports_.end()) return;
  Export& subject = position->second;
  const ExportTransition* const row = findTransition(subject.state, ExportEvent::lastClientLeft);
  // The news may be older than the export's latest round of clients.
  if (row == nullptr || publisher_.clientCount(id) != 0) return;
  // Nothing to save: what the operator wants was saved when he asked.
  static_cast<void>(enter(subject, *row));
  answerWaiting(subject, {});
}

void ExportRegistry::storageFailed(ExportId id, int error) {
  const auto position = exports_.find(id);
  if (position == exports_.end()) return;
  Export& subject = position->second;
  const ExportTransition* const row = findTransition(subject.state, ExportEvent::storageFailed);
  if (row == nullptr) return;
  log(LogLevel::error, "storage-failed", "the storage {} of export {} failed: {}",
      escaped(subject.saved.node), number(id), std::generic_category().message(error));
  static_cast<void>(enter(subject, *row));
  subject.reason = ExportReason::accessError;
  stopServing(subject, row->effect);
  answerWaiting(subject,
                fail(FailureCode::nodeError, "the export's storage failed while its clients were ended"));
}

void ExportRegistry::answerWaiting(Export& subject, const Control::Result<void>& result) {
  for (Control::Answer<void>& answer : std::exchange(subject.waiting, {})) answer(result);
}

std::vector<ExportId> ExportRegistry::list() const {
  std::vector<ExportId> ids;
  ids.reserve(exports_.size());
  for (const auto& [id, subject] : exports_) ids.push_back(id);
  return ids;
}

Control::Result<Control::ExportInfo> ExportRegistry::info(ExportId id) const {
  const auto position = find(id);
  if (!position) return std::unexpected(position.error());
  const Export& subject = (*position)->second;
  Control::ExportInfo info;
  info.id = id;
  info.descriptor = {.name = subject.saved.name,
                     .node = subject.saved.node,
                     .flags = subject.saved.flags,
                     .elemCount = subject.saved.elemCount,
                     .elemSize = subject.saved.elemSize};
  info.state = subject.state;
  info.reason = subject.reason;
  info.uuid = subject.saved.uuid;
  return info;
}

Control::Result<std::vector<Control::ExportClientInfo>> ExportRegistry::clients(ExportId id) const {
  const auto position = find(id);
  if (!position) return std::unexpected(position.error());
  return publisher_.clients(id);
}

Control::Result<Control::ExportStatistics> ExportRegistry::statistics(ExportId id) const {
  const auto position = find(id);
  if (!position) return std::unexpected(position.error());
  return (*position)->second.counters->statistics();
}

std::size_t ExportRegistry::activeCount() const {
  return static_cast<std::size_t>(std::ranges::count_if(exports_, [](const auto& entry) {
    return entry.second.state == ExportState::enabled || entry.second.state == ExportState::disabling;
  }));
}

Control::Result<ExportRegistry::Exports::iterator> ExportRegistry::find(ExportId id) {
  const auto position = exports_.find(id);
  if (position == exports_.end()) {
    return fail(FailureCode::noSuchExport, fmt::format("there is no export with ID {}", number(id)));
  }
  return position;
}

Control::Result<ExportRegistry::Exports::const_iterator> ExportRegistry::find(ExportId id) const {
  const auto position = exports_.find(id);
  if (position == exports_.end()) {
    return fail(FailureCode::noSuchExport, fmt::format("there is no export with ID {}", number(id)));
  }
  return position;
}

const ExportRegistry::Export* ExportRegistry::ownerOf(const NodeIdentity& identity,
                                                      const Export* except) const {
  const auto found = byIdentity_.find(identity);
  if (found == byIdentity_.end()) return nullptr;
  const Export& owner = exports_.at(found->second);
  if (&owner == except) return nullptr;
  // A file that was deleted may have left its inode to another one. An export that is served holds its node
  // open, so there the identity cannot change hands.
  if (owner.state == ExportState::enabled || owner.state == ExportState::disabling) return &owner;
  const auto current = identifyNode(owner.saved.node);
  return current && *current == identity ? &owner : nullptr;
}

void ExportRegistry::remember(Export& subject, const NodeIdentity& identity) {
  if (subject.identity && *subject.identity != identity) {
    const auto found = byIdentity_.find(*subject.identity);
    if (found != byIdentity_.end() && found->second == subject.saved.id) byIdentity_.erase(found);
  }
  subject.identity = identity;
  byIdentity_.insert_or_assign(identity, subject.saved.id);
}

void ExportRegistry::forget(const Export& subject) {
  byName_.erase(subject.saved.name);
  byPath_.erase(subject.saved.node);
  if (!subject.identity) return;
  const auto found = byIdentity_.find(*subject.identity);
  if (found != byIdentity_.end() && found->second == subject.saved.id) byIdentity_.erase(found);
}

}  // namespace Nbdd
