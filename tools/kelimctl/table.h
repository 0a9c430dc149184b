// Aligned tables for a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kelimctl {

struct Column {
  std::string title;
  bool right = false;  // aligned to the right: numbers
  bool wraps = false;  // takes the remaining width; a longer text continues on the next line, broken behind a comma if possible
};

class Table {
 public:
  static constexpr std::size_t kWidth = 100;  // without a terminal
  static constexpr std::size_t kNoLimit = ~std::size_t{0} >> 1;

  Table(std::vector<Column> columns, std::size_t width) : columns_(std::move(columns)), width_(width) {}

  // One cell per column.
  void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  bool empty() const { return rows_.empty(); }
  // The table with a title line; every line ends in a line feed, without trailing blanks.
  std::string text() const;

 private:
  std::vector<std::size_t> widths() const;

  std::vector<Column> columns_;
  std::size_t width_;
  std::vector<std::vector<std::string>> rows_;
};

// Cuts `text` into pieces of at most `width` characters.
std::vector<std::string> wrap(const std::string &text, std::size_t width);

}  // namespace kelimctl
