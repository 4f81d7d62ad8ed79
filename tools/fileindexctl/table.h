// Columns for people.
#pragma once

#include <string>
#include <vector>

namespace fileindexctl {

/// Rows of text under headings, aligned in columns with two blanks between them. Control bytes are made visible.
///
/// Widths count code points of UTF-8; a byte that is none counts as one.
class Table {
 public:
  explicit Table(std::vector<std::string> headings);

  /// Adds a row with one cell for each heading.
  void Add(std::vector<std::string> cells);

  /// The headings and all rows, a newline behind each, without blanks at the end of a line.
  std::string Text() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

/// "yes" or "no".
std::string YesNo(bool value);

}  // namespace fileindexctl
