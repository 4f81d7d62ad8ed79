// Whether anybody tells of a share's changes.
#pragma once

#include <string>
#include <vector>

namespace fileindexd {

/// Whether one of the change monitor's registrations in `folder` is for `queue`, a queue file. A folder that is not
/// there, or cannot be read, says nothing: true.
bool IsRegistered(const std::string& folder, const std::string& queue);

/// The same, but false where the folder is not there.
bool HasRegistration(const std::string& folder, const std::string& queue);

/// Whether the registration for `queue` covers each of `paths`. Where there is none, somebody wants none: true.
bool Watches(const std::string& folder, const std::string& queue, const std::vector<std::string>& paths);

/// Has the change monitor watch all indexed folders of `share` for `queue`, as the library's management operations do.
/// None of them does this alone: each also makes an index, or tells this daemon, which cannot answer itself. Throws
/// orbisk::Error: 502 if the monitor refuses, and as FolderMgr and Folder::GetFullPath.
void Register(const std::string& share, const std::string& queue);

}  // namespace fileindexd
