#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/string.h"

/// Prints text, numbers and truth values, one after the other. Every operation returns the printer itself, so
/// that a line is one chain of calls:
///
///     printer->printText("Exports: ")->printU64(count)->endLine();
///
/// Printing reports no errors: where the text cannot go any further, it is dropped. Numbers have no padding
/// and no separators. A printer belongs to one thread.
class CharPrinter : public Object {
 public:
  /// The NUL-terminated `text` as it stands.
  Ref<CharPrinter> printText(const char* text);

  /// The text of `string` as it stands; nothing for an empty Ref.
  Ref<CharPrinter> printString(const Ref<String>& string);

  Ref<CharPrinter> printU64(std::uint64_t number);
  Ref<CharPrinter> printU32(std::uint32_t number);
  Ref<CharPrinter> printU16(std::uint16_t number);
  Ref<CharPrinter> printChar(char character);

  /// "true" or "false".
  Ref<CharPrinter> printBool(bool value);

  /// The next operation, if it prints a number, prints it in hexadecimal: upper-case digits, no prefix, no
  /// padding.
  Ref<CharPrinter> hex();

  /// Ends the line with one line feed.
  Ref<CharPrinter> endLine();

 protected:
  /// Where the text goes: called once or more for each operation, in order.
  virtual void write(std::string_view bytes) = 0;

 private:
  Ref<CharPrinter> put(std::string_view bytes);
  Ref<CharPrinter> putNumber(std::uint64_t number);

  bool hexNext_ = false;
};

/// A printer that collects what is printed.
class StringPrinter final : public CharPrinter {
 public:
  /// A new printer that has collected nothing.
  [[nodiscard]] static Ref<StringPrinter> create();

  /// What has been printed so far. The printer keeps it and can go on.
  [[nodiscard]] Ref<String> text() const;

 private:
  StringPrinter() = default;

  void write(std::string_view bytes) override;

  template <class T, class... Arguments>
  friend Ref<T> makeRef(Arguments&&... arguments);

  std::string collected_;
};
