#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "control/client.h"
#include "control/interface.h"
#include "host/service_location.h"

namespace Host {

/// Connects to the service, and starts it first if nothing listens, all before `deadline`. Two programs that
/// do so at the same time get the same service.
///
/// A service that is started is nobody's child and outlives this process. Its start-up error, one sentence,
/// goes to our standard error. Fails with what the connection failed with, or serviceStartFailed.
Control::Result<Control::Client> connectToService(const ServiceLocation& location,
                                                  Control::Client::Clock::time_point deadline);

}  // namespace Host
