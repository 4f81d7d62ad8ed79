// The folders file and the questions about it.
#include "orbisk/fileindex/folder_mgr.h"

#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <iterator>

#include "common/check.h"
#include "common/json_text.h"
#include "fileindex/folder_fields.h"
#include "fileindex/folders_text.h"
#include "fileindex/full_path_index.h"
#include "nimo/unicode.h"
#include "orbisk/fileindex/file_type.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"
#include "orbisk/sdk/credentials.h"
#include "orbisk/string_util.h"
#include "orbisk/util.h"

namespace orbisk::fileindex {
namespace {

constexpr char kFileIndexFoldersCfgPath[] = "/var/packages/Orbisk/etc/fileindex.folders";
constexpr char kAll[] = "all";

using Folders = std::vector<std::shared_ptr<Folder>>;
using Before = std::function<bool(const std::shared_ptr<Folder>&, const std::shared_ptr<Folder>&)>;

Before WithoutFirst(bool (Folder::*is_wanted)() const) {
  return [is_wanted](const auto& a, const auto& b) { return !(*a.*is_wanted)() && (*b.*is_wanted)(); };
}

Before ByText(std::string (Folder::*text)() const) {
  return [text](const auto& a, const auto& b) {
    return NLIBCUnicodeUTF8StrCaseCmp((*a.*text)().c_str(), (*b.*text)().c_str()) < 0;
  };
}

Before SortOrder(const std::string& sort_by) {
  if (sort_by == "document") {
    return WithoutFirst(&Folder::IsDocument);
  }
  if (sort_by == "audio") {
    return WithoutFirst(&Folder::IsAudio);
  }
  if (sort_by == "video") {
    return WithoutFirst(&Folder::IsVideo);
  }
  if (sort_by == "photo") {
    return WithoutFirst(&Folder::IsPhoto);
  }
  return ByText(sort_by == "path" ? &Folder::GetPath : &Folder::GetName);
}

void KeepGroup(Folders& folders, const std::string& group) {
  if (group != kAll) {
    std::erase_if(folders, [&](const auto& folder) { return folder->GetGroup() != group; });
  }
}

void KeepNamesWith(Folders& folders, const std::string& keyword) {
  const std::string part = ToLower(Trim(keyword));
  std::erase_if(folders,
                [&](const auto& folder) { return ToLower(folder->GetName()).find(part) == std::string::npos; });
}

}  // namespace

FolderMgr::FolderMgr() {
  Json::Value folders(Json::arrayValue);
  std::string text;
  const auto load = [&] {
    return ReadWholeFile(kFileIndexFoldersCfgPath, text) && (ReadFolders(text, folders_) || fromString(folders, text));
  };
  ORBISK_CHECK_TEXT(IsFileExist(kFileIndexFoldersCfgPath) && !load(),
                    "IsFileExist(kFileIndexFoldersCfgPath) && !folders.fromFile(kFileIndexFoldersCfgPath)", 504,
                    std::string("Cannot load json: ") + kFileIndexFoldersCfgPath);
  // Else the next Save would replace by an empty list what nobody could read.
  ORBISK_CHECK(!folders.isArray() && !folders.isNull(), 504,
               std::string("Cannot load json: ") + kFileIndexFoldersCfgPath);
  folders_.reserve(folders_.size() + folders.size());
  for (const Json::Value& data : folders) {
    folders_.push_back(std::make_shared<Folder>(data));
  }
}

void FolderMgr::Save() const {
  const std::string text = WriteFolders(folders_);
  const sdk::SDKCredentials as_root("root");
  ORBISK_CHECK_TEXT(!ReplaceWholeFile(text, kFileIndexFoldersCfgPath), "!folders.toFile(kFileIndexFoldersCfgPath)", 505,
                    kFileIndexFoldersCfgPath);
  ORBISK_CHECK(-1 == chmod(kFileIndexFoldersCfgPath, 0644), 502, "");
}

void FolderMgr::Get(std::shared_ptr<Folder>& out, const std::string& path) const {
  const auto it = std::find_if(folders_.begin(), folders_.end(),
                               [&](const auto& folder) { return FolderFields::Path(*folder) == path; });
  ORBISK_CHECK(it == folders_.end(), 902, path);
  out = *it;
}

bool FolderMgr::HasFolder(const std::string& path) const {
  return std::any_of(folders_.begin(), folders_.end(),
                     [&](const auto& folder) { return FolderFields::Path(*folder) == path; });
}

FullPathIndex& FolderMgr::Index() const {
  if (index_ == nullptr || !index_->IsUpToDate()) {
    index_ = std::make_shared<FullPathIndex>();
  }
  return *index_;
}

std::shared_ptr<Folder> FolderMgr::GetMostSuitableCfg(const std::string& full_path) const {
  return Index().Nearest(folders_, full_path);
}

bool FolderMgr::IsFullPathNeedMeta(const std::string& full_path) const {
  const std::shared_ptr<Folder> folder = GetMostSuitableCfg(full_path);
  if (folder == nullptr) {
    return false;
  }
  switch (GetFileTypeByFullPath(full_path)) {
    case FILE_TYPE_DOCUMENT:
      return folder->IsDocument();
    case FILE_TYPE_AUDIO:
      return folder->IsAudio();
    case FILE_TYPE_VIDEO:
      return folder->IsVideo();
    case FILE_TYPE_PHOTO:
      return folder->IsPhoto();
    case FILE_TYPE_OTHER:
      break;
  }
  return true;
}

bool FolderMgr::IsFullPathIndexed(const std::string& full_path) const {
  return Index().AnyHolds(folders_, full_path);
}

bool FolderMgr::IsFullPathHasOwnCfg(const std::string& full_path) const {
  return Index().AnyIs(folders_, full_path);
}

bool FolderMgr::IsShareIndexed(const std::string& share) const {
  return std::any_of(folders_.begin(), folders_.end(),
                     [&](const auto& folder) { return FolderFields::Share(*folder) == share; });
}

void FolderMgr::List(std::vector<std::shared_ptr<Folder>>& out, unsigned long& total, unsigned long offset,
                     unsigned long limit, const std::string& sort_by, const std::string& sort_direction,
                     const std::string& group, const std::string& keyword) const {
  out = folders_;
  KeepGroup(out, group);
  if (!keyword.empty()) {
    KeepNamesWith(out, keyword);
  }
  total = out.size();
  std::sort(out.begin(), out.end(), SortOrder(sort_by));
  if (ToLower(sort_direction) == "desc") {
    std::reverse(out.begin(), out.end());
  }
  out.erase(out.begin(), out.begin() + static_cast<Folders::difference_type>(std::min(offset, total)));
  out.resize(std::min<size_t>(out.size(), limit));
}

template <class Predicate>
void FolderMgr::Remove(Predicate predicate) {
  // Not in place: the predicate may throw, and the list is then as it was.
  Folders kept;
  kept.reserve(folders_.size() + 1);
  std::remove_copy_if(folders_.begin(), folders_.end(), std::back_inserter(kept), predicate);
  folders_.swap(kept);
  index_ = nullptr;
}

void FolderMgr::Upsert(std::shared_ptr<Folder>& diff, std::shared_ptr<Folder> folder) {
  diff = DiffCfg(GetMostSuitableCfg(folder->GetFullPath()), folder);
  const std::string path = folder->GetPath();
  Remove([&](const auto& entry) { return FolderFields::Path(*entry) == path; });
  folders_.push_back(std::move(folder));
}

void FolderMgr::Delete(std::shared_ptr<Folder>& diff, const std::string& path) {
  std::string full_path;
  GetFullPath(full_path, path);
  const std::shared_ptr<Folder> before = GetMostSuitableCfg(full_path);
  Remove([&](const auto& entry) { return FolderFields::Path(*entry) == path; });
  diff = DiffCfg(before, GetMostSuitableCfg(full_path));
}

void FolderMgr::DeleteByShare(const std::string& share) {
  Remove([&](const auto& entry) { return FolderFields::Share(*entry) == share; });
}

std::shared_ptr<Folder> FolderMgr::DiffCfg(std::shared_ptr<Folder> before, std::shared_ptr<Folder> after) {
  if (before == nullptr) {
    return nullptr;
  }
  const auto changes = [&](bool (Folder::*is_wanted)() const) {
    return after == nullptr || (*before.*is_wanted)() != (*after.*is_wanted)();
  };
  return std::make_shared<Folder>(before->GetPath(), before->GetName(), "", "", changes(&Folder::IsDocument),
                                  changes(&Folder::IsAudio), changes(&Folder::IsVideo), changes(&Folder::IsPhoto),
                                  false, false);
}

std::set<std::string> FolderMgr::GetIndexedShares() const {
  std::set<std::string> shares;
  for (const auto& folder : folders_) {
    shares.insert(folder->GetShare());
  }
  return shares;
}

std::set<std::string> FolderMgr::GetGroups() const {
  std::set<std::string> groups;
  for (const auto& folder : folders_) {
    if (!folder->GetGroup().empty()) {
      groups.insert(folder->GetGroup());
    }
  }
  return groups;
}

}  // namespace orbisk::fileindex
