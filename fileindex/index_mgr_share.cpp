// The management operations on whole shares: what the box calls when something became of a share.
#define ORBISK_RECORD_FILE "index_mgr.cpp"
#include "common/check.h"
#include "fileindex/index_mgr_steps.h"
#include "fileindex/related_services.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/sdk/share.h"
#include "orbisk/util.h"

namespace orbisk::fileindex {
namespace {

void SetPausedInShare(const FolderMgr& folder_mgr, const std::string& share_name, bool paused) {
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (folder->GetShare() == share_name) {
      folder->SetPaused(paused);
    }
  }
}

}  // namespace

void ShareRename(const std::string& share_from, const std::string& share_to) {
  ORBISK_CHECK(share_from.empty(), 120, "Missing share_from");
  ORBISK_CHECK(share_to.empty(), 120, "Missing share_to");
  const FolderMgr folder_mgr;
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (folder->GetShare() == share_from) {
      folder->SetShare(share_to);
    }
  }
  folder_mgr.Save();
  const sdk::SDKShare share(share_to);
  elastic::ShareIndexRename(share_from, share_to, share.GetDBPath());
  const std::string path_new = share.GetPath();
  const std::string path_old = ReplacePathShare(path_new, share_from, share_to);
  AddCustomEvent(EVENT_RENAME, path_new, path_old, Json::Value());
}

void ShareMigrate(const std::string& share_name, const std::string& path_from, const std::string& path_to) {
  ORBISK_CHECK(share_name.empty(), 120, "Missing share_name");
  ORBISK_CHECK(path_from.empty(), 120, "Missing path_from");
  ORBISK_CHECK(path_to.empty(), 120, "Missing path_to");
  if (!FolderMgr().IsShareIndexed(share_name)) {
    return;
  }
  elastic::ShareIndexMigrate(share_name, sdk::SDKShare(share_name).GetDBPath());
  AddCustomEvent(EVENT_RENAME, path_to, path_from, Json::Value());
}

void SharePause(const std::string& share_name) {
  ORBISK_CHECK(share_name.empty(), 120, "Missing share name");
  const FolderMgr folder_mgr;
  if (!folder_mgr.IsShareIndexed(share_name)) {
    return;
  }
  SendWorkerCommand("worker_delete", share_name);
  DeleteNimotifydCfg(share_name);
  elastic::ShareIndexPause(share_name);
  SetPausedInShare(folder_mgr, share_name, true);
  folder_mgr.Save();
}

void ShareResume(const std::string& share_name) {
  ORBISK_CHECK(share_name.empty(), 120, "Missing share name");
  const FolderMgr folder_mgr;
  if (!folder_mgr.IsShareIndexed(share_name)) {
    return;
  }
  elastic::ShareIndexResume(share_name);
  UpsertNimotifydCfg(share_name, folder_mgr);
  SendWorkerCommand("worker_create", share_name);
  SetPausedInShare(folder_mgr, share_name, false);
  folder_mgr.Save();
}

void ShareRebuild(const std::string& share_name) {
  ORBISK_CHECK(share_name.empty(), 120, "Missing share name");
  const FolderMgr folder_mgr;
  if (!folder_mgr.IsShareIndexed(share_name)) {
    return;
  }
  elastic::ShareIndexDelete(share_name);
  elastic::ShareIndexCreate(share_name);
  UpsertNimotifydCfg(share_name, folder_mgr);
  AddCustomEvent(EVENT_REINDEX, sdk::SDKShare(share_name).GetPath(), "", Json::Value());
  SendWorkerCommand("worker_create", share_name);
}

void ShareClearPaused(const std::string& share_name, const std::string& share_path) {
  ORBISK_CHECK(share_name.empty(), 120, "Missing share name");
  ORBISK_CHECK(share_path.empty(), 120, "Missing share path");
  FolderMgr folder_mgr;
  CleanShareIndexData(share_name, share_path);
  elastic::ShareIndexDelete(share_name);
  ForgetShare(folder_mgr, share_name);
  folder_mgr.Save();
  StopServicesIfEmpty(folder_mgr);
}

void ShareAutoClean(const std::string& share_name) {
  ORBISK_CHECK(share_name.empty(), 120, "Missing share name");
  if (!FolderMgr().IsShareIndexed(share_name)) {
    return;
  }
  // Before the share is looked up: a share that is gone loses its index all the same.
  elastic::ShareIndexDelete(share_name);
  DeleteNimotifydCfg(share_name);
  CleanShareIndexData(share_name, sdk::SDKShare(share_name).GetPath());
}

void ShareCheckRecycle(const std::string& share_name) {
  const std::string full_path = sdk::SDKShare(share_name).GetPath();
  // The share's folder, not the bin: the documents of a bin that was just emptied and removed have to go.
  if (IsDirExist(full_path, false)) {
    AddCustomEvent(EVENT_REINDEX, full_path + "/#recycle", "", Json::Value());
  }
}

}  // namespace orbisk::fileindex
