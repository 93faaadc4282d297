#pragma once

#include "control/records.h"
#include "platform/nbd_types.h"

/// The records of the control socket as those of the platform, and back. What the one has and the other has
/// not is left out; a text that is absent is an empty Ref.
namespace Host::Records {

namespace Types = Services::NBD::Client::Types;
using Services::NBD::Client::Types::IPEndpoint;

IPEndpoint toPlatform(const Control::Endpoint& endpoint);
Types::Variant toPlatform(const Control::Variant& variant);
Types::ExportID toPlatform(Control::ExportId id);
Types::ExportInfo toPlatform(const Control::ExportInfo& info);
Types::ExportClientInfo toPlatform(const Control::ExportClientInfo& client);
Types::ExportStatistics toPlatform(const Control::ExportStatistics& statistics);
Types::ImportID toPlatform(Control::ImportId id);
Types::ImportInfo toPlatform(const Control::ImportInfo& info);
Types::NetIfFirewallState toPlatform(const Control::NetIfFirewallState& state);
Types::ServerCapabilities toPlatform(Control::Flags<Control::ServerCapability> capabilities);
Types::RemoteServerDescriptor toPlatform(const Control::RemoteServerDescriptor& server);
Types::RemoteExportList toPlatform(const Control::RemoteExportList& list);
Types::RemoteServerReservationInfo toPlatform(const Control::RemoteServerReservationInfo& reservation);
Types::LocalServerReservationInfo toPlatform(const Control::LocalServerReservationInfo& reservation);

/// An address that is none becomes the empty text.
Control::Endpoint toControl(const IPEndpoint& endpoint);
Control::Variant toControl(const Types::Variant& variant);
Control::ExportDescriptor toControl(const Types::ExportDescriptor& descriptor);
Control::ImportDescriptor toControl(const Types::ImportDescriptor& descriptor);
Control::RemoteServerReservationRequest toControl(const Types::RemoteServerReservationRequest& request);

/// The text; the empty one for none.
std::string toText(const Ref<String>& text);
std::optional<std::string> toOptionalText(const Ref<String>& text);

}  // namespace Host::Records
