#pragma once

#include <string_view>

#include "diskspec/expression.h"

namespace DiskSpec {

/// The parts of `text`, with the types of all values checked.
Result<Node> parse(std::string_view text, bool lenient);

}  // namespace DiskSpec
