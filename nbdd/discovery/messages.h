#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "nbdd/discovery/found_servers.h"
#include "nbdd/log/log.h"

namespace Nbdd::Discovery {

// What the service and its responder, a process of its own, tell each other: one JSON text a message, over a
// socket that keeps messages apart.

/// What is announced while the server listens.
struct Announcement {
  std::string name{};                    // as browsers show it; another is taken if somebody has it already
  std::string target{};                  // the host name that the announcement points to, without its domain
  std::vector<std::string> addresses{};  // listened on: numeric, "0.0.0.0" and "::" for all of the host's
  std::uint16_t port = 0;
  std::chrono::seconds timeToLive{};
  std::vector<std::string> text{};  // the strings of the TXT record

  friend bool operator==(const Announcement&, const Announcement&) = default;
};

/// All that the service wants at a time; the last wish counts.
struct Wish {
  std::vector<std::string> interfaces{};      // the only ones to use; empty: all that do multicast
  std::vector<Announcement> announcements{};  // none or one
  bool browse = false;
  std::uint32_t question = 0;  // another one than before: everybody is asked once more

  friend bool operator==(const Wish&, const Wish&) = default;
};

/// A sighting that is no more.
struct Lost {
  std::uint64_t id = 0;
  friend bool operator==(const Lost&, const Lost&) = default;
};

/// Everybody has had the time to answer, and what was heard has been reported.
struct Searched {
  friend bool operator==(const Searched&, const Searched&) = default;
};

/// A line for the service's log.
struct Remark {
  LogLevel level = LogLevel::info;
  std::string text{};
  friend bool operator==(const Remark&, const Remark&) = default;
};

using Report = std::variant<Sighting, Lost, Searched, Remark>;

std::string encode(const Wish& wish);
std::string encode(const Report& report);

/// A failure is a sentence. What these return keeps to the limits, whoever wrote the message.
std::expected<Wish, std::string> decodeWish(std::string_view message);
std::expected<Report, std::string> decodeReport(std::string_view message);

}  // namespace Nbdd::Discovery
