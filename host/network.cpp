#include "platform/network.h"

#include "host/runtime/address_text.h"

namespace Services::Network::Definitions {

IPAddress IPAddress::parse(const Ref<String>& text) {
  return text ? Host::parseAddress(text->view()) : IPAddress();
}

}  // namespace Services::Network::Definitions
