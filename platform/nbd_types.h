#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/network.h"
#include "platform/set.h"
#include "platform/string.h"
#include "platform/variant.h"

/// The records that cross the interface of the NBD service. They are values; their texts are shared and may
/// be empty Refs, which mean "none". Enumerations carry what the service sent, which may be none of the
/// enumerators.
namespace Services::NBD::Client::Types {

using Network::Definitions::IPEndpoint;

/// Names one export, or one import, of the local service, which assigns the numbers.
enum class ExportID : std::uint32_t {};
enum class ImportID : std::uint32_t {};

// ---- Exports: local storage nodes that are offered to clients.

/// Bits of `ExportDescriptor::flags`.
enum ExportFlag : std::uint32_t {
  ReadOnly = 0x1,
};

/// What an export is made from.
struct ExportDescriptor {
  Ref<String> name;             ///< what clients ask for; an empty Ref lets the service choose
  Ref<String> node;             ///< absolute path of the storage node
  std::uint32_t flags = 0;      ///< mask of ExportFlag
  std::uint64_t elemCount = 0;  ///< number of elements; 0 lets the service find out
  std::uint64_t elemSize = 0;   ///< bytes of one element; 0 lets the service find out
};

enum class ExportState : std::uint32_t {
  Added = 1,
  Enabled = 2,
  Disabling = 3,
  Disabled = 4,
  Failed = 5,
};

/// Why an export is in its state.
enum class ExportReason : std::uint32_t {
  None = 0,
  AccessDenied = 1,
  AccessError = 2,
};

/// One export.
struct ExportInfo {
  ExportID id{};
  ExportDescriptor descriptor;
  ExportState state{};
  std::optional<ExportReason> reason;
  Ref<String> uuid;
};

/// One client that is connected to an export.
struct ExportClientInfo {
  IPEndpoint endpoint;
  Variant details;  ///< what else the service knows of the client
};

/// Counters of one direction since the export was added.
struct ExportTransferCounters {
  std::uint64_t numTransTotal = 0;          ///< transfers
  std::uint64_t numTransCompressed = 0;     ///< those of them that were compressed
  std::uint64_t bytesTransTotal = 0;        ///< bytes that the transfers stand for
  std::uint64_t bytesTransTransferred = 0;  ///< bytes that went over the wire for them
};

struct ExportStatistics {
  ExportTransferCounters rx;  ///< from clients to the service
  ExportTransferCounters tx;  ///< from the service to clients
};

// ---- Imports: exports of remote servers that are attached here.

/// Bits of `ImportDescriptor::flags`.
enum ImportFlag : std::uint32_t {
  DontAnnounceStorage = 0x1,
  ForceReadOnly = 0x2,
};

/// What an import is made from.
struct ImportDescriptor {
  Ref<String> name;         ///< the export's name on the remote server
  IPEndpoint server;        ///< port 0 means the protocol's own port
  std::uint32_t flags = 0;  ///< mask of ImportFlag
};

/// The state of an import. To the operator it is enabled whether the remote server answers or not.
enum class ImportState : std::uint32_t {
  Added = 1,
  Connecting = 2,
  Connected = 3,
  Disabling = 4,
  Disabled = 5,
};

/// Why an import was disabled.
enum class ImportDisableReason : std::uint32_t {
  InternalError = 0,
  ClientRequest = 1,
  ConnectionFailed = 2,
  NetworkError = 3,
};

/// One import.
struct ImportInfo {
  ImportID id{};
  ImportDescriptor descriptor;
  ImportState state{};
  std::uint64_t size = 0;      ///< bytes
  Ref<String> node;            ///< local node; none while the import is not enabled
  std::uint32_t reserved = 0;  ///< without a meaning yet; goes along with the record
  std::optional<ImportDisableReason> disableReason;
  Ref<String> description;
};

// ---- The local server.

/// One local endpoint on which the server now listens, and that a firewall may close to other hosts.
struct NetIfFirewallState {
  IPEndpoint endpoint;
};

/// What the local server is able to do. The numbers are bit numbers in a ServerCapabilities mask.
enum class ServerCapability : std::uint32_t {
  ReadWriteExports = 0,
  TransferCompression = 1,
};

using ServerCapabilities = ::Definitions::Set<ServerCapability, unsigned int,
                                              ::Definitions::EnumSeqConvert<ServerCapability, unsigned int>>;

// ---- Remote servers.

/// One export that a remote server offers.
struct RemoteExportEntry {
  Ref<String> name;
  Ref<String> uuid;         ///< none or empty if the server tells no UUID
  std::uint64_t size = 0;   ///< bytes
  std::uint32_t flags = 0;  ///< the NBD transmission flags of the export
};

/// What a remote server offers.
struct RemoteExportList {
  IPEndpoint endpoint;  ///< where the answer came from
  std::vector<RemoteExportEntry> exports;
  bool isTalvekServer =
      false;  ///< whether the server runs this software; only then the next two mean anything
  Variant properties;
  Ref<String> uuid;
};

/// One server that discovery has found.
struct RemoteServerDescriptor {
  Ref<Object> source;  ///< keeps alive whatever the descriptor was found by; opaque
  IPEndpoint endpoint;
  std::uint32_t interfaceIndex = 0;  ///< the local network interface on which it was found, 0 if unknown
  Variant properties;
  Ref<String> label;  ///< a text for people
};

// ---- Reservations.

/// Asks a remote server to reserve itself for this host.
struct RemoteServerReservationRequest {
  IPEndpoint endpoint;  ///< port 0 means the protocol's own port
  Ref<String> password;
  Variant details;  ///< room for more; left empty
};

/// One remote server that this host has reserved.
struct RemoteServerReservationInfo {
  IPEndpoint endpoint;
  Variant details;
};

/// Who has reserved the local server.
struct LocalServerReservationInfo {
  IPEndpoint endpoint;
  Variant details;
};

}  // namespace Services::NBD::Client::Types
