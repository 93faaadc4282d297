#pragma once

#include <string_view>

namespace Control {

/// The text of org.talvek.NBD.varlink.
std::string_view nbdDefinition();

/// The text of org.varlink.service.varlink.
std::string_view varlinkServiceDefinition();

}  // namespace Control
