#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nbd/bytes.h"
#include "nbd/constants.h"
#include "nbd/export_view.h"
#include "nbd/extension_peers.h"
#include "nbd/validation.h"

namespace Nbd {

/// The server's side of the fixed newstyle handshake, as a machine that turns bytes into bytes.
///
/// The caller owns the connection and runs this loop:
///
///     handshake.greet(output);
///     for (;;) {
///       send all of output, empty it;
///       auto [consumed, state, granted] = handshake.advance(input, output);
///       drop `consumed` bytes from the front of input;
///       if (state == failed) close;
///       if (state == startTls) { send output; make the TLS handshake; handshake.secured(); forget input; }
///       if (state != negotiating) send output; closing: close; transmission: serve requests, input first;
///       if (waiting) wait for the notice of the extension's handler;
///       else if (consumed == 0 && output.empty()) receive more input;
///     }
///
/// One call answers at most one option, and adds about handshakeOutputStep bytes at most: who does not call
/// while output waits to be sent is safe from a client that asks and never reads. Bytes behind the option
/// that ends the handshake are never touched. Any split of the same bytes over calls gives the same output
/// and the same end, but for bytes that come behind a STARTTLS before it is answered: no client has anything
/// to say there, and whoever says it might pass for the client inside of TLS. Seen here, they end the
/// connection; what comes later goes to TLS, which refuses it. What a client can make this hold is
/// maxOptionLength bytes, one agreement, and a share of one listing.
///
/// Bounding the time that a handshake takes is the caller's business. One connection, one thread at a time.
class ServerHandshake {
 public:
  /// What the server offers.
  struct Policy {
    bool noZeroes = true;           // agree to leave out the padding behind EXPORT_NAME's answer
    bool structuredReplies = true;  // and with them metadata contexts
    bool extendedHeaders = true;    // likewise
    bool listing = true;            // answer LIST; otherwise it is forbidden
    TlsMode tls = TlsMode::off;     // required: nothing is answered before
  };

  enum class State : std::uint8_t {
    negotiating,
    startTls,      // send the output, make the TLS handshake, then call secured() and go on
    transmission,  // send the output, then serve requests on agreement()
    closing,       // send the output, then close
    failed,        // close at once; the output does not matter
  };

  struct Progress {
    std::size_t consumed = 0;
    State state = State::negotiating;
    bool granted = false;  // an option was acknowledged in this call, so the client gets on
    bool waiting = false;  // for the extension's handler; input does not help
  };

  /// What both sides agreed on; complete in State::transmission.
  struct Agreement {
    ExportView exportView;  // as its transmissionFlags were told to the client
    HeaderStyle headers = HeaderStyle::simple;
    bool noZeroes = false;             // both sides agreed (of interest to EXPORT_NAME alone)
    bool blockSizesRequested = false;  // the client asked for the block sizes and is bound to them
    std::optional<std::uint32_t>
        allocationContext;  // the id of base:allocation, if it is selected for this export

    /// What validate() measures this connection's requests by.
    [[nodiscard]] ExportLimits limits() const;
  };

  /// `directory` must outlive this, and so must `extension`, which answers the private option; without one
  /// that option is unknown.
  ServerHandshake(const ExportDirectory& directory, Policy policy, Extension::Handler* extension = nullptr);

  /// Appends the greeting. To be called once, first.
  void greet(std::vector<std::byte>& output) const;

  /// Takes what it can use of `input` and appends to `output` what the client shall be sent. See above for
  /// how to call.
  [[nodiscard]] Progress advance(Bytes input, std::vector<std::byte>& output);

  /// The connection is secured now, after State::startTls. What was agreed on in the clear is void, and input
  /// is what comes out of TLS. `extension` takes the place of the one that was told things in the clear.
  void secured(Extension::Handler* extension = nullptr);

  [[nodiscard]] const Agreement& agreement() const { return agreement_; }

 private:
  enum class Stage : std::uint8_t { clientFlags, optionHeader, optionData, drain, listing, extension };
  using Output = std::vector<std::byte>;
  struct OptionRow;
  static const OptionRow optionTable[];
  [[nodiscard]] const OptionRow* findOption(Option option) const;

  // Collecting bytes.
  [[nodiscard]] std::size_t stageLength() const;
  [[nodiscard]] std::optional<Bytes> collect(Bytes& input, std::size_t length);
  bool runStage(Bytes& input, Output& output);
  void takeClientFlags(Bytes data);
  void takeOptionHeader(Bytes data);
  void takeOptionData(Bytes data, Output& output);
  bool drain(Bytes& input, Output& output);
  void answerDrained(Output& output);
  [[nodiscard]] bool mustSecureFirst() const;

  // Handlers: each answers one option whose data have arrived.
  void exportName(Bytes data, Output& output);
  void abort(Bytes data, Output& output);
  void startTls(Bytes data, Output& output);
  void list(Bytes data, Output& output);
  void info(Bytes data, Output& output);
  void go(Bytes data, Output& output);
  void structuredReply(Bytes data, Output& output);
  void extendedHeaders(Bytes data, Output& output);
  void listMetaContext(Bytes data, Output& output);
  void setMetaContext(Bytes data, Output& output);
  void extension(Bytes data, Output& output);

  // Their parts.
  struct Described;
  struct ContextRequest;
  std::optional<Described> describe(Bytes data, Output& output);
  std::optional<ContextRequest> readContextRequest(Bytes data, Output& output);
  void enterTransmission(ExportView view, std::string_view requestedName);
  void continueListing(Output& output);
  void continueExtension(Output& output);
  void startReply(Output& output, ReplyType type, std::size_t length) const;
  void acknowledge(Output& output);
  void refuse(Output& output, ReplyType type, std::string_view message) const;
  [[nodiscard]] std::uint16_t toldFlags(const ExportView& view) const;

  const ExportDirectory* directory_;
  Policy policy_;
  Extension::Handler* extension_;
  Agreement agreement_;
  State state_ = State::negotiating;
  Stage stage_ = Stage::clientFlags;
  Option option_{};                 // the one being read or answered
  std::uint32_t optionLength_ = 0;  // of its data; while they are drained, what is left of them
  std::uint32_t optionCount_ = 0;
  std::uint64_t announced_ = 0;  // bytes of all options so far
  Output partial_;               // the start of a stage whose end has not arrived
  Output whole_;                 // a stage that arrived in pieces, while it is looked at
  std::string contextExport_;    // the name that contexts were selected for, as the client sent it
  bool allocationSelected_ = false;
  std::shared_ptr<const std::vector<ListedExport>> listing_;
  std::size_t listed_ = 0;
  std::unique_ptr<Extension::Answer> answer_;  // under way
  Extension::Header answerHeader_;
  bool secured_ = false;  // by TLS
  bool granted_ = false;  // since advance() was called
  bool waiting_ = false;  // likewise
};

}  // namespace Nbd
