#include "kelimctl/rows.h"

#include <cstdio>
#include <utility>

namespace kelimctl {

std::string cell(const Json &row, const char *key) {
  const auto found = row.find(key);
  if (found == row.end() || found->is_null()) return "-";
  return found->is_string() ? found->get<std::string>() : found->dump();
}

std::string decimals(const Json &row, const char *key) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", row.value(key, 0.0));
  return text;
}

namespace {

std::string markdown(const Json &rows, const std::vector<const Member *> &shown) {
  std::string titles = "|", line = "|";
  for (const Member *member : shown) titles += " " + member->column.title + " |", line += "---|";
  std::string text = titles + "\n" + line + "\n";
  for (const Json &row : rows) {
    text += "|";
    for (const Member *member : shown) text += " " + member->text(row, member->key) + " |";
    text += "\n";
  }
  return text;
}

}  // namespace

std::string list_text(const Json &rows, const std::vector<Member> &members, const char *none, const Look &look) {
  if (!rows.is_array() || rows.empty()) return std::string(none) + "\n";
  std::vector<const Member *> shown;
  std::vector<Column> columns;
  for (const Member &member : members) {
    if (member.only_wide && !look.wide) continue;
    shown.push_back(&member);
    columns.push_back(member.column);
  }
  if (look.markdown) return markdown(rows, shown);
  Table table(std::move(columns), look.wide ? Table::kNoLimit : look.width);
  for (const Json &row : rows) {
    std::vector<std::string> cells;
    cells.reserve(shown.size());
    for (const Member *member : shown) cells.push_back(member->text(row, member->key));
    table.add(std::move(cells));
  }
  return table.text();
}

}  // namespace kelimctl
