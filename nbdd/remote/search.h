#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "control/interface.h"
#include "nbdd/io/event_loop.h"

namespace Nbdd::Remote {

/// Asks many servers the same, for a client that asks one after the other.
///
/// Whoever asks one of the servers that were just found about an expression is about to ask them all. So all
/// are asked at once, and the answers wait for their questions: servers that do not answer then cost the time
/// of one. The loop's thread.
class Search {
 public:
  using Answer = Control::Answer<Control::RemoteExportList>;
  using Expression = std::vector<std::byte>;
  /// Asks one server, and answers in any case.
  using Ask = std::function<void(Control::Endpoint, Expression, Answer)>;

  Search(Io::EventLoop& loop, Ask ask);

  /// What `endpoint` has that matches `expression`, if it is one of `found`: then those are asked too, and
  /// what they answer is kept for Limits::searchKept. Every answer is given once: whoever asks again gets a
  /// new one. False: it is not one of them, so this is no search. Nothing was asked, and `answer` is left.
  bool fetch(const Control::Endpoint& endpoint, const Expression& expression,
             const std::vector<Control::Endpoint>& found, Answer& answer);

 private:
  using Place = std::pair<std::string, std::uint16_t>;

  struct Asked {
    std::optional<Control::Result<Control::RemoteExportList>> result;
    std::vector<Answer> waiting;
  };

  /// Everybody asked about one expression. Shared with the answers that are still to come.
  struct Round {
    Expression expression;
    std::map<Place, Asked> servers;
    std::deque<Control::Endpoint> waiting;  // not asked yet
    std::size_t running = 0;
    bool asking = false;  // `askMore` is at work on it
  };

  bool take(const Place& place, const Expression& expression, Answer& answer);
  void askMore(const std::shared_ptr<Round>& round);
  void answered(const std::shared_ptr<Round>& round, const Place& place,
                Control::Result<Control::RemoteExportList> result);

  const Ask ask_;
  std::shared_ptr<Round> round_;
  Io::Timer forget_;
};

}  // namespace Nbdd::Remote
