// The registry of shares as text, apart from the file that holds it: what comes from outside is judged here.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nimo/share_registry.h"

namespace nimo {

/// Reads a registry. Throws std::runtime_error with a reason for people when the text is no JSON array, nests deeper
/// than a registry does, or holds an entry that is not well formed or bears the name of another. Members that are
/// unknown are passed over, and settings that are missing are off.
std::vector<NIMO::SHARE::Entry> ParseShares(const std::string& text);

/// The text that ParseShares reads, one share a line. Names and paths are bytes and stay as they are.
std::string FormatShares(const std::vector<NIMO::SHARE::Entry>& shares);

/// Why the name or the path of a share cannot be, "" when both can.
std::string ReasonAgainst(const NIMO::SHARE::Entry& share);

/// What follows `folder` in the absolute `path`, component by component: nothing when the path does not lie in it, no
/// components when it is the folder. Several slashes count as one.
std::optional<std::vector<std::string_view>> ComponentsBelow(std::string_view path, std::string_view folder);

}  // namespace nimo
