// What a command asks of the configured folders before it does anything.
#pragma once

#include <string>

namespace fileindexctl {

/// Throws std::runtime_error that names `share` if no configured folder lies in it: for such a share the library does
/// nothing and says nothing, and a name that is not known was misspelt. Throws orbisk::Error as FolderMgr.
///
/// Threads: any.
void CheckIndexed(const std::string& share);

}  // namespace fileindexctl
