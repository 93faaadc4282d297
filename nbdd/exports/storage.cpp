#include "nbdd/exports/storage.h"

#include <sys/stat.h>

#include <utility>

#include "nbd/constants.h"

namespace Nbdd {

bool GroupSync::join(Done done) {
  const std::lock_guard lock(mutex_);
  if (running_) {
    waiting_.push_back(std::move(done));
    return false;
  }
  running_ = true;
  covered_.push_back(std::move(done));
  return true;
}

bool GroupSync::finish(int error) {
  std::vector<Done> served;
  bool again = false;
  {
    const std::lock_guard lock(mutex_);
    served.swap(covered_);
    covered_.swap(waiting_);
    again = !covered_.empty();
    running_ = again;
  }
  for (Done& done : served) {
    done(error);
  }
  return again;
}

Storage::Storage(OpenNode node, const Storage* predecessor)
    : node_(std::move(node)),
      durability_(predecessor != nullptr && !predecessor->failed() ? predecessor->durability_
                                                                   : std::make_shared<Durability>()) {
  constexpr std::uint64_t statBlock = 512;  // the unit of st_blocks, whatever the file system's own
  struct stat status{};
  if (!node_.blockDevice && ::fstat(descriptor(), &status) == 0) {
    mayHaveHoles_ = static_cast<std::uint64_t>(status.st_blocks) * statBlock < node_.size;
  }
  // A predecessor's clients may make holes that we do not hear of.
  if (node_.memoryBacked && !mayHaveHoles_ && predecessor == nullptr) {
    mapping_ = Mapping::of(descriptor(), node_.size, !node_.readOnly);
  }
}

std::uint16_t Storage::transmissionFlags() const {
  using namespace Nbd::TransmissionFlag;
  // One Storage serves all connections through the page cache, so a flush on one covers all the others:
  // CAN_MULTI_CONN is kept.
  constexpr unsigned int always =
      hasFlags | sendFlush | sendFua | sendDf | canMultiConn | sendCache | blockStatusPayload;
  constexpr unsigned int writable = sendTrim | sendWriteZeroes | sendFastZero;
  return static_cast<std::uint16_t>(always | (readOnly() ? Nbd::TransmissionFlag::readOnly : writable) |
                                    (node_.rotational ? rotational : 0U));
}

}  // namespace Nbdd
