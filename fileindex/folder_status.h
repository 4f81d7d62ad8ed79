// The status of indexed folders, for one of them or for many at once.
#pragma once

#include <json/json.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fileindex/queue_search.h"
#include "orbisk/fileindex/folder.h"
#include "orbisk/fileindex/status_mgr.h"

namespace orbisk::fileindex {

/// Answers Folder::GetStatus for the folders of one list. The status file and each share's queue are read once, at the
/// first question that needs them, and so the answers are those of one moment.
///
/// Threads: as Folder.
class FolderStatusReader {
 public:
  /// Only these folders can be asked for; they must outlive this object.
  explicit FolderStatusReader(std::vector<const Folder*> folders) : folders_(std::move(folders)) {}

  /// As Folder::GetStatus of `folder`.
  void GetStatus(const Folder& folder, Json::Value& status);
  /// As Folder::IsIndexing of `folder`.
  bool IsIndexing(const Folder& folder);

 private:
  std::vector<std::string> FullPathsIn(const std::string& share) const;

  const std::vector<const Folder*> folders_;
  std::optional<StatusMgr> status_mgr_;
  std::map<std::string, QueueSearch> queue_by_share_;
};

}  // namespace orbisk::fileindex
