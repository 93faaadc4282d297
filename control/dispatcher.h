#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "control/failure.h"
#include "control/interface.h"

namespace Control {

/// What GetInfo tells.
struct Identity {
  std::string vendor;
  std::string product;
  std::string version;
  std::string url;
};

/// An operation that the service did not do.
struct Refusal {
  std::string_view method;  ///< "ExportAdd"; lives as long as the program
  Failure failure;
};

/// What became of one message.
struct Outcome {
  std::string reply;   ///< to be sent, without the NUL that ends it; empty if the caller wants none
  bool close = false;  ///< the peer does not speak Varlink: end the connection after the reply
  std::optional<Refusal> refusal = std::nullopt;  ///< why the operation that was called has failed, if it has
};

/// Turns each message from a client into one call of the service and its answer into one reply.
///
/// Holds nothing of the connections, so one serves them all. For one thread, that of the service.
class Dispatcher {
 public:
  using Done = std::move_only_function<void(Outcome)>;

  /// `service` must live as long as this.
  Dispatcher(Service& service, Identity identity);
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;
  ~Dispatcher();

  /// Handles one message (without its NUL; it need not outlive the call). `done` is called exactly once, in
  /// this call or later: also if the service drops its answer, which is an internalError.
  void dispatch(std::string_view message, Done done);

 private:
  class Table;
  std::unique_ptr<Table> table_;
};

}  // namespace Control
