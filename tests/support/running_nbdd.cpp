#include "tests/support/running_nbdd.h"

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "control/methods.h"

namespace Testing {

namespace {

template <typename Value>
Value must(Control::Result<Value> result) {
  if (!result) throw std::runtime_error("the service refused: " + result.error().message);
  if constexpr (!std::is_void_v<Value>) return std::move(*result);
}

Control::Client startServer(ServiceProcess& service) {
  service.start();
  Control::Client control = service.connect();
  must(control.call(Control::Methods::serverStart));
  return control;
}

}  // namespace

RunningNbdd::RunningNbdd() : control_(startServer(service_)), port_(service_.port()) {
  if (port_ == 0) throw std::runtime_error("the service does not listen");
}

RunningNbdd::Export RunningNbdd::publish(const std::string& fileName, std::uint64_t size, bool readOnly) {
  return publishNode(service_.files().sparse(fileName, size), readOnly);
}

RunningNbdd::Export RunningNbdd::publishNode(const std::filesystem::path& node, bool readOnly) {
  Export published{.id = {}, .name = {}, .file = node};
  Control::ExportDescriptor descriptor;
  descriptor.node = published.file;
  if (readOnly) descriptor.flags.set(Control::ExportFlag::readOnly);
  published.id = must(control_.call(Control::Methods::exportAdd, descriptor));
  must(control_.call(Control::Methods::exportEnable, published.id));
  published.name = must(control_.call(Control::Methods::exportInfo, published.id)).descriptor.name.value();
  return published;
}

std::size_t RunningNbdd::clientCount(const Export& published) {
  return must(control_.call(Control::Methods::exportGetClients, published.id)).size();
}

std::filesystem::path RunningNbdd::procDirectory() const {
  return std::filesystem::path("/proc") / std::to_string(service_.process());
}

std::size_t RunningNbdd::memory(std::string_view row) const {
  std::ifstream status(procDirectory() / "status");
  std::string word;
  while (status >> word) {
    if (word == row) {
      std::size_t kibibytes = 0;
      status >> kibibytes;
      return kibibytes;
    }
  }
  throw std::runtime_error("the service is gone: " + log());
}

std::size_t RunningNbdd::descriptorCount() const {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator(procDirectory() / "fd"), {}));
}

}  // namespace Testing
