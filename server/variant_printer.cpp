#include "server/variant_printer.h"

#include "platform/string_conversion.h"
#include "server/variant_access.h"
#include "shell/output.h"

namespace Server {

namespace {

using namespace Services::NBD::Client::Types;
using Shell::output;

void printPrefix(std::int32_t depth, const char* indent) {
  output()->printText("  ");
  for (std::int32_t level = 0; level < depth; ++level) {
    output()->printText(indent);
  }
}

void printNested(const Variant& nested, std::int32_t depth) {
  output()->printText("<nested>")->endLine();
  for (std::uint64_t index = 0; index < nested.count(); ++index) {
    printVariantEntry(entryAt(nested, index), depth, propertyIndent);
  }
}

}  // namespace

void printVariantEntry(const VariantEntry& entry, std::int32_t depth, const char* indent) {
  printPrefix(depth, indent);
  output()->printText("Property: ")->printString(entry.name)->endLine();
  printPrefix(depth, indent);
  output()->printText("-> value: ");
  switch (entry.type) {
    case VariantType::Empty:
      output()->printText("<N/A>")->endLine();
      break;
    case VariantType::Number:
      output()->printString(StrConv::str(entry.number))->endLine();
      break;
    case VariantType::Text:
      output()->printString(entry.text)->endLine();
      break;
    case VariantType::Binary:
      output()
          ->printText("<binary[")
          ->printU64(entry.binary ? entry.binary->length() : 0)
          ->printText("]>")
          ->endLine();
      break;
    case VariantType::Nested:
      printNested(entry.nested, depth + 1);
      break;
  }
}

void printPropertyList(const char* heading, const Variant& properties) {
  output()->printText(heading)->printU64(properties.count())->endLine();
  for (std::uint64_t index = 0; index < properties.count(); ++index) {
    printVariantEntry(entryAt(properties, index), 0, propertyIndent);
    output()->endLine();
  }
}

}  // namespace Server
