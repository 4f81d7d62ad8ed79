// Small files of the daemon's own, in folders that may be somebody else's.
#pragma once

#include <string>

namespace fileindexd {

/// Replaces the file at `path` by `text` in one step, without a sync. Threads: any, one for each path at a time.
/// Throws std::system_error.
void ReplaceFile(const std::string& path, const std::string& text);

/// All of the file at `path`; "" if it cannot be read. Threads: any.
std::string ContentOf(const std::string& path);

}  // namespace fileindexd
