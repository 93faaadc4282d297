// The text of a DiskSpec expression: whatever the bytes, they are an expression or an error within them; what
// is an expression prints to text that compiles to the same, travels unchanged, and never selects together
// with its negation.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "diskspec/expression.h"
#include "diskspec/limits.h"

namespace {

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

DiskSpec::Facts factsOf(std::string_view name) {
  return {.name = name,
          .uuid = "c0ffee00-0000-4000-8000-00000000000a",
          .size = std::uint64_t{10} << 30U,
          .readonly = name.size() % 2 == 1,
          .clients = name.size() % 3,
          .state = name.size() % 5,
          .age = name.empty() ? std::optional<std::uint64_t>() : name.size()};
}

void examine(std::string_view text, bool lenient) {
  const auto compiled = DiskSpec::compile(text, lenient);
  if (!compiled) {
    require(!DiskSpec::sentenceOf(compiled.error().number).empty() && compiled.error().offset <= text.size());
    return;
  }
  require(compiled->text().size() <= DiskSpec::Limits::textLength);
  const auto again = DiskSpec::compile(compiled->text(), lenient);
  require(again && *again == *compiled && again->text() == compiled->text());
  if (!lenient) {
    const auto decoded = DiskSpec::decode(DiskSpec::encode(*compiled));
    require(decoded && *decoded == *compiled);
  }
  const auto negated = DiskSpec::compile("not (" + compiled->text() + ")", lenient);
  for (const std::string_view name :
       {std::string_view(), std::string_view("vol1.img"), text.substr(0, 300)}) {
    const DiskSpec::Facts facts = factsOf(name);
    const bool selected = compiled->selects(facts);
    require(again->selects(facts) == selected);
    require(!(negated && selected && negated->selects(facts)));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  examine(text, false);
  examine(text, true);
  return 0;
}
