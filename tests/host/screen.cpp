#include "tests/host/screen.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

namespace Support {

void Screen::show(std::string_view bytes) {
  pending_ += bytes;
  while (!pending_.empty() && showOne()) {
  }
}

std::vector<std::string> Screen::lines() const {
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    std::string line;
    std::size_t used = rows_[i].size();
    while (used > (i == row_ ? column_ : 0) && (rows_[i][used - 1].empty() || rows_[i][used - 1] == " ")) {
      --used;
    }
    for (std::size_t column = 0; column < used; ++column) {
      line += rows_[i][column].empty() ? " " : rows_[i][column];
    }
    lines.push_back(line);
  }
  while (lines.size() > row_ + 1 && lines.back().empty()) {
    lines.pop_back();
  }
  return lines;
}

/// Takes one character or one escape sequence from what is pending; false if it is not there as a whole yet.
bool Screen::showOne() {
  const auto first = static_cast<unsigned char>(pending_.front());
  std::size_t length = 1;
  if (first == '\x1b') {
    if (pending_.size() < 2) {
      return false;
    }
    if (pending_[1] != '[') {
      pending_.erase(0, 2);  // keypad modes and the like
      return true;
    }
    const auto final =
        std::find_if(pending_.begin() + 2, pending_.end(), [](char byte) { return byte >= '@'; });
    if (final == pending_.end()) {
      return false;
    }
    const std::string whole(pending_.begin(), final + 1);
    pending_.erase(0, whole.size());
    sequence(std::string_view(whole).substr(2, whole.size() - 3), whole.back());
    return true;
  }
  if (first < ' ' || first == '\x7f') {
    control(pending_.front());
  } else {
    length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (pending_.size() < length) {
      return false;
    }
    put(pending_.substr(0, length));
  }
  pending_.erase(0, length);
  return true;
}

void Screen::put(std::string character) {
  if (column_ == columns_) {
    moveTo(row_ + 1, 0);
  }
  if (row().size() <= column_) {
    row().resize(column_ + 1);
  }
  if (inserting_) {
    row().insert(row().begin() + static_cast<std::ptrdiff_t>(column_), std::move(character));
  } else {
    row()[column_] = std::move(character);
  }
  ++column_;
}

void Screen::control(char byte) {
  switch (byte) {
    case '\r':
      moveTo(row_, 0);
      break;
    case '\n':
      moveTo(row_ + 1, column_);
      break;
    case '\b':
      moveTo(row_, column_ > 0 ? std::min(column_, columns_ - 1) - 1 : 0);
      break;
    case '\t':
      moveTo(row_, std::min((column_ / 8 + 1) * 8, columns_ - 1));
      break;
    case '\a':
      break;
    default:
      ADD_FAILURE() << "control character " << static_cast<int>(byte);
  }
}

void Screen::sequence(std::string_view parameters, char final) {
  const auto number = std::strtoul(std::string(parameters).c_str(), nullptr, 10);
  const std::size_t count = std::max(1UL, number);
  const std::size_t from = std::min(column_, row().size());
  const auto position = row().begin() + static_cast<std::ptrdiff_t>(from);
  switch (final) {
    case 'A':
      moveTo(row_ - std::min(row_, count), column_);
      break;
    case 'B':
      moveTo(row_ + count, column_);
      break;
    case 'C':
      moveTo(row_, std::min(column_ + count, columns_ - 1));
      break;
    case 'D':
      moveTo(row_, column_ - std::min(column_, count));
      break;
    case 'G':
      moveTo(row_, count - 1);
      break;
    case 'K':
      row().resize(from);
      break;
    case 'J':
      row().resize(from);
      rows_.resize(row_ + 1);
      break;
    case 'P':
      row().erase(position, position + static_cast<std::ptrdiff_t>(std::min(count, row().size() - from)));
      break;
    case '@':
      row().insert(position, count, " ");
      break;
    case 'h':
    case 'l':
      inserting_ = parameters == "4" ? final == 'h' : inserting_;
      break;
    case 'm':
      break;
    default:
      ADD_FAILURE() << "escape sequence " << parameters << final;
  }
}

void Screen::moveTo(std::size_t row, std::size_t column) {
  row_ = row;
  column_ = column;
  rows_.resize(std::max(rows_.size(), row_ + 1));
}

Screen::Row& Screen::row() { return rows_[row_]; }

}  // namespace Support
