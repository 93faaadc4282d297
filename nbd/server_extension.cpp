#include <optional>

#include "nbd/contract.h"
#include "nbd/limits.h"
#include "nbd/server_handshake.h"

// The server's side of the private option: requests are handed to the extension's handler, and its answer is
// sent message by message, no more at a time than is sent of a listing.

namespace Nbd {

// What a request means is the handler's to say; only its version is looked at here.
void ServerHandshake::extension(Bytes data, Output& output) {
  Reader reader(data);
  const std::optional<Extension::Header> header = Extension::readHeader(reader);
  if (!header) return refuse(output, ReplyType::invalid, "malformed request of the extension");
  const bool isHello = header->kind == Extension::Kind::hello;
  if (isHello ? header->version != Extension::helloVersion
              : header->version < Extension::minimumVersion || header->version > Extension::maximumVersion) {
    return refuse(output, ReplyType::unsupported, "this version of the extension is not spoken here");
  }
  answerHeader_ = *header;
  answer_ = extension_->answer(header->kind, *reader.bytes(reader.remaining()));
  require(answer_ != nullptr);
  stage_ = Stage::extension;
  continueExtension(output);
}

void ServerHandshake::continueExtension(Output& output) {
  using Step = Extension::Answer::Step;
  const std::size_t enough = output.size() + handshakeOutputStep;
  Output body;
  while (output.size() < enough) {
    body.clear();
    const Step step = answer_->next(body);
    if (step == Step::message) {
      require(body.size() <= maxExtensionBody);
      startReply(output, ReplyType::extension, Extension::headerSize + body.size());
      Extension::appendHeader(output, answerHeader_);
      output.insert(output.end(), body.begin(), body.end());
      continue;
    }
    if (step == Step::wait) {
      waiting_ = true;
      return;
    }
    if (step == Step::refusal) {
      const Extension::Refusal refusal = answer_->refusal();
      refuse(output, refusal.type, truncateUtf8(refusal.text, maxStringLength));
    } else {
      acknowledge(output);
    }
    answer_.reset();
    stage_ = Stage::optionHeader;
    return;
  }
}

}  // namespace Nbd
