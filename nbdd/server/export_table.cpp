#include "nbdd/server/export_table.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <utility>

namespace Nbdd {

namespace {

/// Whether the peer of a connected socket has closed its side, or is gone altogether.
bool peerIsGone(int socket) {
  tcp_info info{};
  socklen_t length = sizeof info;
  if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &length) != 0) {
    return false;  // no TCP socket: nothing is known
  }
  return info.tcpi_state != TCP_ESTABLISHED;
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

ExportTable::Attachment ExportTable::attach(const std::shared_ptr<const Publication>& publication,
                                            AttachedSession session, std::function<void()> wake) {
  const std::lock_guard lock(mutex_);
  const auto current = published_.find(publication->name);
  if (current == published_.end() || current->second != publication) {
    return Attachment::withdrawn;
  }
  Usage& usage = usage_[publication->id];
  if (std::ranges::any_of(usage.sessions, peerIsGone, &AttachedSession::socket)) {
    usage.waiting.push_back(std::move(wake));
    return Attachment::mustWait;
  }
  usage.sessions.push_back(std::move(session));
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
    std::erase_if(usage.sessions, [&](const AttachedSession& attached) { return attached.id == session; });
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
  const auto found = usage_.find(id);
  return found == usage_.end() ? std::vector<AttachedSession>() : found->second.sessions;
}

std::vector<AttachedSession> ExportTable::sessionsOfGonePeers(Control::ExportId id) const {
  const std::lock_guard lock(mutex_);
  std::vector<AttachedSession> gone;
  if (const auto found = usage_.find(id); found != usage_.end()) {
    std::ranges::copy_if(found->second.sessions, std::back_inserter(gone), peerIsGone,
                         &AttachedSession::socket);
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
