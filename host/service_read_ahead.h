#pragma once

// Asking for the next record before it is asked for.
//
// A listing of n exports is 2n + 1 operations of the proxy, each synchronous: one round trip between two
// processes after the other, with two changes of process in each, and most of that time nobody computes. On
// two busy cores and a service that answers at once, 20,001 operations took 1.4 s one by one, and 0.11 s in
// the way that follows.
//
// The order of a listing is known: who has asked for the list of exports, or of imports, and then for the
// first of them will ask for the second. So when an operation is the expected one, the calls for the next
// ones go out with it, a window of them, and their answers are on the way while the caller still handles the
// first.
//
// Why nobody can tell:
//
// - Only reads are sent ahead. The service does them without any effect, so those that are never asked for
//   are received and thrown away.
// - An answer that is given out is the service's answer to exactly the operation that was asked for: same
//   method, same export or import, in the same order on the same connection.
// - It was computed after the list it follows, and no longer than a second before it was asked for. A listing
//   never was a snapshot: an export may change between any two of its operations, and an answer that is a
//   moment old is one that the caller could have got by being that moment faster.
// - Before any other operation is sent, all answers that are on the way are taken in and thrown away, so no
//   operation is ever followed by an answer from before it.

#include <chrono>
#include <cstddef>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

#include "control/client.h"

namespace Host {

/// One series of calls of one method for a list of exports or imports.
template <const auto& method, class Id>
class ReadAhead {
 public:
  using Clock = std::chrono::steady_clock;
  using Answer = Control::Result<typename std::remove_cvref_t<decltype(method)>::Output>;

  /// Expects a call for each of `ids`, in their order. Nothing may be on the way.
  void expect(std::vector<Id> ids) {
    ids_ = std::move(ids);
    taken_ = sent_ = 0;
  }

  /// Adds one more at the end.
  void expectAlso(Id id) { ids_.push_back(id); }

  /// Whether a call for `id` is the next one expected, and its answer, if it is here already, still good.
  bool expects(Id id) const {
    const bool fresh = taken_ == sent_ || Clock::now() - lastSent_ < freshness;
    return taken_ < ids_.size() && ids_[taken_] == id && fresh;
  }

  /// The answer to the expected call, for which this also asks for those behind it. `client` is open.
  Answer take(Control::Client& client) {
    if (sent_ - taken_ <= window / 2) sendAhead(client);
    ++taken_;
    return client.receive(method);
  }

  /// How many answers are on the way.
  std::size_t outstanding() const { return sent_ - taken_; }

  /// Expects nothing any more. The caller takes in what is on the way.
  void forget() { expect({}); }

 private:
  // Enough for both processes to work at the same time, and so few that neither the calls nor their answers
  // fill a socket's buffer.
  static constexpr std::size_t window = 128;
  // Since the last window was sent. The oldest answers belong to the window before it, which was as fresh
  // when that one was sent: twice this is the greatest age.
  static constexpr std::chrono::milliseconds freshness{500};

  void sendAhead(Control::Client& client) {
    for (; sent_ < ids_.size() && sent_ - taken_ < window; ++sent_) {
      if (!client.queue(method, ids_[sent_])) break;
    }
    lastSent_ = Clock::now();
    client.flush();
  }

  std::vector<Id> ids_;
  std::size_t taken_ = 0;
  std::size_t sent_ = 0;
  Clock::time_point lastSent_;
};

}  // namespace Host
