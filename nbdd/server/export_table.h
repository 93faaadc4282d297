#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "control/records.h"
#include "nbd/export_view.h"
#include "nbdd/exports/publication.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/reservations/lease.h"
#include "nbdd/server/access.h"

namespace Nbdd {

class Worker;

/// Names a session for as long as the process lives.
using SessionId = std::uint64_t;

/// What the table keeps of a session that uses an export.
struct AttachedSession {
  SessionId id = 0;
  Worker* worker = nullptr;
  int socket = -1;  // stays open while the session is attached
  Control::Endpoint peer;
  std::optional<Reservations::LeaseId> lease = std::nullopt;  // that the client has proven to hold
  std::string
      security{};  // how its connection is secured and who it proved to be, for people; empty in the clear
};

/// The published exports and who uses them: the one place where the control thread and the workers meet. Any
/// thread may call anything; nothing here blocks for longer than a walk over one export's sessions.
class ExportTable final : public Nbd::ExportDirectory {
 public:
  /// Called, on the thread that detached it, when the last session of an export is gone.
  using LastLeft = std::function<void(Control::ExportId)>;

  explicit ExportTable(LastLeft lastLeft) : lastLeft_(std::move(lastLeft)) {}

  void publish(Publication publication);
  void withdraw(Control::ExportId id);

  std::optional<Nbd::ExportView> find(std::string_view name) const override;
  std::shared_ptr<const std::vector<Nbd::ListedExport>> list() const override;

  /// All of them, in the order of their names.
  std::vector<std::shared_ptr<const Publication>> publications() const;

  /// Who may come from now on. Never null.
  void setAccess(std::shared_ptr<const Access> access);
  std::shared_ptr<const Access> access() const;

  enum class Attachment : std::uint8_t {
    attached,
    withdrawn,
    mustWait,
    overtaken,         // a younger session came first, and this one's client has gone
    outOfDescriptors,  // the system has none left to watch the session with
    reserved,          // the server is reserved, and not for this session's client
  };

  /// From now on only sessions that have proven this lease are attached; none at all for no lease. Those that
  /// are attached stay.
  void admitOnly(std::optional<Reservations::LeaseId> lease);
  /// From now on everybody is.
  void admitAll();
  /// Whether a session that has proven this lease, or none, would be.
  bool admits(const std::optional<Reservations::LeaseId>& lease) const;

  /// Registers a session with the publication it found before.
  ///
  /// A client whose connection died may still have writes under way here, and may be the one that comes back
  /// now: while the export has sessions whose peer is gone, the answer is `mustWait`, and `wake` is called
  /// (on any thread) when it is worth trying again. A session may wait so long
  /// that its own client goes too, and comes back with another one that is let in first: then it is
  /// `overtaken`. So a write of a dead connection never lands after one of the connection that follows it.
  Attachment attach(const std::shared_ptr<const Publication>& publication, AttachedSession session,
                    std::function<void()> wake);
  void detach(Control::ExportId id, SessionId session);

  std::vector<AttachedSession> sessions(Control::ExportId id) const;
  /// Of all exports together.
  std::vector<AttachedSession> sessions() const;
  /// Those of them whose peer is gone: whom a session that must wait is waiting for. When they are hundreds,
  /// some.
  std::vector<AttachedSession> sessionsOfGonePeers(Control::ExportId id) const;
  std::size_t sessionCount(Control::ExportId id) const;
  /// Of all exports together.
  std::size_t sessionCount() const;

 private:
  struct Usage {
    std::map<SessionId, AttachedSession> sessions;
    /// An epoll set of their sockets, which are ready when their peers are gone: thousands need not be asked
    /// one by one whenever another client comes.
    Io::FileDescriptor gonePeers;
    std::vector<std::function<void()>> waiting;
  };

  std::shared_ptr<const Publication> findPublication(std::string_view name) const;

  bool isAdmitted(const std::optional<Reservations::LeaseId>& lease) const;

  const LastLeft lastLeft_;
  mutable std::mutex mutex_;
  bool reserved_ = false;                       // only sessions with the lease are attached
  std::optional<Reservations::LeaseId> lease_;  // if that is so
  std::shared_ptr<const Access> access_ = std::make_shared<const Access>();
  std::map<std::string, std::shared_ptr<const Publication>, std::less<>> published_;  // by name
  std::unordered_map<Control::ExportId, std::string> names_;                          // of the published ones
  std::unordered_map<Control::ExportId, Usage> usage_;
  std::unordered_map<Control::ExportId, SessionId> newest_;  // that was ever let in, of the published ones
  mutable std::shared_ptr<const std::vector<Nbd::ListedExport>> listing_;  // null when it is out of date
};

}  // namespace Nbdd
