#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "control/client.h"
#include "tests/support/service_process.h"

namespace Testing {

/// A started service of its own for one test, with exports, and what can be told about it from outside.
class RunningNbdd {
 public:
  RunningNbdd();

  struct Export {
    Control::ExportId id{};
    std::string name;
    std::filesystem::path file;
  };

  /// Makes a file of `size` bytes that reads as zeroes, and enables it as an export.
  Export publish(const std::string& fileName, std::uint64_t size, bool readOnly = false);
  /// Enables a file or block device that is there already as an export.
  Export publishNode(const std::filesystem::path& node, bool readOnly = false);
  [[nodiscard]] std::size_t clientCount(const Export& published);

  [[nodiscard]] std::uint16_t port() const { return port_; }
  /// Memory that it holds now (VmRSS).
  [[nodiscard]] std::size_t residentKibibytes() const { return memory("VmRSS:"); }
  /// The most that it ever held (VmHWM).
  [[nodiscard]] std::size_t peakKibibytes() const { return memory("VmHWM:"); }
  [[nodiscard]] std::size_t descriptorCount() const;

  /// Ends it, in order. How that went, and its log.
  Ending stop() { return service_.stop(); }
  [[nodiscard]] std::string log() const { return service_.log(); }

 private:
  [[nodiscard]] std::filesystem::path procDirectory() const;
  [[nodiscard]] std::size_t memory(std::string_view row) const;

  ServiceProcess service_;
  Control::Client control_;
  std::uint16_t port_;
};

}  // namespace Testing
