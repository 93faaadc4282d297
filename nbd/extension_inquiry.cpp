#include "nbd/extension_inquiry.h"

#include <utility>

namespace Nbd::Extension {

Inquiry::Inquiry(Wish wish) : wish_(std::move(wish)) {
  plan_.push_back({.kind = Kind::hello, .body = encodeHello(wish_.self)});
}

std::optional<Question> Inquiry::next() {
  if (plan_.empty()) return std::nullopt;
  Question question = std::move(plan_.front());
  plan_.pop_front();
  asked_ = question.kind;
  return question;
}

std::uint16_t Inquiry::version() const { return findings_.version.value_or(helloVersion); }

bool Inquiry::take(Bytes body) {
  switch (asked_) {
    case Kind::hello:
      if (findings_.server) return false;
      findings_.server = decodeHello(body);
      return findings_.server.has_value();
    case Kind::properties:
      return readProperties(body, findings_.properties);
    case Kind::exports:
    case Kind::evaluate:
      return readExports(body, findings_.exports);
    case Kind::compression:
      return takeCompression(body);
    default:
      return false;
  }
}

// The server may choose the length of blocks, but not the algorithm.
bool Inquiry::takeCompression(Bytes body) {
  const std::optional<Compression> agreed = decodeCompression(body);
  if (!agreed || findings_.compression || agreed->algorithm != wish_.compression->algorithm ||
      agreed->blockLength == 0 || agreed->blockLength > wish_.compression->blockLength) {
    return false;
  }
  findings_.compression = agreed;
  return true;
}

bool Inquiry::acknowledged() {
  if (asked_ == Kind::compression) return findings_.compression.has_value();
  if (asked_ != Kind::hello) return true;
  if (!findings_.server) return false;
  findings_.version = commonVersion(wish_.self, *findings_.server);
  if (findings_.version) planRest();
  return true;
}

void Inquiry::planRest() {
  if (wish_.properties) plan_.push_back({.kind = Kind::properties});
  if (wish_.expression) {
    plan_.push_back({.kind = Kind::evaluate, .body = *wish_.expression});
  } else if (wish_.exports) {
    plan_.push_back({.kind = Kind::exports});
  }
  if (wish_.compression && (findings_.server->capabilities & Capability::compression) != 0)
    plan_.push_back({.kind = Kind::compression, .body = encodeCompression(*wish_.compression)});
}

void Inquiry::refused(Refusal refusal) {
  switch (asked_) {
    case Kind::exports:
    case Kind::evaluate:
      findings_.exports.clear();
      findings_.exportsRefused = std::move(refusal);
      return;
    case Kind::properties:
      findings_.properties.clear();
      return;
    case Kind::compression:
      findings_.compression.reset();
      return;
    default:
      findings_.server.reset();
      return;
  }
}

// Nobody else can evaluate an expression, so there is nothing to ask a server of another kind for.
bool Inquiry::suffices() const {
  return wish_.nothingElse && (findings_.version.has_value() || wish_.expression.has_value());
}

}  // namespace Nbd::Extension
