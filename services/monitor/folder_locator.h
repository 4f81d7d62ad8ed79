// Finds the place of folders that the cache does not know.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "services/base/unique_fd.h"
#include "services/monitor/fanotify_stream.h"
#include "services/monitor/folder_cache.h"

namespace nimotifyd {

/// Answers where a folder was at the time of the event in work, though the disk only tells where it is now: events not
/// handled yet that name the folder as their object tell where it was before them.
///
/// Threads: one.
class FolderLocator {
 public:
  FolderLocator(FolderCache& cache, FanotifyStream& stream) : cache_(&cache), stream_(&stream) {}

  /// `paths` are folders through which handles of `file_system` can be opened; none: forgets the file system. Several
  /// are needed where it is mounted more than once, because a mount of a part of it does not show what is above.
  void Offer(uint64_t file_system, const std::vector<std::string>& paths);

  /// The folder, with its ancestors; null if it is gone, or in no offered file system.
  FolderCache::Folder* Locate(const Handle& folder);

  /// Opens (O_PATH) a folder by its handle; invalid if it is gone.
  service::UniqueFd Open(const Handle& folder);

  /// Lets go of the file systems, so that they can be unmounted. Locate opens them again.
  void CloseMounts() { mounts_.clear(); }

  uint64_t lookups() const { return lookups_; }

 private:
  struct Finding {
    bool top = false;
    FolderPlace place;
  };
  const std::vector<service::UniqueFd>& MountsOf(uint64_t file_system);
  std::optional<Finding> LookOnDisk(const Handle& folder);
  static std::optional<Finding> LookThrough(int mount, const Handle& folder);
  std::optional<Finding> Find(const Handle& folder);

  FolderCache* cache_;
  FanotifyStream* stream_;
  std::unordered_map<uint64_t, std::vector<std::string>> paths_;
  std::unordered_map<uint64_t, std::vector<service::UniqueFd>> mounts_;
  uint64_t lookups_ = 0;
};

}  // namespace nimotifyd
