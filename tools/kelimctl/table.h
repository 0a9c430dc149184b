// Aligned tables for a terminal of 100 columns.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kelimctl {

struct Column {
  std::string title;
  bool right = false;  // aligned to the right: numbers
  bool wraps = false;  // takes what width is left; a longer text goes on in the next line, broken behind a comma where it can be
};

class Table {
 public:
  static constexpr std::size_t kWidth = 100;

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  // One cell a column.
  void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  bool empty() const { return rows_.empty(); }
  // With a line of titles; every line ends in a line end and has no blanks before it.
  std::string text() const;

 private:
  std::vector<std::size_t> widths() const;

  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

// Cuts `text` into pieces of at most `width` characters.
std::vector<std::string> wrap(const std::string &text, std::size_t width);

}  // namespace kelimctl
