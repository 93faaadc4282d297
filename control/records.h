#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "control/flags.h"

/// The records that cross the control socket, as plain values. control/org.talvek.NBD.varlink documents the
/// same records for clients in other languages; control/fields.h says how each field is called there.
namespace Control {

// Every member has a default, so that a record can be written with only the fields that matter.

enum class ExportId : std::uint32_t {};
enum class ImportId : std::uint32_t {};

/// An IP address as text ("192.0.2.7", "2001:db8::1", "fe80::1%2"; empty when there is none) and a TCP port.
/// Port 0 in a request stands for the NBD port, 10809.
struct Endpoint {
  std::string address{};
  std::uint16_t port = 0;

  friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

/// Octets that are not text.
struct Binary {
  std::string octets{};

  friend bool operator==(const Binary&, const Binary&) = default;
};

struct VariantEntry;

/// An ordered list of named values, open to what later versions and other hosts have to tell.
using Variant = std::vector<VariantEntry>;

/// One named value: nothing, a number, a text, octets, or further named values.
struct VariantEntry {
  std::string name{};
  std::variant<std::monostate, std::uint64_t, std::string, Binary, Variant> value{};

  friend bool operator==(const VariantEntry&, const VariantEntry&) = default;
};

// Exports.

enum class ExportFlag : std::uint32_t { readOnly = 0x1 };

enum class ExportState : std::uint32_t { added = 1, enabled = 2, disabling = 3, disabled = 4, failed = 5 };

enum class ExportReason : std::uint32_t { none = 0, accessDenied = 1, accessError = 2 };

/// What an export is made of. In a request an absent name leaves the choice to the service, as do zero
/// counts.
struct ExportDescriptor {
  std::optional<std::string> name{};  ///< by which NBD clients ask for it
  std::string node{};                 ///< absolute path of the storage node
  Flags<ExportFlag> flags{};
  std::uint64_t elemCount = 0;  ///< number of elements; elemCount times elemSize is the size in bytes
  std::uint64_t elemSize = 0;   ///< size of one element in bytes

  friend bool operator==(const ExportDescriptor&, const ExportDescriptor&) = default;
};

struct ExportInfo {
  ExportId id{};
  ExportDescriptor descriptor{};
  ExportState state = ExportState::added;
  std::optional<ExportReason> reason{};  ///< why it is in this state, where there is something to say
  std::string uuid{};                    ///< 8-4-4-4-12 form, kept for the export's life

  friend bool operator==(const ExportInfo&, const ExportInfo&) = default;
};

struct ExportClientInfo {
  Endpoint endpoint{};
  Variant details{};

  friend bool operator==(const ExportClientInfo&, const ExportClientInfo&) = default;
};

struct ExportTransferCounters {
  std::uint64_t numTransTotal = 0;
  std::uint64_t numTransCompressed = 0;
  std::uint64_t bytesTransTotal = 0;        ///< before compression
  std::uint64_t bytesTransTransferred = 0;  ///< as they went over the wire

  friend bool operator==(const ExportTransferCounters&, const ExportTransferCounters&) = default;
};

/// Transfers since the export was added or the service started, whichever is later.
struct ExportStatistics {
  ExportTransferCounters rx{};  ///< received from clients: writes
  ExportTransferCounters tx{};  ///< sent to clients: reads

  friend bool operator==(const ExportStatistics&, const ExportStatistics&) = default;
};

// Imports.

enum class ImportFlag : std::uint32_t { dontAnnounceStorage = 0x1, forceReadOnly = 0x2 };

enum class ImportState : std::uint32_t {
  added = 1,
  connecting = 2,  ///< enabled, and waits for the server
  connected = 3,   ///< enabled, and the server answers
  disabling = 4,
  disabled = 5
};

enum class ImportDisableReason : std::uint32_t {
  internalError = 0,
  clientRequest = 1,
  connectionFailed = 2,
  networkError = 3,
};

struct ImportDescriptor {
  std::string name{};  ///< the export's name on the remote server
  Endpoint server{};
  Flags<ImportFlag> flags{};

  friend bool operator==(const ImportDescriptor&, const ImportDescriptor&) = default;
};

struct ImportInfo {
  ImportId id{};
  ImportDescriptor descriptor{};
  ImportState state = ImportState::added;
  std::uint64_t size = 0;         ///< bytes
  std::string node{};             ///< path of the best local node; empty when there is none
  std::uint32_t connections = 0;  ///< how many connections to the server are open
  std::optional<ImportDisableReason> disableReason{};
  std::string description{};

  friend bool operator==(const ImportInfo&, const ImportInfo&) = default;
};

// The server.

/// An endpoint on which other hosts reach the started server, unless a firewall stands before it.
struct NetIfFirewallState {
  Endpoint endpoint{};
  std::optional<std::string> interface{};  ///< name of the network interface

  friend bool operator==(const NetIfFirewallState&, const NetIfFirewallState&) = default;
};

enum class ServerCapability : std::uint32_t { readWriteExports = 0x1, transferCompression = 0x2 };

// Remote servers.

struct RemoteServerDescriptor {
  Endpoint endpoint{};
  Variant properties{};
  std::string label{};

  friend bool operator==(const RemoteServerDescriptor&, const RemoteServerDescriptor&) = default;
};

struct RemoteExportEntry {
  std::string name{};
  std::optional<std::string> uuid{};
  std::uint64_t size = 0;   ///< bytes
  std::uint32_t flags = 0;  ///< NBD transmission flags

  friend bool operator==(const RemoteExportEntry&, const RemoteExportEntry&) = default;
};

struct RemoteExportList {
  std::vector<RemoteExportEntry> exports{};
  bool isTalvekServer = false;
  Variant properties{};               ///< of a Talvek server only
  std::optional<std::string> uuid{};  ///< of a Talvek server only

  friend bool operator==(const RemoteExportList&, const RemoteExportList&) = default;
};

// Reservations.

struct RemoteServerReservationRequest {
  Endpoint endpoint{};
  std::string password{};
  Variant properties{};

  friend bool operator==(const RemoteServerReservationRequest&,
                         const RemoteServerReservationRequest&) = default;
};

struct RemoteServerReservationInfo {
  Endpoint endpoint{};
  Variant properties{};

  friend bool operator==(const RemoteServerReservationInfo&, const RemoteServerReservationInfo&) = default;
};

struct LocalServerReservationInfo {
  Endpoint endpoint{};
  Variant properties{};

  friend bool operator==(const LocalServerReservationInfo&, const LocalServerReservationInfo&) = default;
};

}  // namespace Control
