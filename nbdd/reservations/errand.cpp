#include "nbdd/reservations/errand.h"

#include <utility>

namespace Nbdd::Reservations {

namespace {

/// Of a server that does not speak the extension nothing else is wanted, and its listing is as harmless as
/// anything.
Nbd::Extension::Inquiry::Wish wishOf(Nbd::Extension::Hello self) {
  Nbd::Extension::Inquiry::Wish wish;
  wish.self = std::move(self);
  wish.nothingElse = true;
  return wish;
}

}  // namespace

Errand::Errand(Io::EventLoop& control, Records& records, Nbd::Extension::Hello self,
               Remote::Security security, Task task, Told told)
    : control_(control),
      task_(std::move(task)),
      ear_(std::make_shared<Ear>(std::move(told))),
      inquiry_(wishOf(std::move(self))),
      dialler_(loop_, {.host = task_.server.address, .port = task_.server.port},
               Remote::Dialler::usualPatience(), std::move(security)) {
  const Channel channel = [this] { return dialler_.channelBinding(); };
  if (task_.password) {
    reserving_.emplace(inquiry_, records,
                       ReservingDialogue::Wish{.server = task_.server, .password = *task_.password}, channel);
  } else {
    proving_.emplace(inquiry_, records, task_.purpose, channel);
  }
  loop_.post([this] { scope_.spawn(run()); });
  thread_ = std::thread([this] { loop_.run(); });
}

Errand::~Errand() {
  ear_->listening = false;
  loop_.post([this] { dialler_.cancel(); });
  thread_.join();
}

Io::Task<void> Errand::run() {
  Nbd::ClientHandshake::Wish wish;
  wish.goal = Nbd::ClientHandshake::Goal::listing;
  if (reserving_) {
    wish.dialogue = &*reserving_;
  } else {
    wish.dialogue = &*proving_;
  }
  Io::Task<Remote::DialResult> dialling = dialler_.dial(std::move(wish));
  Remote::DialResult dialled = co_await dialling;
  control_.post([ear = ear_, report = report(dialled)]() mutable {
    if (!std::exchange(ear->listening, false)) return;
    Told told = std::move(ear->told);
    told(std::move(report));
  });
  if (dialled) dialled->stream.reset();  // while its loop is still there
  loop_.stop();
}

Errand::Report Errand::report(const Remote::DialResult& dialled) {
  Report report;
  if (!dialled) report.failure = dialled.error();
  if (reserving_) {
    report.reserved = reserving_->result();
    report.undecided = reserving_->undecided();
    report.held = reserving_->held();
  } else {
    report.proof = proving_->outcome();
    report.held = proving_->held();
    report.time = proving_->time();
  }
  return report;
}

}  // namespace Nbdd::Reservations
