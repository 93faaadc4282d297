#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace Nbdd {

/// Whether `text` may be an export's name: UTF-8 without control characters, not empty, no longer than the
/// NBD protocol allows.
bool isExportName(std::string_view text);

/// Whether `text` may be a node's path: absolute, UTF-8, no NUL, no longer than the kernel allows.
bool isNodePath(std::string_view text);

/// Whether `text` is a UUID in lower-case 8-4-4-4-12 form.
bool isUuid(std::string_view text);

/// A new random UUID (RFC 9562, version 4).
std::string makeUuid();

/// The name for an export of `node` (an absolute path): the node's file name, control characters replaced by
/// "_", and a number behind it ("disk.img-2") if `taken` already knows it.
std::string chooseExportName(std::string_view node, const std::function<bool(const std::string&)>& taken);

}  // namespace Nbdd
