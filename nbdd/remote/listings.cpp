#include "nbdd/remote/listings.h"

#include <fmt/core.h>

#include <utility>

#include "nbd/extension_inquiry.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/remote/property_tree.h"

namespace Nbdd::Remote {

namespace {

using Control::Failure;
using Control::FailureCode;
using Nbd::ReplyType;
using Nbd::Extension::Inquiry;

std::string nameOf(const Place& place) { return fmt::format("{} port {}", escaped(place.host), place.port); }

/// What the operator is told when a server of our own kind does not tell its exports.
Failure refusalOf(const Nbd::Extension::Refusal& refusal, bool hasExpression, const Place& place) {
  const std::string reason = refusal.text.empty() ? "it gave no reason" : escaped(refusal.text);
  const bool isUnknown = refusal.type == ReplyType::unsupported;
  const bool isInvalid = refusal.type == ReplyType::invalid || refusal.type == ReplyType::tooBig;
  if (hasExpression && isUnknown) {
    return {FailureCode::extensionMissing,
            fmt::format("{} evaluates no expressions: {}", nameOf(place), reason)};
  }
  if (hasExpression && isInvalid) {
    return {FailureCode::expressionInvalid,
            fmt::format("{} does not accept the expression: {}", nameOf(place), reason)};
  }
  return {FailureCode::remoteRefused,
          fmt::format("{} refused to tell its exports: {}", nameOf(place), reason)};
}

std::optional<std::string> uuidOf(const Nbd::Extension::Uuid& uuid) {
  std::string text = Nbd::Extension::uuidText(uuid);
  if (text.empty()) return std::nullopt;
  return text;
}

void describeServer(Control::RemoteExportList& list, const Inquiry::Findings& findings) {
  list.isTalvekServer = findings.server.has_value();
  if (!findings.server) return;
  list.uuid = uuidOf(findings.server->server);
  list.properties = unflatten(findings.properties);
}

Control::RemoteExportList listOf(const Inquiry::Findings& findings,
                                 const std::vector<Nbd::RemoteExport>& listed) {
  Control::RemoteExportList list;
  describeServer(list, findings);
  if (findings.version) {
    for (const Nbd::Extension::ExportEntry& entry : findings.exports) {
      list.exports.push_back(
          {.name = entry.name, .uuid = uuidOf(entry.uuid), .size = entry.size, .flags = entry.flags});
    }
  } else {
    for (const Nbd::RemoteExport& remote : listed) {
      list.exports.push_back(
          {.name = remote.name, .size = remote.size.value_or(0), .flags = remote.transmissionFlags});
    }
  }
  return list;
}

}  // namespace

Listings::Listings(Io::EventLoop& loop, Nbd::Extension::Hello self, Dialler::Patience patience,
                   std::shared_ptr<const SharedSecurity> security)
    : loop_(loop), self_(std::move(self)), patience_(patience), security_(std::move(security)) {}

void Listings::fetch(Place place, std::optional<std::vector<std::byte>> expression,
                     Control::Answer<Control::RemoteExportList> answer) {
  if (closing_)
    return answer(std::unexpected(Failure{FailureCode::serviceStopping, "the service is about to end"}));
  if (diallers_.size() >= Limits::remoteListings) {
    return answer(
        std::unexpected(Failure{FailureCode::limitReached, "too many servers are being asked already"}));
  }
  scope_.spawn(run(std::move(place), std::move(expression), std::move(answer)));
}

Io::Task<void> Listings::run(Place place, std::optional<std::vector<std::byte>> expression,
                             Control::Answer<Control::RemoteExportList> answer) {
  Io::Task<Result> asking = ask(std::move(place), std::move(expression));
  Result result = co_await asking;
  answer(std::move(result));
}

Io::Task<Listings::Result> Listings::ask(Place place, std::optional<std::vector<std::byte>> expression) {
  const bool hasExpression = expression.has_value();
  Inquiry inquiry({.self = self_,
                   .properties = true,
                   .exports = true,
                   .expression = std::move(expression),
                   .nothingElse = true});
  Dialler dialler(loop_, place, patience_, security_ == nullptr ? Security() : security_->get());
  const auto position = diallers_.insert(diallers_.end(), &dialler);
  Io::Task<DialResult> dialling =
      dialler.dial({.goal = Nbd::ClientHandshake::Goal::details, .dialogue = &inquiry});
  const DialResult dialled = co_await dialling;
  diallers_.erase(position);
  if (!dialled) co_return std::unexpected(dialled.error());
  const Inquiry::Findings& findings = inquiry.findings();
  if (findings.exportsRefused)
    co_return std::unexpected(refusalOf(*findings.exportsRefused, hasExpression, place));
  if (hasExpression && !findings.version) {
    const char* const why = findings.server ? "it speaks another version" : "it runs no nbdd";
    co_return std::unexpected(Failure{FailureCode::extensionMissing,
                                      fmt::format("{} evaluates no expressions: {}", nameOf(place), why)});
  }
  co_return listOf(findings, dialled->exports);
}

void Listings::close(Io::Function done) {
  closing_ = true;
  for (Dialler* const dialler : diallers_) dialler->cancel();
  ending_.spawn(end(std::move(done)));
}

Io::Task<void> Listings::end(Io::Function done) {
  Io::Scope::Joined joined = scope_.join();
  co_await joined;
  done();
}

}  // namespace Nbdd::Remote
