#pragma once

#include <sys/types.h>

#include <expected>
#include <optional>
#include <string>

#include "nbdd/io/file_descriptor.h"

namespace Nbdd {

/// Makes the control socket at `path`: for its owner alone, or for `group` too if there is one.
///
/// It appears there only when it is listening, and takes the place of whatever a service that was killed has
/// left behind: whoever waits for the path to appear can connect at once. Its directory is made (0700) if it
/// is missing. The caller sees to it that no other service uses the path. A failure is a sentence that says
/// what to do.
std::expected<Io::FileDescriptor, std::string> listenOnControlSocket(const std::string& path,
                                                                     std::optional<gid_t> group);

}  // namespace Nbdd
