#include "nbdd/remote/search.h"

#include <algorithm>

#include "nbdd/limits.h"

namespace Nbdd::Remote {

Search::Search(Io::EventLoop& loop, Ask ask)
    : ask_(std::move(ask)), forget_(loop, [this] { round_.reset(); }) {}

bool Search::fetch(const Control::Endpoint& endpoint, const Expression& expression,
                   const std::vector<Control::Endpoint>& found, Answer& answer) {
  const Place place(endpoint.address, endpoint.port);
  if (take(place, expression, answer)) return true;
  if (std::ranges::find(found, endpoint) == found.end()) return false;

  // Whoever asked in the round before is answered all the same.
  round_ = std::make_shared<Round>();
  round_->expression = expression;
  // This one first, then those that are asked about next.
  round_->servers[place].waiting.push_back(std::move(answer));
  round_->waiting.push_back(endpoint);
  for (const Control::Endpoint& other : found) {
    if (round_->servers.try_emplace({other.address, other.port}).second) round_->waiting.push_back(other);
  }
  forget_.start(Limits::searchKept);
  askMore(round_);
  return true;
}

/// Answers from the round that runs, if it has something for this question, now or soon.
bool Search::take(const Place& place, const Expression& expression, Answer& answer) {
  if (!round_ || round_->expression != expression) return false;
  const auto asked = round_->servers.find(place);
  if (asked == round_->servers.end()) return false;
  forget_.start(Limits::searchKept);
  if (!asked->second.result) {
    asked->second.waiting.push_back(std::move(answer));
    return true;
  }
  auto result = std::move(*asked->second.result);
  round_->servers.erase(asked);
  answer(std::move(result));
  return true;
}

void Search::askMore(const std::shared_ptr<Round>& round) {
  // Answers that come at once come back here.
  if (std::exchange(round->asking, true)) return;
  while (!round->waiting.empty() && round->running < Limits::searchAtOnce) {
    const Control::Endpoint endpoint = std::move(round->waiting.front());
    round->waiting.pop_front();
    ++round->running;
    ask_(endpoint, round->expression,
         [this, round,
          place = Place(endpoint.address, endpoint.port)](Control::Result<Control::RemoteExportList> result) {
           answered(round, place, std::move(result));
         });
  }
  round->asking = false;
}

void Search::answered(const std::shared_ptr<Round>& round, const Place& place,
                      Control::Result<Control::RemoteExportList> result) {
  --round->running;
  const auto asked = round->servers.find(place);
  if (asked->second.waiting.empty()) {
    asked->second.result = std::move(result);
  } else {
    std::vector<Answer> waiting = std::move(asked->second.waiting);
    round->servers.erase(asked);
    for (Answer& answer : waiting) answer(result);
  }
  // A round that nobody asks about any more asks nobody else.
  if (round == round_) return askMore(round);
  std::erase_if(round->waiting, [&](const Control::Endpoint& endpoint) {
    return round->servers[{endpoint.address, endpoint.port}].waiting.empty();
  });
  askMore(round);
}

}  // namespace Nbdd::Remote
