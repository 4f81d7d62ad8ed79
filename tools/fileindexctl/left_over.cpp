// The library rolls nothing back and takes nothing for granted: it makes an index for the first folder of a share,
// which must not be there, and removes or resumes the one that must be.
#include "tools/fileindexctl/left_over.h"

#include <algorithm>
#include <iostream>
#include <set>

#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/lock_file.h"
#include "orbisk/sdk/share.h"
#include "orbisk/util.h"
#include "tools/fileindexctl/daemon_client.h"

namespace fileindexctl {

namespace index = orbisk::fileindex;
using orbisk::Error;

namespace {

// Who deletes an index stores that last, and holds this all the while: what is made in between would be left over.
constexpr char kFoldersLock[] = "/tmp/orbisk_cfg_folder.lock";

constexpr int kNoSuchShare = 800;
// Answers of the search daemon.
constexpr int kNoSuchIndex = 1204;
constexpr int kIndexExists = 1220;
constexpr int kFilesMissing = 1221;

// Else the search daemon would make the folders, on the disk that the volume is to be mounted on.
bool IsThere(const std::string& share) {
  try {
    return orbisk::IsDirExist(orbisk::sdk::SDKShare(share).GetPath(), false);
  } catch (const Error& error) {
    if (error.code() != kNoSuchShare) {
      throw;
    }
    return false;
  }
}

// Whether it had to be made.
bool MakeIndex(const std::string& share) {
  if (!IsThere(share)) {
    return false;
  }
  try {
    index::elastic::ShareIndexCreate(share);
    return true;
  } catch (const Error& error) {
    if (error.code() != kIndexExists) {
      throw;
    }
  }
  if (orbisk::IsDirExist(orbisk::sdk::SDKShare(share).GetDBPath(), true)) {
    return false;
  }
  // What removed the files was broken off before the index itself.
  index::elastic::ShareIndexDelete(share);
  index::elastic::ShareIndexCreate(share);
  return true;
}

// False if none was missing.
bool MakeMissingIndexes(const std::vector<std::string>& shares) {
  const orbisk::LockFile lock(kFoldersLock, true);
  const index::FolderMgr folder_mgr;
  bool any = false;
  for (const std::string& share : std::set<std::string>(shares.begin(), shares.end())) {
    if (folder_mgr.IsShareIndexed(share) && MakeIndex(share)) {
      std::cerr << "fileindexctl: the index of the share " << share << " was missing; a new one is made\n";
      any = true;
    }
  }
  return any;
}

// False if there were none.
bool ForgetThoseWithoutIndex(const std::vector<std::string>& shares) {
  const orbisk::LockFile lock(kFoldersLock, true);
  index::FolderMgr folder_mgr;
  bool any = false;
  for (const std::string& share : std::set<std::string>(shares.begin(), shares.end())) {
    if (folder_mgr.IsShareIndexed(share) && !HasIndex(share)) {
      std::cerr << "fileindexctl: the index of the share " << share << " was missing; the share is forgotten\n";
      index::StatusMgr().ClearShareStatus(share);
      folder_mgr.DeleteByShare(share);
      any = true;
    }
  }
  if (any) {
    folder_mgr.Save();
  }
  return any;
}

bool AnyIndexed(const std::vector<std::string>& shares) {
  const index::FolderMgr folder_mgr;
  return std::any_of(shares.begin(), shares.end(), [&](const auto& share) { return folder_mgr.IsShareIndexed(share); });
}

// If no folder of the share is configured, its index is nobody's.
void DeleteLeftOverIndex(const std::string& share) {
  const orbisk::LockFile lock(kFoldersLock, true);
  if (!index::FolderMgr().IsShareIndexed(share)) {
    index::elastic::ShareIndexDelete(share);
    std::cerr << "fileindexctl: an index of the share " << share << " was left over; it is made anew\n";
  }
}

bool IsMissing(const Error& error) {
  return error.code() == kNoSuchIndex || error.code() == kFilesMissing;
}

}  // namespace

void WithIndexes(const Shares& shares, const std::function<void()>& operation) {
  try {
    operation();
  } catch (const Error& error) {
    if (!IsMissing(error) || !MakeMissingIndexes(shares())) {
      throw;
    }
    operation();
  }
}

void WithIndex(const std::string& share, const std::function<void()>& operation) {
  WithIndexes([&share] { return std::vector<std::string>{share}; }, operation);
}

void Forgetting(const Shares& shares, const std::function<void()>& operation) {
  try {
    operation();
    return;
  } catch (const Error& error) {
    if (!IsMissing(error)) {
      throw;
    }
    const std::vector<std::string> all = shares();
    if (!ForgetThoseWithoutIndex(all)) {
      throw;
    }
    if (AnyIndexed(all)) {
      operation();
      return;
    }
  }
  index::PrepareServices();
}

void AddFolder(const Json::Value& folder, bool updater) {
  Json::Value list(Json::arrayValue);
  list.append(folder);
  try {
    index::FolderAdd(list, updater);
    return;
  } catch (const Error& error) {
    if (error.code() != kIndexExists) {
      throw;
    }
  }
  std::string share;
  index::GetShareNameByPath(share, folder["path"].asString());
  DeleteLeftOverIndex(share);
  index::FolderAdd(list, updater);
}

}  // namespace fileindexctl
