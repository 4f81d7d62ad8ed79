// Looks the governing folder up by climbing the path.
#include "services/indexer/policy.h"

#include <algorithm>
#include <memory>

#include "orbisk/fileindex/file_type.h"
#include "orbisk/fileindex/folder_mgr.h"

namespace fileindexd {

namespace fi = orbisk::fileindex;

Policy Policy::Read(const std::string& share) {
  Folders folders;
  const fi::FolderMgr manager;
  for (const std::shared_ptr<fi::Folder>& folder : manager.GetFolders()) {
    if (folder->GetShare() == share) {  // of two for one place the first counts
      folders.emplace(folder->GetFullPath(), FolderSwitches{folder->IsDocument(), folder->IsAudio(), folder->IsVideo(),
                                                            folder->IsPhoto(), folder->IsPaused()});
    }
  }
  return Policy(std::move(folders));
}

const FolderSwitches* Policy::Governing(const std::string& path) const {
  std::string at = path;
  while (!at.empty()) {
    const auto found = folders_.find(at);
    if (found != folders_.end()) {
      return &found->second;
    }
    const size_t slash = at.rfind('/');
    at.resize(slash == std::string::npos ? 0 : slash);
  }
  return nullptr;
}

bool Policy::IsPaused(const std::string& path) const {
  const FolderSwitches* const governing = Governing(path);
  return governing != nullptr && governing->paused;
}

bool Policy::NeedsMeta(const std::string& path) const {
  const FolderSwitches* const governing = Governing(path);
  if (governing == nullptr) {
    return false;
  }
  switch (fi::GetFileTypeByFullPath(path)) {
    case fi::FILE_TYPE_DOCUMENT:
      return governing->document;
    case fi::FILE_TYPE_AUDIO:
      return governing->audio;
    case fi::FILE_TYPE_VIDEO:
      return governing->video;
    case fi::FILE_TYPE_PHOTO:
      return governing->photo;
    default:
      return true;
  }
}

bool Policy::LeadsToFolder(const std::string& path) const {
  const auto next = folders_.lower_bound(path + "/");
  return next != folders_.end() && next->first.compare(0, path.size() + 1, path + "/") == 0;
}

bool Policy::HasWork() const {
  return std::any_of(folders_.begin(), folders_.end(), [](const auto& folder) { return !folder.second.paused; });
}

std::vector<std::string> Policy::Changes(const Policy& after) const {
  std::vector<std::string> changes;
  for (const auto& [path, switches] : folders_) {
    const auto now = after.folders_.find(path);
    if (now == after.folders_.end() || !(now->second == switches)) {
      changes.push_back(path);
    }
  }
  for (const auto& [path, switches] : after.folders_) {
    if (folders_.count(path) == 0) {
      changes.push_back(path);
    }
  }
  return changes;
}

bool IsAtOrBelow(const std::string& path, const std::string& folder) {
  return path.compare(0, folder.size(), folder) == 0 && (path.size() == folder.size() || path[folder.size()] == '/');
}

}  // namespace fileindexd
