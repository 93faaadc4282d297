#pragma once

#include <array>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "control/records.h"

/// How each record, and each word of each enumeration, is called on the control socket. Encoding, decoding
/// and the check against org.talvek.NBD.varlink all follow these tables.
namespace Control {

/// Whether a peer must send a field. An omitted one stands for its default value; in what we send it is
/// always there, unless its type is a std::optional that is empty.
enum class Presence { required, defaulted };

template <class Record, class Value>
struct Field {
  std::string_view name;
  Value Record::* member;
  Presence presence = Presence::required;
};

/// Specialised for each record: `name`, and `fields`, a tuple of Field in the order of the definition.
template <class Record>
struct Description;

template <class Enumeration>
struct Word {
  Enumeration value;
  std::string_view text;
};

/// Specialised for each enumeration that travels as words: `name`, and `list`, an array of Word.
template <class Enumeration>
struct Words;

template <class T>
concept Described = requires { Description<T>::fields; };

template <class T>
concept Worded = requires { Words<T>::list; };

// Enumerations.

template <>
struct Words<ExportFlag> {
  static constexpr std::string_view name = "ExportFlag";
  static constexpr std::array list{Word{ExportFlag::readOnly, "readOnly"}};
};

template <>
struct Words<ExportState> {
  static constexpr std::string_view name = "ExportState";
  static constexpr std::array list{
      Word{ExportState::added, "added"},         Word{ExportState::enabled, "enabled"},
      Word{ExportState::disabling, "disabling"}, Word{ExportState::disabled, "disabled"},
      Word{ExportState::failed, "failed"},
  };
};

template <>
struct Words<ExportReason> {
  static constexpr std::string_view name = "ExportReason";
  static constexpr std::array list{
      Word{ExportReason::none, "none"},
      Word{ExportReason::accessDenied, "accessDenied"},
      Word{ExportReason::accessError, "accessError"},
  };
};

template <>
struct Words<ImportFlag> {
  static constexpr std::string_view name = "ImportFlag";
  static constexpr std::array list{
      Word{ImportFlag::dontAnnounceStorage, "dontAnnounceStorage"},
      Word{ImportFlag::forceReadOnly, "forceReadOnly"},
  };
};

template <>
struct Words<ImportState> {
  static constexpr std::string_view name = "ImportState";
  static constexpr std::array list{
      Word{ImportState::added, "added"},         Word{ImportState::connecting, "connecting"},
      Word{ImportState::connected, "connected"}, Word{ImportState::disabling, "disabling"},
      Word{ImportState::disabled, "disabled"},
  };
};

template <>
struct Words<ImportDisableReason> {
  static constexpr std::string_view name = "ImportDisableReason";
  static constexpr std::array list{
      Word{ImportDisableReason::internalError, "internalError"},
      Word{ImportDisableReason::clientRequest, "clientRequest"},
      Word{ImportDisableReason::connectionFailed, "connectionFailed"},
      Word{ImportDisableReason::networkError, "networkError"},
  };
};

template <>
struct Words<ServerCapability> {
  static constexpr std::string_view name = "ServerCapability";
  static constexpr std::array list{
      Word{ServerCapability::readWriteExports, "readWriteExports"},
      Word{ServerCapability::transferCompression, "transferCompression"},
  };
};

// Records.

template <>
struct Description<Endpoint> {
  static constexpr std::string_view name = "Endpoint";
  static constexpr std::tuple fields{Field{"address", &Endpoint::address},
                                     Field{"port", &Endpoint::port, Presence::defaulted}};
};

template <>
struct Description<ExportDescriptor> {
  static constexpr std::string_view name = "ExportDescriptor";
  static constexpr std::tuple fields{
      Field{"name", &ExportDescriptor::name},
      Field{"node", &ExportDescriptor::node},
      Field{"flags", &ExportDescriptor::flags, Presence::defaulted},
      Field{"elemCount", &ExportDescriptor::elemCount, Presence::defaulted},
      Field{"elemSize", &ExportDescriptor::elemSize, Presence::defaulted},
  };
};

template <>
struct Description<ExportInfo> {
  static constexpr std::string_view name = "ExportInfo";
  static constexpr std::tuple fields{
      Field{"id", &ExportInfo::id},       Field{"descriptor", &ExportInfo::descriptor},
      Field{"state", &ExportInfo::state}, Field{"reason", &ExportInfo::reason},
      Field{"uuid", &ExportInfo::uuid},
  };
};

template <>
struct Description<ExportClientInfo> {
  static constexpr std::string_view name = "ExportClientInfo";
  static constexpr std::tuple fields{Field{"endpoint", &ExportClientInfo::endpoint},
                                     Field{"details", &ExportClientInfo::details, Presence::defaulted}};
};

template <>
struct Description<ExportTransferCounters> {
  static constexpr std::string_view name = "ExportTransferCounters";
  static constexpr std::tuple fields{
      Field{"numTransTotal", &ExportTransferCounters::numTransTotal},
      Field{"numTransCompressed", &ExportTransferCounters::numTransCompressed},
      Field{"bytesTransTotal", &ExportTransferCounters::bytesTransTotal},
      Field{"bytesTransTransferred", &ExportTransferCounters::bytesTransTransferred},
  };
};

template <>
struct Description<ExportStatistics> {
  static constexpr std::string_view name = "ExportStatistics";
  static constexpr std::tuple fields{Field{"rx", &ExportStatistics::rx}, Field{"tx", &ExportStatistics::tx}};
};

template <>
struct Description<ImportDescriptor> {
  static constexpr std::string_view name = "ImportDescriptor";
  static constexpr std::tuple fields{
      Field{"name", &ImportDescriptor::name},
      Field{"server", &ImportDescriptor::server},
      Field{"flags", &ImportDescriptor::flags, Presence::defaulted},
  };
};

template <>
struct Description<ImportInfo> {
  static constexpr std::string_view name = "ImportInfo";
  static constexpr std::tuple fields{
      Field{"id", &ImportInfo::id},
      Field{"descriptor", &ImportInfo::descriptor},
      Field{"state", &ImportInfo::state},
      Field{"size", &ImportInfo::size},
      Field{"node", &ImportInfo::node},
      Field{"connections", &ImportInfo::connections, Presence::defaulted},
      Field{"disableReason", &ImportInfo::disableReason},
      Field{"description", &ImportInfo::description, Presence::defaulted},
  };
};

template <>
struct Description<NetIfFirewallState> {
  static constexpr std::string_view name = "NetIfFirewallState";
  static constexpr std::tuple fields{Field{"endpoint", &NetIfFirewallState::endpoint},
                                     Field{"interface", &NetIfFirewallState::interface}};
};

template <>
struct Description<RemoteServerDescriptor> {
  static constexpr std::string_view name = "RemoteServerDescriptor";
  static constexpr std::tuple fields{
      Field{"endpoint", &RemoteServerDescriptor::endpoint},
      Field{"properties", &RemoteServerDescriptor::properties, Presence::defaulted},
      Field{"label", &RemoteServerDescriptor::label, Presence::defaulted},
  };
};

template <>
struct Description<RemoteExportEntry> {
  static constexpr std::string_view name = "RemoteExportEntry";
  static constexpr std::tuple fields{
      Field{"name", &RemoteExportEntry::name},
      Field{"uuid", &RemoteExportEntry::uuid},
      Field{"size", &RemoteExportEntry::size},
      Field{"flags", &RemoteExportEntry::flags, Presence::defaulted},
  };
};

template <>
struct Description<RemoteExportList> {
  static constexpr std::string_view name = "RemoteExportList";
  static constexpr std::tuple fields{
      Field{"exports", &RemoteExportList::exports},
      Field{"isTalvekServer", &RemoteExportList::isTalvekServer},
      Field{"properties", &RemoteExportList::properties, Presence::defaulted},
      Field{"uuid", &RemoteExportList::uuid},
  };
};

template <>
struct Description<RemoteServerReservationRequest> {
  static constexpr std::string_view name = "RemoteServerReservationRequest";
  static constexpr std::tuple fields{
      Field{"endpoint", &RemoteServerReservationRequest::endpoint},
      Field{"password", &RemoteServerReservationRequest::password},
      Field{"properties", &RemoteServerReservationRequest::properties, Presence::defaulted},
  };
};

template <>
struct Description<RemoteServerReservationInfo> {
  static constexpr std::string_view name = "RemoteServerReservationInfo";
  static constexpr std::tuple fields{
      Field{"endpoint", &RemoteServerReservationInfo::endpoint},
      Field{"properties", &RemoteServerReservationInfo::properties, Presence::defaulted},
  };
};

template <>
struct Description<LocalServerReservationInfo> {
  static constexpr std::string_view name = "LocalServerReservationInfo";
  static constexpr std::tuple fields{
      Field{"endpoint", &LocalServerReservationInfo::endpoint},
      Field{"properties", &LocalServerReservationInfo::properties, Presence::defaulted},
  };
};

}  // namespace Control
