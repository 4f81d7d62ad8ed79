// The folder that the index of a share lies in, made for shares that have no index yet.
#pragma once

#include <string>

namespace nimo {

/// Makes the folder that holds queue and database of the share whose folder is `share_path`, if it is missing. A volume
/// that nobody can write to has none; that is logged. Threads: any.
void MakeIndexFolder(const std::string& share_path);

}  // namespace nimo
