// Naming what is wrong with a queue file before the library is asked to read it.
#pragma once

#include <string>

namespace fileindexctl {

/// Throws std::runtime_error, its text for the user, if the file at `path` is missing, a folder, or not readable for
/// this process.
void RequireReadableFile(const std::string& path);

}  // namespace fileindexctl
