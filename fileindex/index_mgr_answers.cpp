// The management operations that only answer: lists of folders and their combined status.
#define ORBISK_RECORD_FILE "index_mgr.cpp"
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "fileindex/combined_status.h"
#include "fileindex/folder_status.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"

namespace orbisk::fileindex {
namespace {

using Folders = std::vector<std::shared_ptr<Folder>>;

std::vector<const Folder*> Pointers(const Folders& folders) {
  std::vector<const Folder*> pointers;
  pointers.reserve(folders.size());
  for (const auto& folder : folders) {
    pointers.push_back(folder.get());
  }
  return pointers;
}

Json::Value FolderItem(const Folder& folder, FolderStatusReader& reader) {
  Json::Value item;
  reader.GetStatus(folder, item);
  item["name"] = folder.GetName();
  return item;
}

Json::Value GroupItem(const std::string& group, const Folders& folders, FolderStatusReader& reader) {
  CombinedStatus combined;
  for (const auto& folder : folders) {
    if (folder->GetGroup() == group) {
      Json::Value status;
      reader.GetStatus(*folder, status);
      combined.Add(status["text"].asString());
    }
  }
  Json::Value item;
  item["name"] = group;
  item["text"] = combined.text();
  item["group"] = true;
  return item;
}

}  // namespace

void FolderList(Json::Value& answer, unsigned long offset, unsigned long limit, const std::string& sort_by,
                const std::string& sort_direction, const std::string& group, const std::string& keyword,
                const Json::Value& additional) {
  const FolderMgr folder_mgr;
  Folders page;
  unsigned long total = 0;
  folder_mgr.List(page, total, offset, limit, sort_by, sort_direction, group, keyword);
  Json::Value result;
  result["folder"] = GetDataWithAdditional(page, additional);
  result["total"] = Json::UInt64{total};
  result["offset"] = Json::UInt64{offset};
  answer = std::move(result);
}

void FolderGet(Json::Value& answer, const std::string& path) {
  const FolderMgr folder_mgr;
  std::shared_ptr<Folder> folder;
  folder_mgr.Get(folder, path);
  answer = folder->GetData();
}

void FolderListGroups(Json::Value& answer) {
  Json::Value groups(Json::arrayValue);
  for (const std::string& group : FolderMgr().GetGroups()) {
    groups.append(group);
  }
  answer = std::move(groups);
}

void FolderSummary(Json::Value& answer) {
  const FolderMgr folder_mgr;
  const Folders& folders = folder_mgr.GetFolders();
  FolderStatusReader reader(Pointers(folders));
  CombinedStatus combined;
  Json::Value items(Json::arrayValue);
  const auto append = [&](Json::Value item) {
    combined.Add(item["text"].asString());
    items.append(std::move(item));
  };
  for (const auto& folder : folders) {
    if (folder->GetGroup().empty()) {
      append(FolderItem(*folder, reader));
    }
  }
  for (const std::string& group : folder_mgr.GetGroups()) {
    append(GroupItem(group, folders, reader));
  }
  Json::Value result;
  result["items"] = std::move(items);
  result["status"] = combined.text();
  answer = std::move(result);
}

}  // namespace orbisk::fileindex
