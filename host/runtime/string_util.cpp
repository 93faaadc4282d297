#include "platform/string_util.h"

#include <string>
#include <string_view>

namespace StringUtil {

Ref<TVector<Ref<String>>> split(const Ref<String>& text, char separator, std::uint64_t maxWords,
                                bool skipEmpty, char escape, char quote) {
  auto words = TVector<Ref<String>>::create();
  if (!text || text->isEmpty()) {
    return words;
  }
  const std::string_view bytes = text->view();
  std::string word;
  bool inWord = !skipEmpty;
  bool quoted = false;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char byte = bytes[i];
    if (byte == escape && i + 1 < bytes.size()) {
      ++i;
      word += bytes[i];
      inWord = true;
    } else if (byte == quote) {
      quoted = !quoted;
      inWord = true;
    } else if (byte == separator && !quoted) {
      if (inWord) {
        words->append(String::create(std::string_view(word)));
        word.clear();
        if (words->size() == maxWords) {
          return words;
        }
      }
      inWord = !skipEmpty;
    } else {
      word += byte;
      inWord = true;
    }
  }
  if (inWord) {
    words->append(String::create(std::string_view(word)));
  }
  return words;
}

Ref<String> join(const Ref<TVector<Ref<String>>>& words, char separator) {
  std::string joined;
  bool first = true;
  for (const Ref<String>& word : *words) {
    if (!first) {
      joined += separator;
    }
    first = false;
    if (word) {
      joined += word->view();
    }
  }
  return String::create(std::string_view(joined));
}

Ref<String> trim(const Ref<String>& text) {
  constexpr std::string_view blanks = " \t\n\v\f\r";
  if (!text) {
    return String::create();
  }
  const std::string_view bytes = text->view();
  const std::size_t first = bytes.find_first_not_of(blanks);
  if (first == std::string_view::npos) {
    return String::create();
  }
  const std::size_t last = bytes.find_last_not_of(blanks);
  return String::create(bytes.substr(first, last - first + 1));
}

}  // namespace StringUtil
