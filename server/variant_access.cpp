#include "server/variant_access.h"

#include <memory>

#include "platform/process.h"
#include "shell/tear_down.h"

namespace Server {

namespace {

using namespace Services::NBD::Client::Types;

constinit std::unique_ptr<VariantEntry> sharedDefault;

const VariantEntry& defaultEntry() {
  if (!sharedDefault) {
    sharedDefault = std::make_unique<VariantEntry>();
    Shell::registerTearDown([] { sharedDefault.reset(); });
  }
  return *sharedDefault;
}

}  // namespace

const VariantEntry& entryAt(const Variant& variant, std::uint64_t index) {
  if (index >= variant.count()) {
    Proc::raiseFault();
    return defaultEntry();
  }
  return variant.entry(index);
}

}  // namespace Server
