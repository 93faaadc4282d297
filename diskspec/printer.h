#pragma once

#include <string>

#include "diskspec/expression.h"

namespace DiskSpec {

/// The canonical spelling of an expression: words for connectives, no more parentheses than needed, texts in
/// double quotes, numbers with the largest unit that leaves them whole.
std::string print(const Node& node);

}  // namespace DiskSpec
