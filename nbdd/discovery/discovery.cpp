#include "nbdd/discovery/discovery.h"

#include <algorithm>
#include <utility>

#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "talvek_version.h"

namespace Nbdd::Discovery {

namespace {

bool isLoopback(const std::string& address) { return address == "::1" || address.starts_with("127."); }

Announcement announcementOf(const Options& options, const std::string& uuid,
                            const std::vector<Control::Endpoint>& listening) {
  const std::string& label = options.label.empty() ? options.hostName : options.label;
  Announcement announcement{
      .name = label.empty() ? "nbdd" : std::string(cutText(label, Limits::discoveryTextLength)),
      .target = "nbdd-" + uuid,
      .port = listening.front().port,
      .timeToLive = options.timeToLive,
      .text = encodeText({.uuid = uuid,
                          .version = talvekVersion,
                          .platform = "Linux",
                          .label = label,
                          .hostName = options.hostName})};
  for (const Control::Endpoint& endpoint : listening) {
    if (!isLoopback(endpoint.address)) announcement.addresses.push_back(endpoint.address);
  }
  return announcement;
}

}  // namespace

Discovery::Discovery(Io::EventLoop& loop, Options options, std::string uuid)
    : loop_(loop),
      options_(std::move(options)),
      uuid_(std::move(uuid)),
      wish_{.interfaces = options_.interfaces},
      restartPause_(Limits::discoveryRestartFirst),
      restart_(loop, [this] { start(); }),
      patience_(loop, [this] { answerWaiting(); }),
      interest_(loop, [this] { loseInterest(); }) {}

Discovery::~Discovery() = default;

void Discovery::announce(const std::vector<Control::Endpoint>& listening) {
  if (!options_.enabled || listening.empty()) return;
  Announcement announcement = announcementOf(options_, uuid_, listening);
  wish_.announcements.clear();
  if (!announcement.addresses.empty()) wish_.announcements.push_back(std::move(announcement));
  fulfil();
}

void Discovery::withdraw() {
  wish_.announcements.clear();
  fulfil();
}

void Discovery::discover(Control::Answer<std::vector<Control::RemoteServerDescriptor>> answer) {
  if (!options_.enabled) {
    return answer(std::unexpected(Control::Failure{Control::FailureCode::discoveryFailed,
                                                   "discovery is turned off in the configuration of nbdd"}));
  }
  interest_.start(Limits::discoveryInterest);
  if (searched_) return answerFromView(std::move(answer));
  waiting_.push_back(std::move(answer));
  if (waiting_.size() > 1) return;
  patience_.start(Limits::discoveryTime);
  // Whoever waits now need not wait for a pause after a failure.
  restart_.cancel();
  wish_.browse = true;
  asked_ = loop_.now();
  fulfil();
}

void Discovery::answerFromView(Control::Answer<std::vector<Control::RemoteServerDescriptor>> answer) {
  answer(found_.list(uuid_));
  // Whoever came back without a word, behind a cable that was out, is in view the next time.
  if (loop_.now() - asked_ < Limits::discoveryAskAgain) return;
  asked_ = loop_.now();
  ++wish_.question;
  fulfil();
}

std::vector<Control::Endpoint> Discovery::endpoints() const {
  std::vector<Control::Endpoint> endpoints;
  for (Control::RemoteServerDescriptor& server : found_.list(uuid_))
    endpoints.push_back(std::move(server.endpoint));
  return endpoints;
}

void Discovery::close(Io::Function done) {
  closing_ = true;
  closed_ = std::move(done);
  interest_.cancel();
  restart_.cancel();
  patience_.cancel();
  wish_ = {.interfaces = options_.interfaces};
  answerWaiting();
  if (responder_) return responder_->end();
  loop_.defer([this] { std::exchange(closed_, {})(); });
}

/// Sees to it that a responder runs when there is something for it to do, and knows what.
void Discovery::fulfil() {
  const bool needed = !closing_ && (wish_.browse || !wish_.announcements.empty());
  if (!needed) {
    restart_.cancel();
    if (responder_) responder_->end();
    return;
  }
  // One that is saying goodbye is followed by another when it has ended.
  if (responder_) return responder_->tell(wish_);
  if (!restart_.running()) start();
}

void Discovery::start() {
  responder_ = std::make_unique<ResponderProcess>(
      loop_, ResponderProcess::Events{.report = [this](Report report) { takeReport(std::move(report)); },
                                      .ended = [this] { responderEnded(); }});
  if (const auto started = responder_->start(options_.program); !started) {
    log(LogLevel::warning, "discovery-start", "discovery does not work: {}", started.error());
    responder_.reset();
    restart_.start(restartPause_);
    restartPause_ = std::min(2 * restartPause_, Limits::discoveryRestartLongest);
    return;
  }
  responder_->tell(wish_);
}

void Discovery::takeReport(Report report) {
  if (auto* const sighting = std::get_if<Sighting>(&report)) {
    if (!found_.found(std::move(*sighting))) {
      log(LogLevel::warning, "discovery-full",
          "more than {} announcements of servers: the others are left out", Limits::discoverySightings);
    }
  } else if (const auto* const lost = std::get_if<Lost>(&report)) {
    found_.lost(lost->id);
  } else if (const auto* const remark = std::get_if<Remark>(&report)) {
    log(remark->level, "discovery", "{}", printable(remark->text));
    if (remark->level == LogLevel::info) restartPause_ = Limits::discoveryRestartFirst;
  } else if (wish_.browse) {
    searched_ = true;
    restartPause_ = Limits::discoveryRestartFirst;
    answerWaiting();
  }
}

void Discovery::responderEnded() {
  const bool asked = responder_->asked();
  // Not inside of what it calls.
  loop_.defer([ended = std::move(responder_)] {});
  found_.clear();
  searched_ = false;
  if (closed_) return std::exchange(closed_, {})();
  if (asked) return fulfil();
  log(LogLevel::notice, "discovery-ended", "the responder has ended and is started again");
  restart_.start(restartPause_);
  restartPause_ = std::min(2 * restartPause_, Limits::discoveryRestartLongest);
}

void Discovery::answerWaiting() {
  patience_.cancel();
  // A search that was cut short shows what it has; from now on others come into view by themselves.
  if (responder_ && wish_.browse) searched_ = true;
  for (auto& answer : std::exchange(waiting_, {})) {
    if (searched_) {
      answer(found_.list(uuid_));
    } else {
      answer(std::unexpected(Control::Failure{Control::FailureCode::discoveryFailed,
                                              "the local network cannot be searched: see the log of nbdd"}));
    }
  }
}

void Discovery::loseInterest() {
  wish_.browse = false;
  searched_ = false;
  found_.clear();
  fulfil();
}

}  // namespace Nbdd::Discovery
