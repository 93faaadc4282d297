#pragma once

#include "platform/string.h"

namespace Services::Filesystem::Client {

/// The local file system.
class Service {
 public:
  /// `path` as an absolute path: a relative one is taken from `base`, or from the process's working directory
  /// if `base` is an empty Ref. ".", ".." and repeated slashes are resolved by the text alone: nothing needs
  /// to exist, and symbolic links are not followed. The path is not touched otherwise, and a trailing slash
  /// goes away. An empty Ref or the empty text gives the base itself.
  [[nodiscard]] static Ref<String> absolute(Ref<String> path, Ref<String> base);
};

}  // namespace Services::Filesystem::Client
