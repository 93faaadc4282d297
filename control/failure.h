#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace Control {

/// Why an operation of the service failed: the number that programs test, `nbdctl` prints in hexadecimal and
/// docs/error-codes.md explains. A number is never given a second meaning and never reused; a new one is
/// appended to its group. Zero is never a failure.
enum class FailureCode : std::uint32_t {
  // The way to the service.
  serviceUnavailable = 0x01,
  serviceStartFailed = 0x02,
  timeout = 0x03,
  protocolError = 0x04,
  accessDenied = 0x05,
  interrupted = 0x06,
  answerLost = 0x07,

  // Any operation.
  invalidArgument = 0x10,
  notSupported = 0x11,
  limitReached = 0x12,
  internalError = 0x13,
  stateNotSaved = 0x14,
  wrongState = 0x15,
  serviceStopping = 0x16,

  // Exports and their nodes.
  noSuchExport = 0x20,
  nodeNotFound = 0x21,
  nodeAccessDenied = 0x22,
  nodeIsDirectory = 0x23,
  nodeNotSupported = 0x24,
  nodeAlreadyExported = 0x25,
  nodeInUse = 0x26,
  nodeReadOnly = 0x27,
  nodeError = 0x28,
  nameInUse = 0x29,

  // Imports.
  noSuchImport = 0x30,
  noSuchRemoteExport = 0x31,
  importInUse = 0x32,
  importNodeFailed = 0x33,
  remoteExportChanged = 0x34,

  // The local server.
  portInUse = 0x40,
  addressNotAvailable = 0x41,
  listenDenied = 0x42,
  listenFailed = 0x43,
  configurationWrong = 0x44,

  // Remote servers.
  connectionFailed = 0x50,
  connectionRefused = 0x51,
  remoteTimeout = 0x52,
  remoteProtocolError = 0x53,
  remoteRefused = 0x54,
  discoveryFailed = 0x55,
  expressionInvalid = 0x56,
  extensionMissing = 0x57,
  remoteWithoutTls = 0x58,
  remoteDemandsTls = 0x59,
  tlsFailed = 0x5a,

  // Reservations.
  notReserved = 0x60,
  wrongPassword = 0x61,
  reservedByOther = 0x62,
  reservationDisabled = 0x63,
  tooManyAttempts = 0x64,
};

/// An operating error: what programs test, and one sentence for people that says what went wrong with what.
struct Failure {
  FailureCode code = FailureCode::internalError;
  std::string message;

  friend bool operator==(const Failure&, const Failure&) = default;
};

/// One row of the table of failures.
struct FailureDescription {
  FailureCode code;
  std::string_view name;     ///< the enumerator's name
  std::string_view meaning;  ///< what happened
  std::string_view remedy;   ///< what the operator can do
};

/// Every failure code once, in ascending order. docs/error-codes.md holds the same rows.
std::span<const FailureDescription> failureTable();

/// The row of `code`; null for a number that is not in the table (another version's, say).
const FailureDescription* describe(FailureCode code);

}  // namespace Control
