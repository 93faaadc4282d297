// Splitting a line into words: whatever the bytes, the words hold no byte that the line does not, and writing
// them again with quotes and escapes and splitting that gives the same words.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/string_util.h"

namespace {

using Words = Ref<TVector<Ref<String>>>;

Words split(std::string_view line) {
  return StringUtil::split(String::create(line), ' ', 0, true, '\\', '"');
}

/// The words as a line that spells them, every word in quotes.
std::string quoted(const Words& words) {
  std::string line;
  for (const auto& word : *words) {
    line += " \"";
    for (const char byte : word->view()) {
      if (byte == '"' || byte == '\\') {
        line += '\\';
      }
      line += byte;
    }
    line += '"';
  }
  return line;
}

bool same(const Words& one, const Words& other) {
  if (one->size() != other->size()) {
    return false;
  }
  for (std::size_t i = 0; i < one->size(); ++i) {
    if (!one->at(i)->equals(other->at(i))) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line(data, data + size);
  const Words words = split(line);
  std::size_t bytes = 0;
  for (const auto& word : *words) {
    bytes += word->view().size();
    const auto trimmed = StringUtil::trim(word);
    if (trimmed->view().size() > word->view().size()) {
      std::abort();
    }
  }
  if (bytes > line.size() || !same(split(quoted(words)), words)) {
    std::abort();
  }
  // The other ways to split must stay within the text as well.
  const auto limited = StringUtil::split(String::create(std::string_view(line)), ' ', 3, true, '\\', '"');
  if (limited->size() > 3 || limited->size() > words->size()) {
    std::abort();
  }
  const auto all = StringUtil::split(String::create(std::string_view(line)), ' ', 0, false, '\\', '"');
  if (all->size() < words->size()) {
    std::abort();
  }
  return 0;
}
