#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/interface.h"
#include "nbdd/imports/import_states.h"
#include "nbdd/imports/running_import.h"
#include "nbdd/state/saved_state.h"

namespace Nbdd {

/// All imports of this service: holds what is known of each and leads it through the states of
/// import_states.h.
///
/// A change is saved before it is answered; one that cannot be saved does not happen (stateNotSaved). All
/// functions belong to the thread of the control loop, and so do all callbacks.
class ImportRegistry {
 public:
  /// Forces the state of everything to stable storage, or fails.
  using Save = std::function<Control::Result<void>()>;
  /// Begins to connect an import. May throw std::system_error.
  using Start = std::function<std::unique_ptr<ImportRun>(const SavedImport&, ImportEvents)>;

  ImportRegistry(Start start, Save save);
  ~ImportRegistry();
  ImportRegistry(const ImportRegistry&) = delete;
  ImportRegistry& operator=(const ImportRegistry&) = delete;

  /// Takes over what was saved, once, at the start: imports that were enabled connect again.
  void restore(const SavedState& state);
  /// Fills in the imports and the next ID, in order.
  void describe(SavedState& state) const;

  Control::Result<Control::ImportId> add(const Control::ImportDescriptor& descriptor);
  void enable(Control::ImportId id, Control::Answer<void> answer);
  void disable(Control::ImportId id, bool force, Control::Answer<void> answer);
  Control::Result<void> remove(Control::ImportId id);

  /// Has all transfers of all imports compressed from now on, where the servers can, or none.
  void setCompression(bool enable);

  std::vector<Control::ImportId> list() const;
  Control::Result<Control::ImportInfo> info(Control::ImportId id) const;
  Control::Result<Control::Variant> nodeInterfaces(Control::ImportId id) const;

  /// Ends all connections and nodes without forgetting that they should be there: the end of the process.
  void close(std::move_only_function<void()> done);

  /// Imports that are enabled, or not quite disabled.
  std::size_t activeCount() const;
  std::size_t size() const { return imports_.size(); }

 private:
  struct Import {
    SavedImport saved;
    Control::ImportState state = Control::ImportState::added;
    std::optional<Control::ImportDisableReason> reason;
    std::string trouble;     // what went wrong last; empty when nothing is wrong
    std::uint64_t size = 0;  // when the server was last reached
    std::unique_ptr<ImportRun> run;
    std::vector<Control::Answer<void>> waiting;
  };
  using Imports = std::map<Control::ImportId, Import>;

  Control::Result<Imports::iterator> find(Control::ImportId id);
  Control::Result<Imports::const_iterator> find(Control::ImportId id) const;

  /// Leads the import through one event, effects and answers included. `answer` is that of the operator who
  /// asked, `why` what went wrong.
  void handle(Imports::iterator position, ImportEvent event, Control::Answer<void> answer,
              const std::optional<Control::Failure>& why = std::nullopt);
  /// Something that a run tells. An import that is gone is no news.
  void happened(Control::ImportId id, ImportEvent event,
                const std::optional<Control::Failure>& why = std::nullopt);
  void reached(Control::ImportId id);
  void lost(Control::ImportId id, const Control::Failure& why);
  void ended(Control::ImportId id);

  Control::Result<void> remember(Import& subject, const ImportTransition& row);
  void connect(Imports::iterator position);
  static void answerWaiting(Import& subject, const Control::Result<void>& result);
  static void failWaiting(Import& subject, const Control::Failure& why);
  static std::string description(const Import& subject);
  void checkClosed();

  Start start_;
  Save save_;
  std::uint64_t nextId_ = 1;
  Imports imports_;
  std::move_only_function<void()> closed_;
};

}  // namespace Nbdd
