#pragma once

#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "control/interface.h"
#include "nbd/extension.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/remote/dialler.h"

namespace Nbdd::Remote {

/// Asks remote servers for their exports: those of our own kind through the extension, all others by LIST and
/// INFO. The loop's thread.
class Listings {
 public:
  /// `self`: what servers of our own kind are told of this one.
  Listings(Io::EventLoop& loop, Nbd::Extension::Hello self,
           Dialler::Patience patience = Dialler::usualPatience(),
           std::shared_ptr<const SharedSecurity> security = {});

  /// `expression`: an encoded DiskSpec expression; only exports that match it are answered, and only a server
  /// of our own kind can. Answers within the time that a dialler takes, whatever the server does.
  void fetch(Place place, std::optional<std::vector<std::byte>> expression,
             Control::Answer<Control::RemoteExportList> answer);

  /// Gives up what is under way, and takes nothing new; then `done` is called, once.
  void close(Io::Function done);

 private:
  using Result = Control::Result<Control::RemoteExportList>;

  Io::Task<void> run(Place place, std::optional<std::vector<std::byte>> expression,
                     Control::Answer<Control::RemoteExportList> answer);
  Io::Task<Result> ask(Place place, std::optional<std::vector<std::byte>> expression);
  Io::Task<void> end(Io::Function done);

  Io::EventLoop& loop_;
  const Nbd::Extension::Hello self_;
  const Dialler::Patience patience_;
  const std::shared_ptr<const SharedSecurity> security_;
  std::list<Dialler*> diallers_;
  bool closing_ = false;
  Io::Scope scope_;
  Io::Scope ending_;
};

}  // namespace Nbdd::Remote
