// Full paths by what the entry before said.
#include "fileindex/folder_fields.h"

#include <utility>

#include "orbisk/fileindex/util.h"

namespace orbisk::fileindex {

void FolderFields::Fill(Folder& folder, std::string path, std::string name, std::string owner, std::string group,
                        std::string volume_to_be_clean) {
  folder.path_ = std::move(path);
  folder.name_ = std::move(name);
  folder.owner_ = std::move(owner);
  folder.group_ = std::move(group);
  folder.volume_to_be_clean_ = std::move(volume_to_be_clean);
}

const std::string& FolderFields::Share(const Folder& folder) {
  if (folder.share_.empty()) {
    GetShareNameByPath(folder.share_, folder.path_);
  }
  return folder.share_;
}

const std::string& FullPaths::Of(const Folder& folder) {
  std::string& full_path = folder.full_path_;
  if (!full_path.empty()) {
    return full_path;
  }
  // By its path, as the entry itself asks: a share that was put in later may say another name.
  const std::string& path = folder.path_;
  const size_t end = path.find('/', 1);
  const std::string_view share =
      path.empty() ? std::string_view() : std::string_view(path).substr(1, end == std::string::npos ? end : end - 1);
  if (asked_ && !path.empty() && path[0] == '/' && share == share_) {
    full_path.reserve(volume_.size() + path.size());
    full_path = volume_;
    full_path += path;
    return full_path;
  }
  GetFullPath(full_path, path);
  share_ = share;
  volume_ = full_path.substr(0, full_path.size() - path.size());
  asked_ = true;
  return full_path;
}

}  // namespace orbisk::fileindex
