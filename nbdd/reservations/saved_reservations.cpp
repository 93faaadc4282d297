#include "nbdd/reservations/saved_reservations.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <limits>
#include <nlohmann/json.hpp>
#include <span>
#include <unordered_set>
#include <utility>

#include "control/base64.h"
#include "control/json_writer.h"
#include "nbd/bytes.h"
#include "nbdd/exports/identity.h"
#include "nbdd/reservations/limits.h"

namespace Nbdd::Reservations {

namespace {

using Json = nlohmann::json;
using Failure = std::unexpected<std::string>;

constexpr std::string_view formatName = "org.talvek.NBD.reservations";
constexpr std::uint64_t formatVersion = 1;

constexpr std::array rootMembers{"format", "version", "password", "granted", "held"};
constexpr std::array passwordMembers{"salt", "iterations", "storedKey", "serverKey"};
constexpr std::array grantedMembers{"id", "key", "holder"};
constexpr std::array heldMembers{"address", "port", "uuid", "id", "key"};

bool hasExactly(const Json& value, std::span<const char* const> members) {
  return value.is_object() && value.size() == members.size() &&
         std::ranges::all_of(members, [&](const char* name) { return value.contains(name); });
}

void writeOctets(Control::JsonWriter& writer, std::string_view name, std::span<const std::byte> octets) {
  writer.key(name);
  writer.string(Control::toBase64(asText(octets)));
}

bool readOctets(const Json& value, std::span<std::byte> octets) {
  if (!value.is_string()) return false;
  const std::optional<std::string> bytes = Control::fromBase64(value.get_ref<const std::string&>());
  if (!bytes || bytes->size() != octets.size()) return false;
  std::ranges::copy(std::as_bytes(std::span(*bytes)), octets.begin());
  return true;
}

std::string passwordLine(const std::optional<Verifier>& verifier) {
  if (!verifier) return "{}";
  Control::JsonWriter writer;
  writer.beginObject();
  writeOctets(writer, "salt", verifier->salt);
  writer.key("iterations");
  writer.number(verifier->iterations);
  writeOctets(writer, "storedKey", verifier->storedKey.octets());
  writeOctets(writer, "serverKey", verifier->serverKey.octets());
  writer.endObject();
  return writer.take();
}

std::string grantedLine(const std::optional<GrantedLease>& granted) {
  if (!granted) return "{}";
  Control::JsonWriter writer;
  writer.beginObject();
  writeOctets(writer, "id", granted->lease.id);
  writeOctets(writer, "key", granted->lease.key.octets());
  writer.key("holder");
  writer.string(granted->holder);
  writer.endObject();
  return writer.take();
}

std::string heldLine(const HeldLease& held) {
  Control::JsonWriter writer;
  writer.beginObject();
  writer.key("address");
  writer.string(held.server.address);
  writer.key("port");
  writer.number(held.server.port);
  writer.key("uuid");
  writer.string(held.uuid);
  writeOctets(writer, "id", held.lease.id);
  writeOctets(writer, "key", held.lease.key.octets());
  writer.endObject();
  return writer.take();
}

bool isAbsent(const Json& value) { return value.is_object() && value.empty(); }

bool isAddress(const std::string& text) { return !text.empty() && Nbd::isWireString(text); }

std::expected<std::optional<Verifier>, std::string> verifierFrom(const Json& value) {
  if (isAbsent(value)) return std::nullopt;
  Verifier verifier;
  if (!hasExactly(value, passwordMembers) || !value["iterations"].is_number_unsigned() ||
      !readOctets(value["salt"], verifier.salt) ||
      !readOctets(value["storedKey"], verifier.storedKey.octets()) ||
      !readOctets(value["serverKey"], verifier.serverKey.octets())) {
    return Failure("does not say what checks the password");
  }
  const std::uint64_t iterations = value["iterations"].get<std::uint64_t>();
  if (iterations < Limits::fewestIterations || iterations > Limits::mostIterations) {
    return Failure("has a number of iterations that no client accepts");
  }
  verifier.iterations = static_cast<std::uint32_t>(iterations);
  return verifier;
}

/// Whether the id is the one that follows from the key.
bool isWhole(const Lease& lease) { return leaseWith(lease.key).id == lease.id; }

std::expected<std::optional<GrantedLease>, std::string> grantedFrom(const Json& value) {
  if (isAbsent(value)) return std::nullopt;
  GrantedLease granted;
  if (!hasExactly(value, grantedMembers) || !readOctets(value["id"], granted.lease.id) ||
      !readOctets(value["key"], granted.lease.key.octets()) || !value["holder"].is_string() ||
      !isAddress(value["holder"].get_ref<const std::string&>()) || !isWhole(granted.lease)) {
    return Failure("does not say whose the granted lease is");
  }
  granted.holder = value["holder"].get_ref<const std::string&>();
  return granted;
}

std::expected<HeldLease, std::string> heldFrom(const Json& value) {
  HeldLease held;
  if (!hasExactly(value, heldMembers) || !value["address"].is_string() ||
      !isAddress(value["address"].get_ref<const std::string&>()) || !value["port"].is_number_unsigned() ||
      !value["uuid"].is_string() || !isUuid(value["uuid"].get_ref<const std::string&>()) ||
      !readOctets(value["id"], held.lease.id) || !readOctets(value["key"], held.lease.key.octets()) ||
      !isWhole(held.lease)) {
    return Failure("has a held lease that cannot be one");
  }
  const std::uint64_t port = value["port"].get<std::uint64_t>();
  if (port == 0 || port > std::numeric_limits<std::uint16_t>::max()) {
    return Failure("has a held lease of a server without a port");
  }
  held.server = {.address = value["address"].get_ref<const std::string&>(),
                 .port = static_cast<std::uint16_t>(port)};
  held.uuid = value["uuid"].get_ref<const std::string&>();
  return held;
}

std::expected<std::vector<HeldLease>, std::string> allHeldFrom(const Json& list) {
  if (!list.is_array() || list.size() > Limits::heldLeases) {
    return Failure("has no list of held leases, or one that is too long");
  }
  std::vector<HeldLease> all;
  std::unordered_set<std::string> servers;
  for (const Json& value : list) {
    auto held = heldFrom(value);
    if (!held) return Failure(std::move(held.error()));
    if (!servers.insert(held->uuid).second) return Failure("has two held leases of one server");
    all.push_back(std::move(*held));
  }
  return all;
}

}  // namespace

std::string printReservations(const SavedReservations& saved) {
  std::string held = "[";
  for (bool first = true; const HeldLease& lease : saved.held) {
    held += std::exchange(first, false) ? "\n" : ",\n";
    held += heldLine(lease);
  }
  return fmt::format(
      "{{\"format\":\"{}\",\"version\":{},\n\"password\":{},\n\"granted\":{},\n\"held\":{}\n]}}\n",
      formatName, formatVersion, passwordLine(saved.verifier), grantedLine(saved.granted), held);
}

std::expected<SavedReservations, std::string> parseReservations(std::string_view text) {
  const Json root = Json::parse(text, nullptr, false);
  if (root.is_discarded()) return Failure("is not whole");
  if (!root.is_object() || !root.contains("format") || root["format"] != formatName) {
    return Failure("is no file of nbdd's reservations");
  }
  if (!root.contains("version") || root["version"] != formatVersion) {
    return Failure(fmt::format("is not of the version that this nbdd reads, which is {}", formatVersion));
  }
  if (!hasExactly(root, rootMembers)) return Failure("has other members than a file of its version");
  SavedReservations saved;
  auto verifier = verifierFrom(root["password"]);
  if (!verifier) return Failure(std::move(verifier.error()));
  auto granted = grantedFrom(root["granted"]);
  if (!granted) return Failure(std::move(granted.error()));
  auto held = allHeldFrom(root["held"]);
  if (!held) return Failure(std::move(held.error()));
  if (*granted && !*verifier) return Failure("has a granted lease and no password");
  saved.verifier = std::move(*verifier);
  saved.granted = std::move(*granted);
  saved.held = std::move(*held);
  return saved;
}

}  // namespace Nbdd::Reservations
