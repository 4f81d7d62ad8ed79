// Columns for people.
#include "tools/fileindexctl/table.h"

#include <algorithm>

#include "tools/fileindexctl/columns.h"
#include "tools/fileindexctl/event_text.h"

namespace fileindexctl {
Table::Table(std::vector<std::string> headings) {
  rows_.push_back(std::move(headings));
}

void Table::Add(std::vector<std::string> cells) {
  for (std::string& cell : cells) {
    cell = OneLine(cell);
  }
  rows_.push_back(std::move(cells));
}

std::string Table::Text() const {
  std::vector<size_t> widths(rows_.front().size());
  for (const auto& row : rows_) {
    for (size_t column = 0; column < widths.size(); ++column) {
      widths[column] = std::max(widths[column], ColumnsOf(row[column]));
    }
  }
  std::string text;
  for (const auto& row : rows_) {
    std::string line;
    for (size_t column = 0; column < widths.size(); ++column) {
      line += row[column] + std::string(widths[column] - ColumnsOf(row[column]) + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  }
  return text;
}

std::string YesNo(bool value) {
  return value ? "yes" : "no";
}

}  // namespace fileindexctl
