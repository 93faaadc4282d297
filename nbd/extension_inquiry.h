#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "nbd/extension_peers.h"

namespace Nbd::Extension {

/// What a client wants to know of a server, and to agree on with it, in one handshake: who it is, its
/// properties, its exports or those that match an expression, compressed transfers. One use.
class Inquiry final : public Dialogue {
 public:
  struct Wish {
    Hello self = {};
    bool properties = false;
    bool exports = false;
    std::optional<std::vector<std::byte>> expression =
        {};  // of a DiskSpec: the exports that match it instead
    std::optional<Compression> compression = {};
    bool nothingElse = false;  // what the extension tells is all that is wanted of a server that speaks it
  };

  struct Findings {
    std::optional<Hello> server;           // nothing: it is of another kind
    std::optional<std::uint16_t> version;  // nothing: it is of ours, but no version is common to both
    std::vector<Property> properties;
    std::vector<ExportEntry> exports;
    std::optional<Refusal> exportsRefused;  // the exports, or the expression
    std::optional<Compression> compression;
  };

  explicit Inquiry(Wish wish);

  /// Complete when next() has returned nothing.
  [[nodiscard]] const Findings& findings() const { return findings_; }
  [[nodiscard]] Findings takeFindings() { return std::move(findings_); }

  [[nodiscard]] std::optional<Question> next() override;
  [[nodiscard]] std::uint16_t version() const override;
  [[nodiscard]] bool take(Bytes body) override;
  [[nodiscard]] bool acknowledged() override;
  void refused(Refusal refusal) override;
  [[nodiscard]] bool suffices() const override;

 private:
  void planRest();
  [[nodiscard]] bool takeCompression(Bytes body);

  Wish wish_;
  Findings findings_;
  std::deque<Question> plan_;
  Kind asked_ = Kind::hello;
};

}  // namespace Nbd::Extension
