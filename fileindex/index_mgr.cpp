// The management operations on folders: adding, changing, removing and reindexing them. Others are in
// index_mgr_answers.cpp (questions), index_mgr_share.cpp and index_mgr_volume.cpp.
#include "orbisk/fileindex/index_mgr.h"

#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "common/check.h"
#include "fileindex/index_mgr_steps.h"
#include "fileindex/related_services.h"
#include "orbisk/fileindex/communication.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"
#include "orbisk/lock_file.h"
#include "orbisk/sdk/share.h"

namespace orbisk::fileindex {
namespace {

constexpr char kFolderCfgLock[] = "/tmp/orbisk_cfg_folder.lock";
constexpr int kNeedReindex = 1;
constexpr int kNeedRebuild = 2;

using Diffs = std::vector<std::shared_ptr<Folder>>;

// What a list changed in a FolderMgr.
struct Changes {
  std::set<std::string> shares;
  Diffs diffs;  // null where nothing changes in what is indexed
};

// A folder whose event has every kind looked at.
std::shared_ptr<Folder> EveryKindOf(const Folder& folder) {
  return std::make_shared<Folder>(folder.GetPath(), folder.GetName(), "", "", true, true, true, true, false, false);
}

Changes UpsertFolders(FolderMgr& folder_mgr, const Json::Value& folder_list, bool create, bool updater_mode) {
  ORBISK_CHECK(!folder_list.isArray(), 120, toString(folder_list));
  Changes changes;
  for (const Json::Value& it : folder_list) {
    const auto folder_new = std::make_shared<Folder>(it);
    ORBISK_CHECK_TEXT(!updater_mode && !CanPathBeIndexed(folder_new->GetPath()),
                      "!CanPathBeIndexed(folder_new->GetPath()) && !updater_mode", 903,
                      "Path cannot index: " + folder_new->GetPath());
    // The manager that changes: twice in one list is a duplicate as well.
    ORBISK_CHECK(create && folder_mgr.HasFolder(folder_new->GetPath()), 901, "Duplicated ID: " + folder_new->GetPath());
    std::shared_ptr<Folder> diff;
    folder_mgr.Upsert(diff, folder_new);
    changes.diffs.push_back(create ? EveryKindOf(*folder_new) : diff);
    const std::string share_name = folder_new->GetShare();
    const sdk::SDKShare share(share_name);
    ORBISK_CHECK(!share.IsSpaceEnough(), 1003, "Share (" + share_name + ") space not enough");
    changes.shares.insert(share_name);
  }
  return changes;
}

void NotifySettingChanged(const std::set<std::string>& shares, bool is_upsert) {
  for (const std::string& share_name : shares) {
    Json::Value data;
    data["share_name"] = share_name;
    data["is_upsert"] = is_upsert;
    SendCommandToDaemon("notify_setting_changed", data);
  }
}

void AddUpdateDirectoryEvent(const Folder& diff) {
  AddCustomEvent(EVENT_UPDATE_DIRECTORY, diff.GetFullPath(), "", diff.GetIndexCfg());
}

void FolderUpsert(const Json::Value& folder_list, bool create, bool updater_mode) {
  const LockFile lock(kFolderCfgLock, true);
  FolderMgr folder_mgr;
  // The same file under the same lock, without reading it twice: entries are replaced, never changed.
  const FolderMgr folder_mgr_before(folder_mgr);
  const Changes changes = UpsertFolders(folder_mgr, folder_list, create, updater_mode);
  SetupRelatedServices(true);
  for (const std::string& share_name : changes.shares) {
    if (create && !folder_mgr_before.IsShareIndexed(share_name)) {
      elastic::ShareIndexCreate(share_name);
    }
    UpsertNimotifydCfg(share_name, folder_mgr);
  }
  folder_mgr.Save();
  NotifySettingChanged(changes.shares, true);
  if (updater_mode) {
    return;
  }
  for (const auto& diff : changes.diffs) {
    if (diff != nullptr) {
      AddUpdateDirectoryEvent(*diff);
    }
  }
}

void DropShare(const std::string& share_name) {
  const sdk::SDKShare share(share_name);
  elastic::ShareIndexDelete(share_name);
  DeleteNimotifydCfg(share_name);
  CleanShareIndexData(share_name, share.GetPath());
}

void FollowDeletion(FolderMgr& folder_mgr, const Changes& changes) {
  for (const std::string& share_name : changes.shares) {
    if (folder_mgr.IsShareIndexed(share_name)) {
      UpsertNimotifydCfg(share_name, folder_mgr);
    } else {
      DropShare(share_name);
    }
  }
  folder_mgr.Save();
  NotifySettingChanged(changes.shares, false);
  for (const auto& diff : changes.diffs) {
    if (diff != nullptr && folder_mgr.IsShareIndexed(diff->GetShare())) {
      AddUpdateDirectoryEvent(*diff);
    }
  }
  StopServicesIfEmpty(folder_mgr);
}

// The caller holds the lock, and has read `folder_mgr` since. Called as the exported operation, because the records of
// its checks name it.
void FolderDelete(FolderMgr& folder_mgr, const Json::Value& path_list) {
  ORBISK_CHECK(!path_list.isArray(), 120, toString(path_list));
  Changes changes;
  for (const Json::Value& it : path_list) {
    ORBISK_CHECK(!it.isString(), 120, toString(it));
    const std::string path = it.asString();
    std::shared_ptr<Folder> diff;
    folder_mgr.Delete(diff, path);
    changes.diffs.push_back(diff);
    std::string share_name;
    GetShareNameByPath(share_name, path);
    changes.shares.insert(share_name);
  }
  FollowDeletion(folder_mgr, changes);
}

struct SharePath {
  std::string share_name;
  std::string path;
};

std::vector<SharePath> ReadPaths(const Json::Value& path_list) {
  std::vector<SharePath> paths;
  for (const Json::Value& it : path_list) {
    SharePath share_path;
    share_path.path = it.asString();
    GetShareNameByPath(share_path.share_name, share_path.path);
    paths.push_back(std::move(share_path));
  }
  return paths;
}

void RebuildIndex(const std::string& share_name) {
  const sdk::SDKShare share(share_name);
  elastic::ShareIndexDelete(share_name);
  elastic::ShareIndexCreate(share_name);
  AddCustomEvent(EVENT_REINDEX, share.GetPath(), "", Json::Value());
}

}  // namespace

void FolderAdd(const Json::Value& folder_list, bool updater_mode) {
  FolderUpsert(folder_list, true, updater_mode);
}

void FolderSet(const Json::Value& folder_list, bool updater_mode) {
  FolderUpsert(folder_list, false, updater_mode);
}

void FolderDelete(const Json::Value& path_list) {
  const LockFile lock(kFolderCfgLock, true);
  FolderMgr folder_mgr;
  FolderDelete(folder_mgr, path_list);
}

void FolderDelete(const std::string& share_name) {
  const LockFile lock(kFolderCfgLock, true);
  FolderMgr folder_mgr;
  Json::Value path_list(Json::arrayValue);
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (folder->GetShare() == share_name) {
      path_list.append(folder->GetPath());
    }
  }
  FolderDelete(folder_mgr, path_list);
}

void FolderDelete(const char* share_name) {
  FolderDelete(std::string(share_name));
}

void FolderReindex(const Json::Value& path_list) {
  const StatusMgr status_mgr;
  const FolderMgr folder_mgr;
  ORBISK_CHECK(!path_list.isArray(), 120, toString(path_list));
  for (const Json::Value& it : path_list) {
    ORBISK_CHECK(!it.isString(), 120, toString(it));
  }
  std::set<std::string> touched;
  std::set<std::string> to_rebuild;
  for (const auto& [share_name, path] : ReadPaths(path_list)) {
    touched.insert(share_name);
    if (!folder_mgr.IsShareIndexed(share_name)) {
      continue;
    }
    if ((status_mgr.GetShareStatus(share_name) & kNeedRebuild) != 0) {
      to_rebuild.insert(share_name);
    } else {
      std::string full_path;
      GetFullPath(full_path, path);
      AddCustomEvent(EVENT_REINDEX, full_path, "", Json::Value());
    }
  }
  for (const std::string& share_name : to_rebuild) {
    RebuildIndex(share_name);
  }
  for (const std::string& share_name : touched) {
    if ((status_mgr.GetShareStatus(share_name) & kNeedReindex) != 0) {
      // Read anew: what others stored during the long wait for the search daemon is not to be lost.
      StatusMgr().UnsetShareStatus(share_name, kNeedReindex | kNeedRebuild);
    }
  }
}

}  // namespace orbisk::fileindex
