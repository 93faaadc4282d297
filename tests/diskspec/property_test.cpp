// What holds for every expression.

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <string>
#include <vector>

#include "diskspec/expression.h"

namespace DiskSpec {
namespace {

using Text = std::string;

rc::Gen<Text> quotedText() {
  const auto character =
      rc::gen::oneOf(rc::gen::inRange(' ', '~'), rc::gen::element('"', '\\', '\'', '*', '['));
  return rc::gen::map(rc::gen::container<Text>(character), [](const Text& content) {
    Text text = "\"";
    for (const char letter : content) {
      if (letter == '"' || letter == '\\') text += '\\';
      text += letter;
    }
    return text + '"';
  });
}

rc::Gen<Text> joined(rc::Gen<Text> one, Text between, rc::Gen<Text> other) {
  return rc::gen::apply([between](const Text& left, const Text& right) { return left + between + right; },
                        std::move(one), std::move(other));
}

rc::Gen<Text> size() {
  return joined(
      rc::gen::map(rc::gen::arbitrary<std::uint16_t>(), [](auto number) { return std::to_string(number); }),
      "", rc::gen::element<Text>("", "K", "MiB", "g", "TB", ".5K", "E"));
}

rc::Gen<Text> listOf(rc::Gen<Text> value) {
  return rc::gen::map(rc::gen::nonEmpty(rc::gen::container<std::vector<Text>>(std::move(value))),
                      [](const std::vector<Text>& values) {
                        Text text;
                        for (const Text& element : values) text += (text.empty() ? "[" : ", ") + element;
                        return text + "]";
                      });
}

rc::Gen<Text> condition() {
  const auto orders = rc::gen::element<Text>("==", "!=", " lt ", "<=", " GT ", ">=", "=");
  const auto words = rc::gen::element<Text>(" in ", " not in ");
  return rc::gen::oneOf(
      rc::gen::element<Text>("readonly", "Compressed", "readonly == false", "true", "false", "state=failed",
                             "state not in [added, enabled]", "clients in [1,2]", "colour", "colour == red",
                             "state == melted"),
      joined(joined(rc::gen::element<Text>("name", "UUID"), "", orders), "", quotedText()),
      joined(joined(rc::gen::element<Text>("name", "UUID"), "", words), "", listOf(quotedText())),
      joined(rc::gen::element<Text>("name ~ ", "uuid ~ "), "", quotedText()),
      joined(rc::gen::element<Text>("name =~ ", "uuid !~ "), "", quotedText()),
      joined(joined(rc::gen::element<Text>("size", "bytesread", "blocksize"), "", orders), "", size()),
      joined(joined(rc::gen::just<Text>("age"), "", orders), "",
             rc::gen::element<Text>("1", "90s", "2.5h", "1w")));
}

rc::Gen<Text> expression(int depth) {
  if (depth == 0) return condition();
  const auto inner = [depth] { return rc::gen::lazy([depth] { return expression(depth - 1); }); };
  const auto wrapped = [](const char* before, const char* behind, rc::Gen<Text> text) {
    return joined(rc::gen::just<Text>(before), "", joined(std::move(text), "", rc::gen::just<Text>(behind)));
  };
  return rc::gen::oneOf(condition(), wrapped("(", ")", inner()),
                        wrapped("not ", "", wrapped("(", ")", inner())), wrapped("!", "", condition()),
                        joined(inner(), " and ", inner()), joined(inner(), "||", inner()));
}

rc::Gen<Text> noise() {
  return rc::gen::map(
      rc::gen::container<std::vector<Text>>(rc::gen::oneOf(
          rc::gen::element<Text>("(", ")", "not", "and", "or", "name", "size", "==", "~", "in", "[", "]", ",",
                                 "10G", "\"", "'", "!", "true", "=~", "a*", "\\"),
          rc::gen::string<Text>())),
      [](const std::vector<Text>& parts) {
        Text text;
        for (const Text& part : parts) text += part + " ";
        return text;
      });
}

rc::Gen<Facts> facts() {
  return rc::gen::map(rc::gen::arbitrary<std::tuple<std::uint16_t, bool, bool, std::uint8_t, bool>>(),
                      [](const auto& drawn) {
                        const auto& [number, readonly, compressed, state, aged] = drawn;
                        Facts result{.name = "vol1", .uuid = "c0ffee00-0000-4000-8000-00000000000a"};
                        result.size = std::uint64_t{number} << 20U;
                        result.readonly = readonly;
                        result.compressed = compressed;
                        result.state = state % 5U;
                        result.clients = state % 3U;
                        if (aged) result.age = number;
                        return result;
                      });
}

RC_GTEST_PROP(DiskSpecProperty, PrintsToTextThatCompilesToTheSame, ()) {
  const Text text = *expression(4);
  const auto compiled = compile(text, true);
  RC_PRE(compiled.has_value());
  const auto again = compile(compiled->text(), true);
  RC_ASSERT(again.has_value());
  RC_ASSERT(*again == *compiled);
  RC_ASSERT(again->text() == compiled->text());
}

RC_GTEST_PROP(DiskSpecProperty, TravelsUnchanged, ()) {
  const auto compiled = compile(*expression(3));
  RC_PRE(compiled.has_value());
  const auto decoded = decode(encode(*compiled));
  RC_ASSERT(decoded.has_value());
  RC_ASSERT(*decoded == *compiled);
}

RC_GTEST_PROP(DiskSpecProperty, AnyTextIsAnExpressionOrAnErrorWithinIt, ()) {
  const Text text = *noise();
  for (const bool lenient : {false, true}) {
    const auto compiled = compile(text, lenient);
    if (compiled) {
      RC_ASSERT(*compile(compiled->text(), lenient) == *compiled);
    } else {
      RC_ASSERT(!sentenceOf(compiled.error().number).empty());
      RC_ASSERT(compiled.error().offset <= text.size());
    }
  }
}

RC_GTEST_PROP(DiskSpecProperty, AnExpressionAndItsNegationNeverBothSelect, ()) {
  const Text text = *expression(2);
  const auto compiled = compile(text, true);
  const auto negated = compile("not (" + text + ")", true);
  RC_PRE(compiled.has_value() && negated.has_value());
  const Facts known = *facts();
  RC_ASSERT(!(compiled->selects(known) && negated->selects(known)));
  const auto both = compile("(" + text + ") or not (" + text + ")", true);
  RC_PRE(both.has_value());
  RC_ASSERT(both->selects(known) == (compiled->selects(known) || negated->selects(known)));
}

RC_GTEST_PROP(DiskSpecProperty, ConnectivesSelectWhatTheyMean, ()) {
  const Text left = *expression(1);
  const Text right = *expression(1);
  const auto one = compile(left, true);
  const auto other = compile(right, true);
  const auto all = compile("(" + left + ") and (" + right + ")", true);
  const auto any = compile("(" + left + ") or (" + right + ")", true);
  RC_PRE(one && other && all && any);
  const Facts known = *facts();
  RC_ASSERT(all->selects(known) == (one->selects(known) && other->selects(known)));
  RC_ASSERT(any->selects(known) == (one->selects(known) || other->selects(known)));
}

}  // namespace
}  // namespace DiskSpec
