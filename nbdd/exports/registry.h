#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "control/interface.h"
#include "nbdd/exports/export_states.h"
#include "nbdd/exports/node.h"
#include "nbdd/exports/publication.h"
#include "nbdd/state/saved_state.h"

namespace Nbdd {

/// What the registry needs of the NBD server: see Server for the contract of each function.
class ExportPublisher {
 public:
  virtual ~ExportPublisher() = default;

  virtual void publish(Publication publication) = 0;
  virtual void withdraw(Control::ExportId id) = 0;
  virtual void endSessions(Control::ExportId id, std::move_only_function<void()> done) = 0;
  virtual std::vector<Control::ExportClientInfo> clients(Control::ExportId id) const = 0;
  virtual std::size_t clientCount(Control::ExportId id) const = 0;
};

/// All exports of this service: holds what is known of each and leads it through the states of
/// export_states.h.
///
/// A change is saved before it takes effect and before it is answered; one that cannot be saved does not
/// happen (stateNotSaved). All functions belong to the thread of the control loop, and so do all callbacks.
class ExportRegistry {
 public:
  /// Forces the state of everything to stable storage, or fails.
  using Save = std::function<Control::Result<void>()>;

  /// `publisher` outlives the registry.
  ExportRegistry(ExportPublisher& publisher, Save save);

  /// Takes over what was saved, once, at the start: exports that were enabled are enabled again, or fail.
  void restore(const SavedState& state);
  /// Fills in the exports and the next ID, in order.
  void describe(SavedState& state) const;

  Control::Result<Control::ExportId> add(const Control::ExportDescriptor& descriptor);
  Control::Result<void> enable(Control::ExportId id);
  Control::Result<void> disable(Control::ExportId id);
  /// Answers when the export's last client has left.
  void disableByForce(Control::ExportId id, Control::Answer<void> answer);
  Control::Result<void> remove(Control::ExportId id);

  std::vector<Control::ExportId> list() const;
  Control::Result<Control::ExportInfo> info(Control::ExportId id) const;
  Control::Result<std::vector<Control::ExportClientInfo>> clients(Control::ExportId id) const;
  Control::Result<Control::ExportStatistics> statistics(Control::ExportId id) const;

  /// The publisher's events. An ID that is gone is no news.
  void lastClientLeft(Control::ExportId id);
  void storageFailed(Control::ExportId id, int error);

  /// Exports that are served, or still have clients.
  std::size_t activeCount() const;
  std::size_t size() const { return exports_.size(); }

 private:
  struct Export {
    SavedExport saved;
    Control::ExportState state = Control::ExportState::added;
    std::optional<Control::ExportReason> reason;
    std::optional<NodeIdentity> identity;  // when the node was last seen
    std::shared_ptr<TransferCounters> counters;
    std::vector<Control::Answer<void>> waiting;  // for the last client to leave
  };

  using Exports = std::map<Control::ExportId, Export>;

  Control::Result<Exports::iterator> find(Control::ExportId id);
  Control::Result<Exports::const_iterator> find(Control::ExportId id) const;

  /// Leads the export through one event that the operator asked for, effects included.
  Control::Result<void> handle(Exports::iterator position, ExportEvent event);
  /// Opens the node for enabling and leads on to the outcome.
  Control::Result<void> serve(Exports::iterator position);
  Control::Result<OpenedNode> openUnlessExported(Export& subject);
  /// Waits until nobody else holds the node, or `deadline`; start-up only.
  void awaitNode(Export& subject, std::chrono::steady_clock::time_point deadline);
  /// Opens a node, also one that we ourselves have not quite let go of.
  Control::Result<OpenedNode> open(const std::string& path, const NodeIdentity& identity, bool readOnly);
  /// Enters the row's next state, saved first if there is anything to save.
  Control::Result<void> enter(Export& subject, const ExportTransition& row,
                              const std::optional<SavedExport>& changed = std::nullopt);
  void stopServing(Export& subject, ExportEffect effect);
  static void answerWaiting(Export& subject, const Control::Result<void>& result);

  Control::Result<SavedExport> describeNew(const Control::ExportDescriptor& descriptor,
                                           const OpenedNode& opened) const;
  /// The export whose node this is; null if there is none.
  const Export* ownerOf(const NodeIdentity& identity, const Export* except) const;
  void remember(Export& subject, const NodeIdentity& identity);
  void forget(const Export& subject);

  ExportPublisher& publisher_;
  Save save_;
  std::uint64_t nextId_ = 1;
  Exports exports_;
  std::unordered_map<std::string, Control::ExportId> byName_;
  std::unordered_map<std::string, Control::ExportId> byPath_;
  std::unordered_map<NodeIdentity, Control::ExportId> byIdentity_;
  /// What was served of each node and may still be held: a session may keep it a little longer than the
  /// export is enabled, and the lock on it would keep ourselves out.
  std::unordered_map<NodeIdentity, std::vector<std::weak_ptr<Storage>>> storages_;
};

}  // namespace Nbdd
