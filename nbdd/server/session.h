#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "control/records.h"
#include "nbd/server_handshake.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/io/signal.h"
#include "nbdd/io/stream.h"
#include "nbdd/io/task.h"
#include "nbdd/server/access.h"
#include "nbdd/server/conversation.h"
#include "nbdd/server/export_table.h"
#include "nbdd/server/sender.h"
#include "nbdd/server/transmission.h"

namespace Nbdd {

class Worker;

/// One client's connection from its greeting to its end: handshake, attachment to the export, transmission,
/// last replies. One worker's thread.
class Session {
 public:
  Session(Worker& worker, SessionId id, Io::FileDescriptor socket, Control::Endpoint peer);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// The whole life; to be run once, in the worker's scope.
  Io::Task<void> run();

  /// Takes no further request, finishes the running ones, sends their replies, closes. May be called again.
  void end();
  /// The same without the replies.
  void abort();
  /// The client has ended its side, and another waits for this session's end: a client that does not read its
  /// replies has only so long left.
  void hurry();
  /// The export's use by other sessions has changed.
  void wake() { wake_.notify(); }

 private:
  using Agreement = Nbd::ServerHandshake::Agreement;

  std::unique_ptr<Conversation> beginConversation(Visitor visitor);
  Io::Task<std::optional<Agreement>> negotiate();
  Io::Task<bool> secure(std::shared_ptr<const Access> access, std::vector<std::byte>& acknowledgement);
  Io::Task<bool> sendAll(std::vector<std::byte>& output);
  Io::Task<bool> receiveMore();
  Io::Task<bool> attach(std::shared_ptr<const Publication> publication);
  Io::Task<void> serve(Agreement agreement);
  Io::Task<void> linger();

  Worker& worker_;
  const SessionId id_;
  const Control::Endpoint peer_;
  Io::Stream stream_;
  Sender sender_;
  Io::Signal wake_;
  Io::Timer deadline_;
  std::unique_ptr<Conversation> conversation_;  // of the private extension
  std::vector<std::byte> received_;             // during the handshake: what was received and not used yet
  std::unique_ptr<Transmission> transmission_;
  std::string security_;  // how the connection is secured, for people; empty in the clear
  std::stop_source securing_{std::nostopstate};  // the TLS handshake that is being made
  bool ending_ = false;
};

}  // namespace Nbdd
