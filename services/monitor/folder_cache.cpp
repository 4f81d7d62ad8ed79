// The tree of known folders, with eviction of those not used lately.
#include "services/monitor/folder_cache.h"

namespace nimotifyd {

FolderCache::Folder* FolderCache::Find(const Handle& handle) {
  const auto found = folders_.find(handle);
  if (found == folders_.end()) {
    return nullptr;
  }
  found->second.used = true;
  return &found->second;
}

FolderCache::Folder* FolderCache::Insert(const Handle& handle, Folder* parent, std::string_view name) {
  if (folders_.size() >= limit_) {
    MakeRoom(parent);
  }
  Folder& folder = folders_[handle];
  folder.handle = handle;
  folder.parent = parent;
  folder.name = name;
  folder.used = true;
  if (parent != nullptr) {
    ++parent->children;
  }
  return &folder;
}

bool FolderCache::Move(Folder* folder, Folder* parent, std::string_view name) {
  for (const Folder* above = parent; above != nullptr; above = above->parent) {
    if (above == folder) {
      return false;
    }
  }
  ++generation_;
  if (folder->parent != nullptr) {
    --folder->parent->children;
  }
  if (parent != nullptr) {
    ++parent->children;
  }
  folder->parent = parent;
  folder->name = name;
  return true;
}

void FolderCache::Erase(Folder* folder) {
  if (folder->children != 0) {
    Clear();
    return;
  }
  ++generation_;
  if (folder->parent != nullptr) {
    --folder->parent->children;
  }
  const Handle handle = folder->handle;
  folders_.erase(handle);
}

void FolderCache::Clear() {
  ++generation_;
  folders_.clear();
}

// Folders without known children and not used since the last time go first; parents follow in later rounds. A round
// clears the marks, so a few rounds always suffice.
void FolderCache::MakeRoom(Folder* keep) {
  ++generation_;
  const size_t goal = limit_ - limit_ / 4;
  if (keep != nullptr) {
    ++keep->children;  // not without children for now
  }
  for (int rounds = 0; rounds < 4 && folders_.size() > goal; ++rounds) {
    for (auto at = folders_.begin(); at != folders_.end() && folders_.size() > goal;) {
      Folder& folder = at->second;
      if (folder.children != 0 || folder.used) {
        folder.used = false;
        ++at;
        continue;
      }
      if (folder.parent != nullptr) {
        --folder.parent->children;
      }
      at = folders_.erase(at);
    }
  }
  if (keep != nullptr) {
    --keep->children;
  }
}

}  // namespace nimotifyd
