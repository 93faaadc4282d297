#include "host/runtime/path_text.h"

#include <algorithm>
#include <vector>

namespace Host {

namespace {

/// Appends the names in `path` to `names`, resolving "." and "..". Above the first name there is the root,
/// or, for a path that is not `rooted`, a directory that has no name here.
void walk(std::string_view path, bool rooted, std::vector<std::string_view>& names) {
  while (!path.empty()) {
    const std::size_t slash = std::min(path.find('/'), path.size());
    const std::string_view name = path.substr(0, slash);
    path.remove_prefix(std::min(slash + 1, path.size()));
    if (name.empty() || name == ".") {
      continue;
    }
    const bool up = name == "..";
    if (up && !names.empty() && names.back() != "..") {
      names.pop_back();
    } else if (!up || !rooted) {
      names.push_back(name);
    }
  }
}

}  // namespace

std::string resolvePath(std::string_view path, std::string_view base) {
  const bool absolute = path.starts_with('/');
  const bool rooted = absolute || base.starts_with('/');
  std::vector<std::string_view> names;
  if (!absolute) {
    walk(base, rooted, names);
  }
  walk(path, rooted, names);

  std::string resolved = rooted ? "/" : "";
  for (const std::string_view name : names) {
    if (!resolved.empty() && resolved.back() != '/') {
      resolved += '/';
    }
    resolved += name;
  }
  return resolved;
}

}  // namespace Host
