#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/nbd_service.h"

// A platform for the utility to run on in tests. A test writes down what the operator types and what the
// service answers, and then compares one journal: every byte that the program printed with, in braces and at
// the place where it was made, every call on the platform that it made. So a journal tells the bytes, the
// calls, their order, and what was on the screen when each call was made:
//
//     Platform platform;
//     platform.fail("exportEnable", 0x2A);
//     EXPECT_EQ(platform.run("enable 7"),
//               failing("Enabling export with ID 7... {exportEnable 7}{Error::get}error 0x2A\n"));
//
// The runtime (Ref, String, printing, splitting, numbers) is the host's own and not in the journal.

namespace Support {

/// What the service holds. An operation fails if `Platform::fail` names it; one that asks for an ID that is
/// not here fails too, with the code `unknownID`.
struct Script {
  static constexpr std::uint32_t unknownID = 0xDEAD;

  std::vector<Services::NBD::Client::Types::NetIfFirewallState> firewall;
  std::uint32_t capabilities = 0;
  std::vector<std::uint32_t> exportIDs;
  std::map<std::uint32_t, Services::NBD::Client::Types::ExportInfo> exports;
  std::map<std::uint32_t, std::vector<Services::NBD::Client::Types::ExportClientInfo>> exportClients;
  std::map<std::uint32_t, Services::NBD::Client::Types::ExportStatistics> exportStatistics;
  std::uint32_t addedID = 1;
  std::vector<std::uint32_t> importIDs;
  std::map<std::uint32_t, Services::NBD::Client::Types::ImportInfo> imports;
  Services::NBD::Client::Types::Variant nodeInterfaces;
  Services::NBD::Client::Types::Variant properties;
  std::vector<Services::NBD::Client::Types::RemoteServerDescriptor> servers;
  /// What the server at an endpoint ("192.0.2.1:10809") offers.
  std::map<std::string, Services::NBD::Client::Types::RemoteExportList> remoteExports;
  std::vector<Services::NBD::Client::Types::RemoteServerReservationInfo> remoteReservations;
  std::optional<Services::NBD::Client::Types::LocalServerReservationInfo> localReservation;

  /// The working directory.
  std::string directory = "/work";
};

/// What came of one command: its result and the journal it wrote.
struct Answer {
  int result;
  std::string journal;

  friend bool operator==(const Answer&, const Answer&) = default;
};

Answer succeeding(std::string journal);
Answer failing(std::string journal);
std::ostream& operator<<(std::ostream& stream, const Answer& answer);

/// The platform as long as it lives. One at a time.
class Platform {
 public:
  Platform();
  ~Platform();
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;

  /// The platform that lives.
  static Platform& current();

  // ---- What the test sets up.

  Script script;

  /// Makes an operation fail from now on, with `code` as the reason. "initCommandline" and "create" are
  /// operations too, the latter that of the service.
  void fail(const std::string& operation, std::uint32_t code = 0) { failures_[operation] = code; }

  /// Has the calls of the initialisation lock and the heap written into the journal as well.
  void traceTearDown() { tracing_ = true; }

  /// Lets the heap give out only so many more blocks.
  void limitHeap(std::size_t blocks) { heapLeft_ = blocks; }

  // ---- What the test runs.

  /// Runs the handler of the command that `line` begins with, with its other words.
  Answer run(std::string_view line);

  /// Runs the whole program, reason 1 then reason 0, with an operator who types `lines` and then ends the
  /// input. Returns the journal.
  std::string runSession(std::vector<std::string> lines);

  /// Runs the whole program with `arguments` behind the program's name. Returns the journal.
  std::string runOnce(std::vector<std::string> arguments);

  // ---- What the faked platform calls do.

  /// Writes a call into the journal.
  void record(std::string_view call);
  /// Whether `operation` is to fail; sets the reason if so.
  bool fails(const std::string& operation);
  void setError(std::uint32_t code) { error_ = code; }
  [[nodiscard]] std::uint32_t error() const { return error_; }

  std::string journal;
  std::vector<std::string> arguments;
  std::vector<std::string> typed;
  std::size_t printers = 0;
  std::size_t heapBlocks = 0;
  int lockDepth = 0;
  [[nodiscard]] bool isTracing() const { return tracing_; }
  bool takeHeapBlock();

 private:
  std::string takeJournal();

  std::map<std::string, std::uint32_t> failures_;
  std::optional<std::size_t> heapLeft_;
  std::uint32_t error_ = 0;
  bool tracing_ = false;
};

/// An endpoint from an address as people write it.
Services::Network::Definitions::IPEndpoint endpoint(std::string_view address, std::uint16_t port);

/// Text from a literal.
Ref<String> text(std::string_view bytes);

}  // namespace Support
