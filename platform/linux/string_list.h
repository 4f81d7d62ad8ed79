// Filling lists of strings.
#pragma once

#include <string>

#include "nimo/string_list.h"

namespace nimo {

/// Appends a copy of `item` to `*list`, making room when there is none. False when memory is out; the list is then as
/// it was. What follows a NUL byte is cut off.
bool AppendItem(SZLIST** list, const std::string& item);

}  // namespace nimo
