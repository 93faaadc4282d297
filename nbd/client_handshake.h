#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nbd/bytes.h"
#include "nbd/constants.h"
#include "nbd/extension_peers.h"
#include "nbd/limits.h"
#include "nbd/validation.h"

namespace Nbd {

/// What a server told us about one of its exports. Strings are strings of the protocol (isWireString()), but
/// may still hold what a terminal must not see.
struct RemoteExport {
  std::string name = {};  // as it was asked for or listed; the canonical one where the server gave it
  std::string description = {};
  std::optional<std::uint64_t> size;    // bytes; nothing if the export was only listed
  std::uint16_t transmissionFlags = 0;  // TransmissionFlag; may hold unknown bits, to be ignored
  std::uint32_t minimumBlock = 1;       // bytes; we ask for the sizes and are bound to them
  std::uint32_t preferredBlock = 4096;
  std::uint32_t maximumPayload = portablePayload;  // never more, whatever the server offers
};

/// The client's side of the fixed newstyle handshake, as a machine that turns bytes into bytes.
///
/// The caller owns the connection: it receives, calls advance(), drops what was consumed, sends and empties
/// the output, and goes on while the state is `negotiating`. Bytes behind the server's last word of the
/// handshake are never touched. Any split of the same bytes over calls gives the same output and the same
/// end, but for bytes between the server's consent to TLS and TLS, which are refused wherever they are seen.
/// A server can make this hold maxServerHandshakeBytes at most. Bounding the time is the caller's business.
/// One thread at a time.
class ClientHandshake {
 public:
  enum class Goal : std::uint8_t {
    transmission,  // use the export `exportName`
    listing,       // the names and descriptions of all exports, then leave
    details,       // the same, and each one's size and flags
  };

  /// What the client wants. What it wants but the server does not have is left out, except the export itself.
  struct Wish {
    Goal goal = Goal::transmission;
    std::string exportName = {};   // a string of the protocol; empty for the server's default
    bool extendedHeaders = false;  // asked for first; where the server has none, what follows is asked for
    bool structuredReplies = true;
    bool allocationContext = true;  // needs one of the two
    bool noZeroes = true;
    TlsMode tls = TlsMode::off;               // asked for before everything else
    Extension::Dialogue* dialogue = nullptr;  // asked before all else but that; outlives the handshake
  };

  enum class State : std::uint8_t {
    negotiating,
    startTls,      // send the output, make the TLS handshake, then call secured() and go on
    transmission,  // agreement() is complete, requests may be sent
    finished,      // exports() is complete; send the output, then close
    failed,        // see failure(); send the output if there is any, then close
  };

  struct Progress {
    std::size_t consumed = 0;
    State state = State::negotiating;
  };

  struct Agreement {
    RemoteExport remote;
    HeaderStyle headers = HeaderStyle::simple;
    std::optional<std::uint32_t> allocationContext;  // the id of base:allocation, if it is selected

    /// What validate() measures our own requests by before they are sent.
    [[nodiscard]] ExportLimits limits() const;
  };

  struct Failure {
    bool isRefusal = false;  // the server said no, politely; otherwise it broke the protocol
    ReplyType reply = ReplyType::unsupported;  // what it said; of a refusal only
    bool noTls = false;                        // TLS was required, and the server has none
    std::string message = {};                  // for people; may quote the server
  };

  explicit ClientHandshake(Wish wish);

  /// Takes what it can use of `input` and appends to `output` what the server shall be sent.
  [[nodiscard]] Progress advance(Bytes input, std::vector<std::byte>& output);

  /// The connection is secured now, after State::startTls: input is what comes out of TLS.
  void secured(std::vector<std::byte>& output);
  /// Whether secured() was called.
  [[nodiscard]] bool isSecured() const { return secured_; }

  [[nodiscard]] const Agreement& agreement() const { return agreement_; }
  [[nodiscard]] const std::vector<RemoteExport>& exports() const { return exports_; }
  [[nodiscard]] const Failure& failure() const { return failure_; }

 private:
  using Output = std::vector<std::byte>;
  enum class Stage : std::uint8_t { greeting, replyHeader, replyData, exportNameReply };

  [[nodiscard]] std::size_t stageLength() const;
  void runStage(Bytes data, Output& output);
  void takeGreeting(Bytes data, Output& output);
  void takeReplyHeader(Bytes data);
  void takeReply(Bytes data, Output& output);
  void takeExportNameReply(Bytes data);
  void takeInfo(Bytes data, RemoteExport& remote);
  void takeListed(Bytes data);
  void takeMetaContext(Bytes data);
  void takeExtension(Bytes data);
  void acknowledged(Output& output);
  void refused(Bytes data, Output& output);

  void startNegotiating(Output& output);
  void sendQuestionsFirst(Output& output);
  void sendFirstOption(Output& output);
  void sendNextQuestion(Output& output);
  void sendStructuredReplyOption(Output& output);
  void sendOption(Output& output, Option option, Bytes data);
  void sendExportOption(Output& output, Option option, std::string_view name);
  void sendMetaContextOption(Output& output);
  void askForDetails(Output& output);
  void leave(Output& output);
  void fail(std::string_view message);

  Wish wish_;
  Agreement agreement_;
  std::vector<RemoteExport> exports_;
  Failure failure_;
  State state_ = State::negotiating;
  Stage stage_ = Stage::greeting;
  bool noZeroes_ = false;
  bool secured_ = false;
  Option option_{};                // the one whose replies are awaited
  ReplyType replyType_{};          // of the reply whose data are awaited
  std::uint32_t replyLength_ = 0;  // bytes of data
  std::uint32_t replyCount_ = 0;
  std::uint64_t received_ = 0;
  std::size_t asked_ = 0;       // exports whose details were asked for
  std::size_t described_ = 0;   // of these, those whose answer is complete
  Extension::Header question_;  // of the extension, whose answer is awaited
  Output partial_;              // the start of a stage whose end has not arrived
};

}  // namespace Nbd
