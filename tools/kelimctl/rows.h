// Lists of JSON objects as tables.
#pragma once

#include <string>
#include <vector>

#include "kelimctl/link.h"
#include "kelimctl/table.h"

namespace kelimctl {

// Layout of the text.
struct Look {
  std::size_t width = Table::kWidth;  // of the terminal
  bool wide = false;                  // every column, whatever the line length
  bool markdown = false;              // tables as in a page of documentation
};

// A value as a cell; "-" if it is missing.
std::string cell(const Json &row, const char *key);
// As cell, with one decimal.
std::string decimals(const Json &row, const char *key);

// A column of a list of objects: its title, the member that it shows and how.
struct Member {
  Column column;
  const char *key;
  std::string (*text)(const Json &, const char *) = cell;
  bool only_wide = false;
};

// `none` stands for an empty list.
std::string list_text(const Json &rows, const std::vector<Member> &members, const char *none, const Look &look);

}  // namespace kelimctl
