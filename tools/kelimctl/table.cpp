#include "kelimctl/table.h"

#include <algorithm>

namespace kelimctl {
namespace {

constexpr std::size_t kGap = 2;
constexpr std::size_t kNarrowest = 12;  // of a column that wraps
constexpr char kBreaks[] = ", ";        // a text may be broken behind these

void put(std::string &line, const std::string &cell, std::size_t width, bool right) {
  const std::string fill(width - std::min(width, cell.size()), ' ');
  line += right ? fill + cell : cell + fill;
}

// The longest piece that cannot be broken.
std::size_t longest_piece(const std::string &text) {
  std::size_t longest = 0;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find_first_of(kBreaks, begin), text.size() - 1) + 1;
    longest = std::max(longest, end - begin);
    begin = end;
  }
  return longest;
}

}  // namespace

std::vector<std::string> wrap(const std::string &text, std::size_t width) {
  std::vector<std::string> pieces;
  std::size_t begin = 0;
  while (text.size() - begin > width) {
    std::size_t length = width;
    const std::size_t comma = text.find_last_of(kBreaks, begin + width - 1);
    if (comma != std::string::npos && comma > begin) length = comma + 1 - begin;
    pieces.push_back(text.substr(begin, length));
    begin += length;
  }
  pieces.push_back(text.substr(begin));
  return pieces;
}

// The width that every column needs. If the sum is too wide, wrapping columns shrink, the widest first: down to their longest
// piece and, if that is not enough, below it.
std::vector<std::size_t> Table::widths() const {
  std::vector<std::size_t> widths, least;
  std::size_t total = kGap * (columns_.size() - 1);
  for (std::size_t c = 0; c < columns_.size(); ++c) {
    std::size_t width = columns_[c].title.size();
    std::size_t piece = std::max(width, kNarrowest);
    for (const auto &row : rows_) {
      width = std::max(width, row[c].size());
      piece = std::max(piece, longest_piece(row[c]));
    }
    widths.push_back(width);
    least.push_back(columns_[c].wraps ? piece : width);
    total += width;
  }
  const auto narrow = [&](const std::vector<std::size_t> &limit) {
    while (total > width_) {
      std::size_t widest = columns_.size();
      for (std::size_t c = 0; c < columns_.size(); ++c) {
        if (widths[c] > limit[c] && (widest == columns_.size() || widths[c] > widths[widest])) widest = c;
      }
      if (widest == columns_.size()) return;
      --widths[widest];
      --total;
    }
  };
  narrow(least);
  for (std::size_t c = 0; c < columns_.size(); ++c) {
    if (columns_[c].wraps) least[c] = kNarrowest;
  }
  narrow(least);
  return widths;
}

std::string Table::text() const {
  const std::vector<std::size_t> width = widths();
  std::string out;
  const auto add_line = [&](const std::vector<std::string> &cells) {
    std::string line;
    for (std::size_t c = 0; c < cells.size(); ++c) {
      if (c != 0) line.append(kGap, ' ');
      put(line, cells[c], width[c], columns_[c].right);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += line + '\n';
  };
  std::vector<std::string> titles;
  for (const Column &column : columns_) titles.push_back(column.title);
  add_line(titles);
  for (const auto &row : rows_) {
    std::vector<std::vector<std::string>> pieces;
    std::size_t lines = 1;
    for (std::size_t c = 0; c < row.size(); ++c) {
      pieces.push_back(columns_[c].wraps ? wrap(row[c], width[c]) : std::vector{row[c]});
      lines = std::max(lines, pieces.back().size());
    }
    for (std::size_t l = 0; l < lines; ++l) {
      std::vector<std::string> cells;
      cells.reserve(pieces.size());
      for (const auto &piece : pieces) cells.push_back(l < piece.size() ? piece[l] : "");
      add_line(cells);
    }
  }
  return out;
}

}  // namespace kelimctl
