// What the indexing daemon does, for people who watch it.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

namespace fileindexctl {

// Threads: every function may be called from any thread. `status` is the data of the daemon's answer to "status", and
// `share` one of its shares. Control bytes are made visible.

/// For each share a line with a bar, then one with the file in work or what is wrong, if there is something: at most
/// `rows` lines of at most `columns` columns, without newlines. Shares that have nothing to do are left out first.
std::vector<std::string> ProgressLines(const Json::Value& status, size_t columns, size_t rows);

/// One share in one line, as ProgressLines says it but for the bar, without a newline.
std::string ProgressLine(const Json::Value& share);

}  // namespace fileindexctl
