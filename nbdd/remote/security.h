#pragma once

#include <memory>
#include <mutex>
#include <utility>

#include "nbd/constants.h"
#include "nbdd/tls/credentials.h"

namespace Nbdd::Remote {

/// How connections to servers are secured.
struct Security {
  Nbd::TlsMode mode = Nbd::TlsMode::off;
  std::shared_ptr<const Tls::Credentials> credentials;  // not null unless TLS is off
};

/// The same for all imports, as it is at the moment: each new connection asks for it. Any thread.
class SharedSecurity {
 public:
  void replace(Security security) {
    const std::lock_guard lock(mutex_);
    security_ = std::move(security);
  }
  Security get() const {
    const std::lock_guard lock(mutex_);
    return security_;
  }

 private:
  mutable std::mutex mutex_;
  Security security_;  // guarded by mutex_
};

}  // namespace Nbdd::Remote
