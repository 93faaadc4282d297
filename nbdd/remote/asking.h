#pragma once

#include <coroutine>
#include <utility>

#include "nbdd/remote/device.h"
#include "nbdd/remote/request.h"

namespace Nbdd::Remote {

/// A request that a coroutine awaits: `Asking asking(device, Nbd::Command::flush); error = co_await asking;`.
/// A variable of the awaiting coroutine, as is the memory that it names.
class Asking : public Request {
 public:
  Asking(Device& device, Nbd::Command which, std::uint64_t at = 0, std::uint64_t bytes = 0)
      : device_(device) {
    command = which;
    offset = at;
    length = bytes;
  }

  void done(Nbd::Error error) final {
    error_ = error;
    std::exchange(waiter_, {}).resume();
  }

  bool await_ready() const noexcept { return false; }
  void await_suspend(std::coroutine_handle<> waiter) {
    waiter_ = waiter;
    device_.submit(*this);
  }
  Nbd::Error await_resume() const noexcept { return error_; }

 private:
  Device& device_;
  std::coroutine_handle<> waiter_;
  Nbd::Error error_ = Nbd::Error::none;
};

}  // namespace Nbdd::Remote
