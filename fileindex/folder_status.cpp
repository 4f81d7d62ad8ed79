// The status of indexed folders, for one of them or for many at once.
#include "fileindex/folder_status.h"

#include <ctime>

#include "orbisk/error.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/sdk/share.h"

namespace orbisk::fileindex {
namespace {

constexpr int kNeedReindex = 1;

bool IsPaused(long resume_time) {
  return resume_time == 0 || resume_time > static_cast<long>(time(nullptr));
}

}  // namespace

void FolderStatusReader::GetStatus(const Folder& folder, Json::Value& status) {
  if (!status_mgr_) {
    status_mgr_.emplace();
  }
  if (!CanPathBeIndexed(folder.GetPath())) {
    status["text"] = "error";
    status["desc"] = "invalid_path";
  } else if ((status_mgr_->GetShareStatus(folder.GetShare()) & kNeedReindex) != 0) {
    status["text"] = "need_reindex";
  } else if (IsIndexing(folder)) {
    status["text"] = IsPaused(status_mgr_->GetPauseInfo()) ? "paused" : "processing";
  } else {
    status["text"] = "finished";
  }
}

bool FolderStatusReader::IsIndexing(const Folder& folder) {
  const std::string share_name = folder.GetShare();
  auto queue = queue_by_share_.find(share_name);
  if (queue == queue_by_share_.end()) {
    const sdk::SDKShare share(share_name);
    const std::string queue_path = share.GetQueuePath();
    queue = queue_by_share_.try_emplace(share_name, queue_path, FullPathsIn(share_name)).first;
  }
  return queue->second.IsFullPathProcessing(folder.GetFullPath());
}

// The full paths of all folders of the list that lie in `share`: what the share's queue will be asked for.
std::vector<std::string> FolderStatusReader::FullPathsIn(const std::string& share) const {
  std::vector<std::string> full_paths;
  for (const Folder* const folder : folders_) {
    // A malformed path is in no share; its own question fails for it, when its turn comes.
    if (folder->GetPath().compare(0, 1, "/") == 0 && folder->GetShare() == share) {
      full_paths.push_back(folder->GetFullPath());
    }
  }
  return full_paths;
}

}  // namespace orbisk::fileindex
