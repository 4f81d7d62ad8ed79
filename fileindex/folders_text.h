// The folders file's text, read and written without building JSON values: every change of the configuration reads and
// writes all of it, and those values are nearly all of what that costs.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orbisk/fileindex/folder.h"

namespace orbisk::fileindex {

/// Reads `text` into `folders` if it is written exactly as WriteFolders writes it, without strings that have an escape,
/// without the group that is reserved, and not empty. Else returns false, and `folders` is as it was: the JSON parser
/// has to read it. Threads: any.
bool ReadFolders(std::string_view text, std::vector<std::shared_ptr<Folder>>& folders);

/// The text of the array of what Folder::GetData says of each, as toString writes it. Threads: any.
std::string WriteFolders(const std::vector<std::shared_ptr<Folder>>& folders);

}  // namespace orbisk::fileindex
