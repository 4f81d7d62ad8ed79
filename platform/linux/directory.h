// Listing directories.
#pragma once

#include <dirent.h>

#include <string>
#include <vector>

namespace nimo {

/// Appends the names in `stream` but "." and "..", in the order of the file system. False, with errno set, when it
/// cannot be read to its end. Threads: any, each with its own stream.
bool ReadNames(DIR* stream, std::vector<std::string>* names);

}  // namespace nimo
