// What has to follow a change of the configuration: companion services, the change monitor, index data on disk.
#pragma once

#include <string>

#include "orbisk/fileindex/folder_mgr.h"

namespace orbisk::fileindex {

// None takes the lock of the configuration; callers hold it where one is taken. Threads: any.

/// Starts what indexing needs, or stops it: the SMB server's Spotlight answer, the content extractor, the indexing
/// daemon. Never throws: each failure is logged, and the next step follows.
void SetupRelatedServices(bool enable);

/// Has the change monitor watch all folders of `share_name` in `folder_mgr`, paused ones too, in place of what it
/// watched for the share before. Throws Error 502 if it refuses, and as sdk::SDKShare and Folder::GetFullPath.
void UpsertNimotifydCfg(const std::string& share_name, const FolderMgr& folder_mgr);

/// Has the change monitor watch nothing for `share_name`. Throws Error 502 if it refuses, and as sdk::SDKShare.
void DeleteNimotifydCfg(const std::string& share_name);

/// Removes queue, side file and database of the share with the full path `share_path`, and its flags. The share itself
/// need not exist. Throws Error 502 if the platform does not say where they lie, and as StatusMgr.
void CleanShareIndexData(const std::string& share_name, const std::string& share_path);

}  // namespace orbisk::fileindex
