// Finds where JSON values begin and end, without building them.
#pragma once

#include <string_view>
#include <utility>
#include <vector>

namespace nimoelasticd {

/// The values of an object's members, with their names as written (in quotes, escapes kept), in their order.
/// Brackets, quotes, commas and colons are checked; what numbers and words consist of is not.
/// Throws Refusal kMalformedRequest; also when something follows the object.
std::vector<std::pair<std::string_view, std::string_view>> ScanObject(std::string_view text);

/// The elements of an array; likewise.
std::vector<std::string_view> ScanArray(std::string_view text);

}  // namespace nimoelasticd
