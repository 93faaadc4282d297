#include "host/service_records.h"

#include <arpa/inet.h>
#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <variant>

namespace Host::Records {

namespace {

using Services::Network::Definitions::IPAddress;

template <class... Visitors>
struct Overloaded : Visitors... {
  using Visitors::operator()...;
};

Ref<String> text(std::string_view bytes) { return String::create(bytes); }

Ref<String> optionalText(const std::optional<std::string>& bytes) {
  return bytes ? text(*bytes) : Ref<String>();
}

std::string addressText(const IPAddress& address) {
  if (address == IPAddress()) return {};
  if (address.family == IPAddress::familyIPv4) {
    const std::uint32_t number = address.pair(0);
    return fmt::format("{}.{}.{}.{}", number >> 24U, number >> 16U & 0xFFU, number >> 8U & 0xFFU,
                       number & 0xFFU);
  }
  in6_addr octets{};
  for (std::size_t group = 0; group < address.groups.size(); ++group) {
    octets.s6_addr[2 * group] = static_cast<std::uint8_t>(address.groups[group] >> 8U);
    octets.s6_addr[2 * group + 1] = static_cast<std::uint8_t>(address.groups[group] & 0xFFU);
  }
  std::array<char, INET6_ADDRSTRLEN> written{};
  ::inet_ntop(AF_INET6, &octets, written.data(), written.size());
  return address.scope == 0 ? std::string(written.data())
                            : fmt::format("{}%{}", written.data(), address.scope);
}

Types::ExportDescriptor toPlatform(const Control::ExportDescriptor& descriptor) {
  return {.name = optionalText(descriptor.name),
          .node = text(descriptor.node),
          .flags = descriptor.flags.mask(),
          .elemCount = descriptor.elemCount,
          .elemSize = descriptor.elemSize};
}

Types::ExportTransferCounters toPlatform(const Control::ExportTransferCounters& counters) {
  return {.numTransTotal = counters.numTransTotal,
          .numTransCompressed = counters.numTransCompressed,
          .bytesTransTotal = counters.bytesTransTotal,
          .bytesTransTransferred = counters.bytesTransTransferred};
}

Types::RemoteExportEntry toPlatform(const Control::RemoteExportEntry& entry) {
  return {
      .name = text(entry.name), .uuid = optionalText(entry.uuid), .size = entry.size, .flags = entry.flags};
}

// The enumerations have the same values on both sides.
template <class To, class From>
std::optional<To> sameValue(const std::optional<From>& value) {
  return value ? std::optional(static_cast<To>(*value)) : std::nullopt;
}

Ref<Types::BinaryData> binary(std::string_view octets) {
  std::vector<std::byte> bytes(octets.size());
  std::ranges::transform(octets, bytes.begin(), [](char octet) { return static_cast<std::byte>(octet); });
  return Types::BinaryData::create(std::move(bytes));
}

void fill(Types::VariantEntry& to, const Control::VariantEntry& from) {
  using enum Types::VariantType;
  to.name = text(from.name);
  std::visit(
      Overloaded{
          [&](std::monostate) { to.type = Empty; },
          [&](std::uint64_t number) { to.type = Number, to.number = number; },
          [&](const std::string& value) { to.type = Text, to.text = text(value); },
          [&](const Control::Binary& value) { to.type = Binary, to.binary = binary(value.octets); },
          [&](const Control::Variant& value) { to.type = Nested, to.nested = Records::toPlatform(value); },
      },
      from.value);
}

Control::VariantEntry toControl(const Types::VariantEntry& entry) {
  Control::VariantEntry result{.name = toText(entry.name), .value = {}};
  switch (entry.type) {
    case Types::VariantType::Number:
      result.value = entry.number;
      break;
    case Types::VariantType::Text:
      result.value = toText(entry.text);
      break;
    case Types::VariantType::Binary: {
      Control::Binary octets;
      if (entry.binary) {
        for (const std::byte octet : entry.binary->bytes()) octets.octets += static_cast<char>(octet);
      }
      result.value = std::move(octets);
      break;
    }
    case Types::VariantType::Nested:
      result.value = Records::toControl(entry.nested);
      break;
    case Types::VariantType::Empty:
      break;
  }
  return result;
}

}  // namespace

IPEndpoint toPlatform(const Control::Endpoint& endpoint) {
  return {.address = IPAddress::parse(text(endpoint.address)), .port = endpoint.port};
}

Types::Variant toPlatform(const Control::Variant& variant) {
  Types::Variant result(variant.size());
  for (std::size_t index = 0; index < variant.size(); ++index) fill(result.entry(index), variant[index]);
  return result;
}

Types::ExportID toPlatform(Control::ExportId id) { return static_cast<Types::ExportID>(id); }

Types::ExportInfo toPlatform(const Control::ExportInfo& info) {
  return {.id = toPlatform(info.id),
          .descriptor = toPlatform(info.descriptor),
          .state = static_cast<Types::ExportState>(info.state),
          .reason = sameValue<Types::ExportReason>(info.reason),
          .uuid = text(info.uuid)};
}

Types::ExportClientInfo toPlatform(const Control::ExportClientInfo& client) {
  return {.endpoint = toPlatform(client.endpoint), .details = toPlatform(client.details)};
}

Types::ExportStatistics toPlatform(const Control::ExportStatistics& statistics) {
  return {.rx = toPlatform(statistics.rx), .tx = toPlatform(statistics.tx)};
}

Types::ImportID toPlatform(Control::ImportId id) { return static_cast<Types::ImportID>(id); }

Types::ImportInfo toPlatform(const Control::ImportInfo& info) {
  return {.id = toPlatform(info.id),
          .descriptor = {.name = text(info.descriptor.name),
                         .server = toPlatform(info.descriptor.server),
                         .flags = info.descriptor.flags.mask()},
          .state = static_cast<Types::ImportState>(info.state),
          .size = info.size,
          .node = text(info.node),
          .reserved = info.connections,
          .disableReason = sameValue<Types::ImportDisableReason>(info.disableReason),
          .description = text(info.description)};
}

Types::NetIfFirewallState toPlatform(const Control::NetIfFirewallState& state) {
  return {.endpoint = toPlatform(state.endpoint)};
}

Types::ServerCapabilities toPlatform(Control::Flags<Control::ServerCapability> capabilities) {
  return Types::ServerCapabilities(capabilities.mask());
}

Types::RemoteServerDescriptor toPlatform(const Control::RemoteServerDescriptor& server) {
  return {.source = {},
          .endpoint = toPlatform(server.endpoint),
          .interfaceIndex = 0,
          .properties = toPlatform(server.properties),
          .label = text(server.label)};
}

Types::RemoteExportList toPlatform(const Control::RemoteExportList& list) {
  Types::RemoteExportList result;
  for (const Control::RemoteExportEntry& entry : list.exports) result.exports.push_back(toPlatform(entry));
  result.isTalvekServer = list.isTalvekServer;
  result.properties = toPlatform(list.properties);
  result.uuid = optionalText(list.uuid);
  return result;
}

Types::RemoteServerReservationInfo toPlatform(const Control::RemoteServerReservationInfo& reservation) {
  return {.endpoint = toPlatform(reservation.endpoint), .details = toPlatform(reservation.properties)};
}

Types::LocalServerReservationInfo toPlatform(const Control::LocalServerReservationInfo& reservation) {
  return {.endpoint = toPlatform(reservation.endpoint), .details = toPlatform(reservation.properties)};
}

Control::Endpoint toControl(const IPEndpoint& endpoint) {
  return {.address = addressText(endpoint.address), .port = endpoint.port};
}

Control::Variant toControl(const Types::Variant& variant) {
  Control::Variant result;
  for (std::uint64_t index = 0; index < variant.count(); ++index)
    result.push_back(toControl(variant.entry(index)));
  return result;
}

Control::ExportDescriptor toControl(const Types::ExportDescriptor& descriptor) {
  return {.name = toOptionalText(descriptor.name),
          .node = toText(descriptor.node),
          .flags = Control::Flags<Control::ExportFlag>::fromMask(descriptor.flags),
          .elemCount = descriptor.elemCount,
          .elemSize = descriptor.elemSize};
}

Control::ImportDescriptor toControl(const Types::ImportDescriptor& descriptor) {
  return {.name = toText(descriptor.name),
          .server = toControl(descriptor.server),
          .flags = Control::Flags<Control::ImportFlag>::fromMask(descriptor.flags)};
}

Control::RemoteServerReservationRequest toControl(const Types::RemoteServerReservationRequest& request) {
  return {.endpoint = toControl(request.endpoint),
          .password = toText(request.password),
          .properties = toControl(request.details)};
}

std::string toText(const Ref<String>& text) { return text ? std::string(text->view()) : std::string(); }

std::optional<std::string> toOptionalText(const Ref<String>& text) {
  return text ? std::optional(toText(text)) : std::nullopt;
}

}  // namespace Host::Records
