// The strings of a TXT record, each behind a byte with its length: whatever comes out can be shown and kept,
// and comes out the same when it is announced and read again.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "control/utf8.h"
#include "nbdd/discovery/txt_record.h"
#include "nbdd/limits.h"

namespace {

void check(const std::string& text) {
  const bool clean =
      text.size() <= Nbdd::Limits::discoveryTextLength && Control::isUtf8(text) &&
      std::ranges::none_of(text, [](char byte) { return static_cast<unsigned char>(byte) < 0x20; });
  if (!clean) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  std::vector<std::string_view> strings;
  while (!rest.empty()) {
    const std::size_t length = std::min<std::size_t>(static_cast<unsigned char>(rest[0]), rest.size() - 1);
    strings.push_back(rest.substr(1, length));
    rest.remove_prefix(1 + length);
  }
  const Nbdd::Discovery::ServerText text = Nbdd::Discovery::decodeText(strings);
  for (const std::string& value : {text.uuid, text.version, text.platform, text.label, text.hostName})
    check(value);
  const std::vector<std::string> encoded = Nbdd::Discovery::encodeText(text);
  const std::vector<std::string_view> views(encoded.begin(), encoded.end());
  const Nbdd::Discovery::ServerText again = Nbdd::Discovery::decodeText(views);
  // A value that fills its string to the end is cut when its key comes in front of it, so it is a beginning.
  if (again.uuid != text.uuid || !text.label.starts_with(again.label)) std::abort();
  return 0;
}
