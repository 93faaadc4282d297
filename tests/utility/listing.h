#pragma once

#include <string>

namespace Support {

/// What stands between "label" and the end of its line in the listing of one export or import.
inline std::string valueOf(const std::string& listing, const std::string& label) {
  const std::string front = "     - " + label + ": ";
  const auto start = listing.find(front);
  if (start == std::string::npos) return "no such line";
  const auto value = start + front.size();
  return listing.substr(value, listing.find('\n', value) - value);
}

}  // namespace Support
