#pragma once

#include <vector>

#include "control/records.h"
#include "nbd/extension.h"

namespace Nbdd::Remote {

/// Named values as the extension carries them: a sequence in which every list stands before its members. What
/// the wire cannot hold is cut: texts and octets at 4096 bytes, members below the deepest level, whatever
/// comes behind the greatest number of values.
std::vector<Nbd::Extension::Property> flatten(const Control::Variant& values);

/// The tree that such a sequence, as Nbd::Extension::readProperties() yields it, stands for.
Control::Variant unflatten(const std::vector<Nbd::Extension::Property>& properties);

}  // namespace Nbdd::Remote
