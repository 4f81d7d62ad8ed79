// The library rolls nothing back and takes nothing for granted: it makes an index for the first folder of a share,
// which must not be there, and removes or resumes the one that must be.
#include "tools/fileindexctl/left_over.h"

#include <iostream>
#include <set>

#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/sdk/share.h"
#include "orbisk/util.h"

namespace fileindexctl {

namespace index = orbisk::fileindex;
using orbisk::Error;

namespace {

// Answers of the search daemon.
constexpr int kNoSuchIndex = 1204;
constexpr int kIndexExists = 1220;
constexpr int kFilesMissing = 1221;

// The search daemon knows the index still, and its files are gone though the share is there: what removed them was
// broken off before the index itself.
bool IsEmptied(const std::string& share_name) {
  const orbisk::sdk::SDKShare share(share_name);
  return orbisk::IsDirExist(share.GetPath(), false) && !orbisk::IsDirExist(share.GetDBPath(), true);
}

// Whether it had to be made.
bool MakeIndex(const std::string& share) {
  try {
    index::elastic::ShareIndexCreate(share);
    return true;
  } catch (const Error& error) {
    if (error.code() != kIndexExists) {
      throw;
    }
  }
  if (!IsEmptied(share)) {
    return false;
  }
  index::elastic::ShareIndexDelete(share);
  index::elastic::ShareIndexCreate(share);
  return true;
}

// False if none was missing.
bool MakeMissingIndexes(const std::vector<std::string>& shares) {
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

bool IsMissing(const Error& error) {
  return error.code() == kNoSuchIndex || error.code() == kFilesMissing;
}

}  // namespace

void WithIndexes(const std::vector<std::string>& shares, const std::function<void()>& operation) {
  try {
    operation();
  } catch (const Error& error) {
    if (!IsMissing(error) || !MakeMissingIndexes(shares)) {
      throw;
    }
    operation();
  }
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
  if (!index::FolderMgr().IsShareIndexed(share)) {
    // Removing a folder that is in no list clears away what its share has.
    Json::Value paths(Json::arrayValue);
    paths.append(folder["path"]);
    index::FolderDelete(paths);
    std::cerr << "fileindexctl: an index of the share " << share << " was left over; it is made anew\n";
  }
  index::FolderAdd(list, updater);
}

}  // namespace fileindexctl
