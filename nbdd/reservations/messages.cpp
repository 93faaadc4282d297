#include "nbdd/reservations/messages.h"

#include <algorithm>

#include "nbdd/reservations/limits.h"

namespace Nbdd::Reservations {

namespace {

void append(Body& body, std::span<const std::byte> octets) {
  const std::size_t offset = body.size();
  body.resize(offset + octets.size());
  std::ranges::copy(octets, body.begin() + static_cast<std::ptrdiff_t>(offset));
}

void append(Body& body, std::string_view text) { append(body, std::as_bytes(std::span(text))); }

void appendTime(Body& body, std::chrono::seconds time) {
  Nbd::appendBig(body, static_cast<std::uint32_t>(time.count()));
}

/// The next `size` octets.
template <class Array>
bool take(Nbd::Reader& reader, Array& octets) {
  const std::optional<Nbd::Bytes> bytes = reader.bytes(octets.size());
  if (!bytes) return false;
  std::ranges::copy(*bytes, octets.begin());
  return true;
}

bool takeTime(Nbd::Reader& reader, std::chrono::seconds& time) {
  const auto seconds = reader.number<std::uint32_t>();
  if (!seconds || *seconds > Limits::longestLease.count()) return false;
  time = std::chrono::seconds(*seconds);
  return true;
}

/// The rest as a message of SCRAM.
bool takeMessage(Nbd::Reader& reader, std::string& message) {
  const std::optional<std::string_view> text = reader.text(reader.remaining());
  if (!text || text->empty() || text->size() > Limits::scramMessage ||
      text->find('\0') != std::string_view::npos) {
    return false;
  }
  message = *text;
  return true;
}

}  // namespace

Body encodeScramMessage(std::string_view message) {
  Body body;
  append(body, message);
  return body;
}

std::optional<std::string> decodeScramMessage(Nbd::Bytes body) {
  Nbd::Reader reader(body);
  std::string message;
  if (!takeMessage(reader, message)) return std::nullopt;
  return message;
}

Body encode(const ReservingBegun& answer) {
  Body body;
  Nbd::appendBig(body, answer.status);
  if (answer.status == Status::granted) append(body, answer.serverFirst);
  return body;
}

std::optional<ReservingBegun> decodeReservingBegun(Nbd::Bytes body) {
  Nbd::Reader reader(body);
  const auto status = reader.number<Status>();
  if (!status) return std::nullopt;
  ReservingBegun answer{.status = *status};
  if (*status == Status::granted && !takeMessage(reader, answer.serverFirst)) return std::nullopt;
  if (!reader.atEnd()) return std::nullopt;
  return answer;
}

Body encode(const Reserved& answer) {
  Body body;
  Nbd::appendBig(body, answer.status);
  if (answer.status == Status::granted || answer.status == Status::renewed) {
    appendTime(body, answer.time);
    append(body, answer.serverFinal);
  }
  return body;
}

std::optional<Reserved> decodeReserved(Nbd::Bytes body) {
  Nbd::Reader reader(body);
  const auto status = reader.number<Status>();
  if (!status) return std::nullopt;
  Reserved answer{.status = *status};
  const bool isGranted = *status == Status::granted || *status == Status::renewed;
  if (isGranted && (!takeTime(reader, answer.time) || !takeMessage(reader, answer.serverFinal))) {
    return std::nullopt;
  }
  if (!reader.atEnd()) return std::nullopt;
  return answer;
}

Body encode(const ProofBegin& question) {
  Body body;
  append(body, question.lease);
  append(body, question.clientNonce);
  return body;
}

std::optional<ProofBegin> decodeProofBegin(Nbd::Bytes body) {
  Nbd::Reader reader(body);
  ProofBegin question;
  if (!take(reader, question.lease) || !take(reader, question.clientNonce) || !reader.atEnd()) {
    return std::nullopt;
  }
  return question;
}

Body encode(const Nonce& nonce) { return {nonce.begin(), nonce.end()}; }

std::optional<Nonce> decodeNonce(Nbd::Bytes body) {
  Nbd::Reader reader(body);
  Nonce nonce;
  if (!take(reader, nonce) || !reader.atEnd()) return std::nullopt;
  return nonce;
}

Body encode(const ProofFinish& question) {
  Body body;
  Nbd::appendBig(body, static_cast<std::uint8_t>(question.purpose));
  append(body, question.proof);
  return body;
}

std::optional<ProofFinish> decodeProofFinish(Nbd::Bytes body) {
  Nbd::Reader reader(body);
  const auto purpose = reader.number<Purpose>();
  if (purpose != Purpose::hold && purpose != Purpose::release) return std::nullopt;
  ProofFinish question{.purpose = *purpose};
  if (!take(reader, question.proof) || !reader.atEnd()) return std::nullopt;
  return question;
}

Body encode(const Proven& answer) {
  Body body;
  Nbd::appendBig(body, answer.status);
  if (answer.status == Status::granted) {
    appendTime(body, answer.time);
    append(body, answer.serverProof);
  }
  return body;
}

std::optional<Proven> decodeProven(Nbd::Bytes body) {
  Nbd::Reader reader(body);
  const auto status = reader.number<Status>();
  if (!status) return std::nullopt;
  Proven answer{.status = *status};
  if (*status == Status::granted && (!takeTime(reader, answer.time) || !take(reader, answer.serverProof))) {
    return std::nullopt;
  }
  if (!reader.atEnd()) return std::nullopt;
  return answer;
}

}  // namespace Nbdd::Reservations
