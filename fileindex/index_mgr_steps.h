// Steps that several management operations take.
#pragma once

#include <string>

#include "orbisk/fileindex/folder_mgr.h"

namespace orbisk::fileindex {

/// Has the indexing daemon make or drop its worker for `share_name`: "worker_create" or "worker_delete". Throws as
/// SendCommandToDaemon.
void SendWorkerCommand(const std::string& type, const std::string& share_name);

/// Takes all folders of `share_name` out of `folder_mgr`, and says so in the log.
void ForgetShare(FolderMgr& folder_mgr, const std::string& share_name);

/// Stops the companion services if no folder at all is configured. Never throws.
void StopServicesIfEmpty(const FolderMgr& folder_mgr);

}  // namespace orbisk::fileindex
