#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nbd/limits.h"

namespace Nbd {

/// What the handshake tells a client about one export, as it is at that moment.
struct ExportView {
  std::string name = {};                // the canonical one; a string of the protocol (isWireString())
  std::string description = {};         // for people; likewise, may be empty
  std::uint64_t size = 0;               // bytes
  std::uint16_t transmissionFlags = 0;  // what it can do; who did not agree on the headers for DF hears no DF
  std::uint32_t minimumBlock = 1;       // bytes, a power of two up to 65,536
  std::uint32_t preferredBlock = 4096;  // bytes, a power of two, at least 512 and the minimum
  std::uint32_t maximumPayload = maxPayload;  // bytes in one READ or WRITE, at least 1 MiB
  std::string refusal = {};           // why this client may not use it, in a short sentence; empty if it may
  std::shared_ptr<void> handle = {};  // what serves it; kept alive by the agreement, not looked at here
};

/// One line of a listing.
struct ListedExport {
  std::string name = {};
  std::string description = {};
};

/// The exports that one client may see. Asked on the connection's thread, possibly on many at once; must not
/// block.
class ExportDirectory {
 public:
  virtual ~ExportDirectory() = default;

  /// The export of that name, or nothing. The empty name asks for the default one: the directory decides
  /// which that is.
  [[nodiscard]] virtual std::optional<ExportView> find(std::string_view name) const = 0;

  /// All of them, as one picture that does not change any more. Shared, so that a hundred clients that list
  /// ten thousand exports at once need not hold a hundred copies. Never null.
  [[nodiscard]] virtual std::shared_ptr<const std::vector<ListedExport>> list() const = 0;
};

}  // namespace Nbd
