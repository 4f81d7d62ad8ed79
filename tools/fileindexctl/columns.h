// How wide text stands on a terminal: some characters take two columns, some none.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace fileindexctl {

// Text is UTF-8 without control characters; a byte that is none takes one column, as terminals show it.
// Threads: every function may be called from any thread.

/// The columns that `text` takes.
size_t ColumnsOf(std::string_view text);

/// As much of the beginning of `text` as fits into `columns`.
std::string CutToColumns(std::string_view text, size_t columns);

/// As much of the end of `text` as fits, behind "..."; all of it if that fits. The end of a path says more than its
/// beginning.
std::string CutFrontToColumns(std::string_view text, size_t columns);

}  // namespace fileindexctl
