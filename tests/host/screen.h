#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Support {

/// The screen of a terminal of the xterm family, as far as a line editor uses one: what a person would see.
/// Knows characters of one column, in UTF-8. Has no end at the bottom.
class Screen {
 public:
  explicit Screen(std::size_t columns) : columns_(columns), rows_(1) {}

  /// Takes what a program sends to the terminal, in pieces of any size.
  void show(std::string_view bytes);

  /// The lines down to the one with the cursor, without the blanks at their ends, except for those before the
  /// cursor.
  [[nodiscard]] std::vector<std::string> lines() const;

 private:
  using Row = std::vector<std::string>;

  bool showOne();
  void put(std::string character);
  void control(char byte);
  void sequence(std::string_view parameters, char final);
  void moveTo(std::size_t row, std::size_t column);
  Row& row();

  std::size_t columns_;
  std::vector<Row> rows_;
  std::size_t row_ = 0;
  std::size_t column_ = 0;
  bool inserting_ = false;
  std::string pending_;
};

}  // namespace Support
