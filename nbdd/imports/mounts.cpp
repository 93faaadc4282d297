#include "nbdd/imports/mounts.h"

#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

namespace Nbdd {

namespace {

/// A path as mountinfo spells it: what would break the line into other fields is octal.
std::string inMountinfo(std::string_view path) {
  std::string text;
  for (const char each : path) {
    switch (each) {
      case ' ':
        text += "\\040";
        break;
      case '\t':
        text += "\\011";
        break;
      case '\n':
        text += "\\012";
        break;
      case '\\':
        text += "\\134";
        break;
      default:
        text += each;
    }
  }
  return text;
}

}  // namespace

bool isMountPoint(const std::filesystem::path& path) {
  const std::string wanted = inMountinfo(path.native());
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string id;
    std::string parent;
    std::string device;
    std::string root;
    std::string place;
    if (fields >> id >> parent >> device >> root >> place && place == wanted) return true;
  }
  return false;
}

}  // namespace Nbdd
