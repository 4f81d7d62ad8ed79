// Moves the files of a closed index to another folder, on any file system.
#pragma once

#include <string>
#include <vector>

namespace nimoelasticd {

/// Whether one of the files `names` is in `folder`.
bool HasIndexFiles(const std::string& folder, const std::vector<std::string>& names);

/// Puts the index of `from` at `to`, whole or not at all. Where the file system allows it, the folder is renamed, with
/// whatever else is in it. Else the files `names` are copied into a folder beside `to`, synced, and that folder is
/// renamed; the old ones are then still at `from`. Missing parents of `to` are made; `to` itself may be an empty
/// folder.
///
/// The last step is a rename, so at no instant is there an index at `to` that is not complete.
/// Throws std::system_error; then the index is at `from`, and only there.
void PlaceIndex(const std::string& from, const std::string& to, const std::vector<std::string>& names);

/// Removes what a move was interrupted in: an incomplete copy beside `to`.
void DropPartialCopy(const std::string& to);

}  // namespace nimoelasticd
