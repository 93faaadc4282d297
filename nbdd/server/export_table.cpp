#include "nbdd/server/export_table.h"

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <numeric>
#include <ranges>
#include <span>
#include <utility>

namespace Nbdd {

namespace {

/// Sessions whose peers are gone, told at once.
constexpr std::size_t goneAtOnce = 256;

/// The numbers of sessions whose peers have closed their side or are gone altogether, `most` at the most.
std::vector<SessionId> goneSessions(int watch, std::size_t most) {
  std::array<epoll_event, goneAtOnce> events;
  const int count = ::epoll_wait(watch, events.data(), static_cast<int>(std::min(most, events.size())), 0);
  std::vector<SessionId> gone;
  for (const epoll_event& event : std::span(events).first(static_cast<std::size_t>(std::max(count, 0)))) {
    const SessionId session = event.data.u64;  // the event is packed, so nothing may refer to it
    gone.push_back(session);
  }
  return gone;
}

bool isAmong(const std::vector<SessionId>& sessions, SessionId session) {
  return std::ranges::find(sessions, session) != sessions.end();
}

}  // namespace

void ExportTable::publish(Publication publication) {
  const std::lock_guard lock(mutex_);
  auto shared = std::make_shared<const Publication>(std::move(publication));
  names_[shared->id] = shared->name;
  published_[shared->name] = shared;
  listing_ = nullptr;
}

void ExportTable::withdraw(Control::ExportId id) {
  const std::lock_guard lock(mutex_);
  if (const auto name = names_.find(id); name != names_.end()) {
    published_.erase(name->second);
    names_.erase(name);
    newest_.erase(id);
    listing_ = nullptr;
  }
}

std::shared_ptr<const Publication> ExportTable::findPublication(std::string_view name) const {
  const std::lock_guard lock(mutex_);
  if (name.empty() && published_.size() == 1) {
    return published_.begin()->second;
  }
  const auto found = published_.find(name);
  return found == published_.end() ? nullptr : found->second;
}

std::optional<Nbd::ExportView> ExportTable::find(std::string_view name) const {
  const std::shared_ptr<const Publication> publication = findPublication(name);
  if (!publication) {
    return std::nullopt;
  }
  const Storage& storage = *publication->storage;
  return Nbd::ExportView{.name = publication->name,
                         .description = publication->description,
                         .size = storage.size(),
                         .transmissionFlags = storage.transmissionFlags(),
                         .minimumBlock = 1,
                         .preferredBlock = storage.node().preferredBlock,
                         .maximumPayload = Nbd::maxPayload,
                         .handle = std::const_pointer_cast<Publication>(publication)};
}

std::shared_ptr<const std::vector<Nbd::ListedExport>> ExportTable::list() const {
  const std::lock_guard lock(mutex_);
  if (!listing_) {
    std::vector<Nbd::ListedExport> listing;
    listing.reserve(published_.size());
    for (const auto& [name, publication] : published_) {
      listing.push_back({.name = name, .description = publication->description});
    }
    listing_ = std::make_shared<const std::vector<Nbd::ListedExport>>(std::move(listing));
  }
  return listing_;
}

std::vector<std::shared_ptr<const Publication>> ExportTable::publications() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<const Publication>> all;
  all.reserve(published_.size());
  for (const auto& [name, publication] : published_) {
    all.push_back(publication);
  }
  return all;
}

void ExportTable::admitOnly(std::optional<Reservations::LeaseId> lease) {
  const std::lock_guard lock(mutex_);
  reserved_ = true;
  lease_ = lease;
}

void ExportTable::admitAll() {
  const std::lock_guard lock(mutex_);
  reserved_ = false;
}

bool ExportTable::admits(const std::optional<Reservations::LeaseId>& lease) const {
  const std::lock_guard lock(mutex_);
  return isAdmitted(lease);
}

bool ExportTable::isAdmitted(const std::optional<Reservations::LeaseId>& lease) const {
  return !reserved_ || (lease_ && lease == lease_);
}

void ExportTable::setAccess(std::shared_ptr<const Access> access) {
  const std::lock_guard lock(mutex_);
  access_ = std::move(access);
}

std::shared_ptr<const Access> ExportTable::access() const {
  const std::lock_guard lock(mutex_);
  return access_;
}

ExportTable::Attachment ExportTable::attach(const std::shared_ptr<const Publication>& publication,
                                            AttachedSession session, std::function<void()> wake) {
  const std::lock_guard lock(mutex_);
  if (!isAdmitted(session.lease)) {
    return Attachment::reserved;
  }
  const auto current = published_.find(publication->name);
  if (current == published_.end() || current->second != publication) {
    return Attachment::withdrawn;
  }
  Usage& usage = usage_[publication->id];
  if (!usage.gonePeers) {
    usage.gonePeers = Io::FileDescriptor(::epoll_create1(EPOLL_CLOEXEC));
  }
  if (usage.gonePeers && !goneSessions(usage.gonePeers.number(), 1).empty()) {
    usage.waiting.push_back(std::move(wake));
    return Attachment::mustWait;
  }
  epoll_event event{};
  event.events = EPOLLRDHUP;  // errors and hang-ups are told unasked
  event.data.u64 = session.id;
  if (::epoll_ctl(usage.gonePeers.number(), EPOLL_CTL_ADD, session.socket, &event) != 0) {
    if (usage.sessions.empty()) {
      usage_.erase(publication->id);
    }
    return Attachment::outOfDescriptors;
  }
  const SessionId id = session.id;
  SessionId& newest = newest_[publication->id];
  if (id < newest && isAmong(goneSessions(usage.gonePeers.number(), goneAtOnce), id)) {
    ::epoll_ctl(usage.gonePeers.number(), EPOLL_CTL_DEL, session.socket, nullptr);
    if (usage.sessions.empty()) {
      usage_.erase(publication->id);
    }
    return Attachment::overtaken;
  }
  newest = std::max(newest, id);
  usage.sessions.emplace(id, std::move(session));
  return Attachment::attached;
}

void ExportTable::detach(Control::ExportId id, SessionId session) {
  std::vector<std::function<void()>> waiting;
  bool last = false;
  {
    const std::lock_guard lock(mutex_);
    const auto found = usage_.find(id);
    if (found == usage_.end()) {
      return;
    }
    Usage& usage = found->second;
    if (const auto attached = usage.sessions.find(session); attached != usage.sessions.end()) {
      ::epoll_ctl(usage.gonePeers.number(), EPOLL_CTL_DEL, attached->second.socket, nullptr);
      usage.sessions.erase(attached);
    }
    waiting.swap(usage.waiting);
    last = usage.sessions.empty();
    if (last) {
      usage_.erase(found);
    }
  }
  for (const std::function<void()>& wake : waiting) {
    wake();
  }
  if (last) {
    lastLeft_(id);
  }
}

std::vector<AttachedSession> ExportTable::sessions(Control::ExportId id) const {
  const std::lock_guard lock(mutex_);
  std::vector<AttachedSession> sessions;
  if (const auto found = usage_.find(id); found != usage_.end()) {
    std::ranges::copy(found->second.sessions | std::views::values, std::back_inserter(sessions));
  }
  return sessions;
}

std::vector<AttachedSession> ExportTable::sessions() const {
  const std::lock_guard lock(mutex_);
  std::vector<AttachedSession> sessions;
  for (const auto& [id, usage] : usage_) {
    std::ranges::copy(usage.sessions | std::views::values, std::back_inserter(sessions));
  }
  return sessions;
}

std::vector<AttachedSession> ExportTable::sessionsOfGonePeers(Control::ExportId id) const {
  const std::lock_guard lock(mutex_);
  std::vector<AttachedSession> gone;
  if (const auto found = usage_.find(id); found != usage_.end()) {
    for (const SessionId session : goneSessions(found->second.gonePeers.number(), goneAtOnce)) {
      gone.push_back(found->second.sessions.at(session));
    }
  }
  return gone;
}

std::size_t ExportTable::sessionCount(Control::ExportId id) const {
  const std::lock_guard lock(mutex_);
  const auto found = usage_.find(id);
  return found == usage_.end() ? 0 : found->second.sessions.size();
}

std::size_t ExportTable::sessionCount() const {
  const std::lock_guard lock(mutex_);
  return std::accumulate(
      usage_.begin(), usage_.end(), std::size_t{0},
      [](std::size_t count, const auto& usage) { return count + usage.second.sessions.size(); });
}

}  // namespace Nbdd
