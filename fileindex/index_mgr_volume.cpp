// The management operations on volumes, homes and accounts.
#define ORBISK_RECORD_FILE "index_mgr.cpp"
#include <memory>
#include <set>

#include "common/check.h"
#include "fileindex/index_mgr_steps.h"
#include "fileindex/related_services.h"
#include "nimo/home.h"
#include "nimo/string_list.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/fileindex/util.h"

namespace orbisk::fileindex {
namespace {

constexpr int kHomesAtFirst = 1024;

bool LiesOn(const Folder& folder, const std::string& mount_point) {
  return StringStartWith(folder.GetFullPath(), mount_point + "/");
}

// The platform's list of strings, which it may replace by a larger one.
class StringList {
 public:
  StringList() : list_(NLIBCSzListAlloc(kHomesAtFirst)) {}
  ~StringList() { NLIBCSzListFree(list_); }
  StringList(const StringList&) = delete;
  StringList& operator=(const StringList&) = delete;

  bool valid() const { return list_ != nullptr; }
  SZLIST** address() { return &list_; }
  int size() const { return list_->nItem; }
  const char* operator[](int index) const { return NLIBCSzListGet(list_, index); }

 private:
  SZLIST* list_;
};

void ReindexAll(const StringList& paths) {
  for (int i = 0; i < paths.size(); ++i) {
    if (const char* const path = paths[i]) {  // the platform may have none at some place
      AddCustomEvent(EVENT_REINDEX, path, "", Json::Value());
    }
  }
}

}  // namespace

void VolumePause(const std::string& mount_point) {
  ORBISK_CHECK(mount_point.empty(), 120, "Missing mount point");
  const FolderMgr folder_mgr;
  std::set<std::string> shares;
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (LiesOn(*folder, mount_point)) {
      folder->SetPaused(true);
      folder->SetVolumeToBeClean(mount_point);
      shares.insert(folder->GetShare());
    }
  }
  folder_mgr.Save();
  for (const std::string& share_name : shares) {
    DeleteNimotifydCfg(share_name);
  }
}

void VolumeResume(const std::string& mount_point) {
  ORBISK_CHECK(mount_point.empty(), 120, "Missing mount point");
  const FolderMgr folder_mgr;
  std::set<std::string> shares;
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (LiesOn(*folder, mount_point)) {
      folder->SetPaused(false);
      shares.insert(folder->GetShare());
    }
  }
  folder_mgr.Save();
  for (const std::string& share_name : shares) {
    elastic::ShareIndexResume(share_name);
    SendWorkerCommand("worker_create", share_name);
    UpsertNimotifydCfg(share_name, folder_mgr);
  }
}

void VolumeClearPaused(const std::string& mount_point) {
  ORBISK_CHECK(mount_point.empty(), 120, "Missing mount point");
  FolderMgr folder_mgr;
  // A status file that cannot be read stops this before anything is deleted. It is read anew for each change: what
  // others store during the long wait for the search daemon is not to be lost.
  [[maybe_unused]] const StatusMgr status_mgr;
  std::set<std::string> shares;
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (folder->IsPaused() && folder->GetVolumeToBeClean() == mount_point) {
      shares.insert(folder->GetShare());
    }
  }
  for (const std::string& share_name : shares) {
    StatusMgr().ClearShareStatus(share_name);
    ForgetShare(folder_mgr, share_name);
    elastic::ShareIndexDelete(share_name);
  }
  folder_mgr.Save();
  StopServicesIfEmpty(folder_mgr);
}

void HomeEnable(AUTH_TYPE auth_type) {
  StringList paths;
  if (!paths.valid()) {
    ORBISK_RECORD(ORBISK_SOURCE, "NLIBCSzListAlloc failed");
    return;
  }
  if (0 != NIMORecycleHomeEnumRecyclePathForAuthType(paths.address(), auth_type)) {
    ORBISK_RECORD(ORBISK_SOURCE, "NIMORecycleHomeEnumRecyclePathForAuthType failed. auth: %d",
                  static_cast<int>(auth_type));
    return;
  }
  ReindexAll(paths);
}

void HomeDisable(AUTH_TYPE auth_type) {
  StringList paths;
  if (!paths.valid()) {
    ORBISK_RECORD(ORBISK_SOURCE, "NLIBCSzListAlloc failed");
    return;
  }
  // Of all accounts: there are no homes of any kind any more.
  if (0 != NIMORecycleHomeEnumRecyclePath(paths.address())) {
    ORBISK_RECORD(ORBISK_SOURCE, "NIMORecycleHomeEnumRecyclePath failed. auth: %d", static_cast<int>(auth_type));
    return;
  }
  ReindexAll(paths);
}

void UserRename(const std::string& user_from, const std::string& user_to) {
  ORBISK_CHECK(user_from.empty(), 120, "Missing user_from");
  ORBISK_CHECK(user_to.empty(), 120, "Missing user_to");
  const std::string home_from = "/homes/" + user_from;
  const std::string home_to = "/homes/" + user_to;
  const FolderMgr folder_mgr;
  for (const auto& folder : folder_mgr.GetFolders()) {
    const std::string path_old = folder->GetPath();
    if (StringStartWith(path_old + "/", home_from + "/")) {
      const std::string path_new = home_to + path_old.substr(home_from.size());
      ORBISK_NOTE("Update homes rule: [%s] -> [%s]", path_old.c_str(), path_new.c_str());
      folder->SetPath(path_new);
    }
  }
  folder_mgr.Save();
  std::string full_path_new;
  std::string full_path_old;
  GetFullPath(full_path_new, home_to);
  GetFullPath(full_path_old, home_from);
  AddCustomEvent(EVENT_RENAME, full_path_new, full_path_old, Json::Value());
}

}  // namespace orbisk::fileindex
