#include "control/failure.h"

#include <algorithm>
#include <array>

namespace Control {

namespace {

using enum FailureCode;

constexpr std::array table{
    FailureDescription{serviceUnavailable, "serviceUnavailable", "No service answers on the control socket.",
                       "Start nbdd, or see why it ended in its log."},
    FailureDescription{serviceStartFailed, "serviceStartFailed",
                       "The service was started on demand and ended before it was ready.",
                       "Read the sentence that nbdd printed, or run nbdd by hand."},
    FailureDescription{timeout, "timeout", "The service did not answer in time.",
                       "Try again; if it stays so, look at what nbdd does (its log, its processor time)."},
    FailureDescription{protocolError, "protocolError",
                       "The two ends of the control socket do not understand each other.",
                       "Check that nbdctl and nbdd are of the same version."},
    FailureDescription{accessDenied, "accessDenied", "The control socket may not be used by this user.",
                       "Become a member of group nbd for the system service, or use your own service."},
    FailureDescription{interrupted, "interrupted", "The operator interrupted the wait for an answer.",
                       "The service may have done the operation; look before it is asked again."},
    FailureDescription{answerLost, "answerLost", "The connection ended before the answer came.",
                       "The service may have done the operation; look before it is asked again."},

    FailureDescription{invalidArgument, "invalidArgument", "A value that was passed makes no sense.",
                       "Correct the value that the message names."},
    FailureDescription{notSupported, "notSupported", "This version cannot do the operation.",
                       "Use a version that can."},
    FailureDescription{limitReached, "limitReached", "A limit of the service would be exceeded.",
                       "Remove what is not needed any more."},
    FailureDescription{internalError, "internalError", "The service failed in a way that it should not.",
                       "Report it with the service's log."},
    FailureDescription{stateNotSaved, "stateNotSaved",
                       "The change could not be written to stable storage and was undone.",
                       "Make room in the state directory and see that it is writable."},
    FailureDescription{wrongState, "wrongState", "The operation does not fit the present state.",
                       "List first; an enabled export is disabled before it is removed."},
    FailureDescription{serviceStopping, "serviceStopping", "The service is about to end.",
                       "Try again when it has ended; it is then started anew."},

    FailureDescription{noSuchExport, "noSuchExport", "There is no export with this ID.", "List the exports."},
    FailureDescription{nodeNotFound, "nodeNotFound", "The node does not exist.", "Check the path."},
    FailureDescription{nodeAccessDenied, "nodeAccessDenied", "The service may not open the node as asked.",
                       "Give nbdd's user the permission, or add it read-only."},
    FailureDescription{nodeIsDirectory, "nodeIsDirectory", "The node is a directory.",
                       "Export a file or a block device."},
    FailureDescription{nodeNotSupported, "nodeNotSupported",
                       "The node is neither a regular file nor a block device.",
                       "Export a file or a block device."},
    FailureDescription{nodeAlreadyExported, "nodeAlreadyExported",
                       "The node, by this path or another, is exported already.",
                       "Use that export, or remove it first."},
    FailureDescription{nodeInUse, "nodeInUse", "Another program uses the node.",
                       "Unmount it, or end the program that uses it."},
    FailureDescription{nodeReadOnly, "nodeReadOnly", "The node can only be read.", "Add it read-only."},
    FailureDescription{nodeError, "nodeError", "The node could not be used.",
                       "See the message and the kernel's log."},
    FailureDescription{nameInUse, "nameInUse", "Another export has this name.", "Choose another name."},

    FailureDescription{noSuchImport, "noSuchImport", "There is no import with this ID.", "List the imports."},
    FailureDescription{noSuchRemoteExport, "noSuchRemoteExport",
                       "The remote server has no export with this name.",
                       "List the exports of the remote server."},
    FailureDescription{importInUse, "importInUse", "The import's node is in use.",
                       "Unmount it, or disable the import with force."},
    FailureDescription{importNodeFailed, "importNodeFailed", "No local node could be made for the import.",
                       "See the message; FUSE or the kernel's nbd driver may be missing."},
    FailureDescription{remoteExportChanged, "remoteExportChanged",
                       "The remote export is not what it was when the import was enabled.",
                       "Give it back its size and abilities, or disable and enable the import."},

    FailureDescription{portInUse, "portInUse", "Another program listens on the server's port.",
                       "End it, or choose another port in nbdd.toml."},
    FailureDescription{addressNotAvailable, "addressNotAvailable",
                       "An address to listen on is not this host's.",
                       "Correct the listen addresses in nbdd.toml."},
    FailureDescription{listenDenied, "listenDenied", "The service may not listen on this port.",
                       "Choose a port above 1023 in nbdd.toml."},
    FailureDescription{listenFailed, "listenFailed", "The server could not be started.",
                       "See the message and the service's log."},
    FailureDescription{configurationWrong, "configurationWrong", "The configuration cannot be used.",
                       "Correct nbdd.toml; nbdd --check-config says what is wrong with it."},

    FailureDescription{connectionFailed, "connectionFailed", "The remote server could not be reached.",
                       "Check the address, the network and the firewall."},
    FailureDescription{connectionRefused, "connectionRefused", "Nothing listens at the remote address.",
                       "Start the remote server."},
    FailureDescription{remoteTimeout, "remoteTimeout", "The remote server did not answer in time.",
                       "Try again; check the network."},
    FailureDescription{remoteProtocolError, "remoteProtocolError",
                       "The remote server's answer was not valid NBD.",
                       "Check that an NBD server listens there."},
    FailureDescription{remoteRefused, "remoteRefused", "The remote server refused.",
                       "Ask its operator: access list, TLS or reservation."},
    FailureDescription{discoveryFailed, "discoveryFailed", "The local network could not be searched.",
                       "See the log of nbdd; discovery may be turned off in nbdd.toml."},
    FailureDescription{expressionInvalid, "expressionInvalid", "The DiskSpec expression was not accepted.",
                       "Correct the expression."},
    FailureDescription{extensionMissing, "extensionMissing",
                       "The remote server does not offer what was asked.", "Use a server that runs nbdd."},
    FailureDescription{remoteWithoutTls, "remoteWithoutTls",
                       "The configuration requires TLS, and the remote server has none.",
                       "Give the server TLS, or change [tls.imports]."},
    FailureDescription{remoteDemandsTls, "remoteDemandsTls",
                       "The remote server demands TLS, and the configuration has none.",
                       "Write [tls.imports] in the configuration."},
    FailureDescription{tlsFailed, "tlsFailed", "A secure connection could not be made.",
                       "Read the message: a certificate or key of one side is not accepted by the other."},

    FailureDescription{notReserved, "notReserved", "The server is not reserved.", "Reserve it first."},
    FailureDescription{wrongPassword, "wrongPassword", "The password is wrong.",
                       "Use the server's password."},
    FailureDescription{reservedByOther, "reservedByOther", "Somebody else holds the reservation.",
                       "Wait until it is released."},
    FailureDescription{reservationDisabled, "reservationDisabled", "The server has no reservation password.",
                       "Set one on the server."},
    FailureDescription{tooManyAttempts, "tooManyAttempts", "Too many passwords were tried from this network.",
                       "Wait some seconds."},
};

static_assert(std::ranges::is_sorted(table, {}, &FailureDescription::code));

}  // namespace

std::span<const FailureDescription> failureTable() { return table; }

const FailureDescription* describe(FailureCode code) {
  const auto row = std::ranges::lower_bound(table, code, {}, &FailureDescription::code);
  return row != table.end() && row->code == code ? &*row : nullptr;
}

}  // namespace Control
