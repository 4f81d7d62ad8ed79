// Where the folders of the watched file systems are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "services/monitor/handle.h"

namespace nimotifyd {

/// A bounded tree of folders: handle -> parent and name. It says where a folder is as of the event in work: events
/// change it in their order, and nothing else does.
///
/// Every change of an existing folder's place, and every removal, raises the generation; what a caller derived from a
/// folder (its path) holds as long as the generation does.
///
/// Threads: one.
class FolderCache {
 public:
  struct Folder {
    Handle handle;
    Folder* parent = nullptr;  ///< null: the top of what can be seen of a file system
    std::string name;
    uint32_t children = 0;
    bool used = false;
  };

  explicit FolderCache(size_t limit) : limit_(limit) {}

  /// Null if it is not known. Marks it as used.
  Folder* Find(const Handle& handle);

  /// Adds a folder that is not known. Makes room first if the limit is reached; `parent` and its ancestors stay.
  Folder* Insert(const Handle& handle, Folder* parent, std::string_view name);

  /// Puts `folder` below `parent` under `name`. False, and nothing is changed, if `parent` lies below `folder`.
  bool Move(Folder* folder, Folder* parent, std::string_view name);

  /// Forgets a folder. If folders below it are known everything is forgotten: their place would be anybody's guess.
  void Erase(Folder* folder);
  void Clear();

  size_t size() const { return folders_.size(); }
  uint64_t generation() const { return generation_; }

 private:
  void MakeRoom(Folder* keep);

  size_t limit_;
  uint64_t generation_ = 0;
  std::unordered_map<Handle, Folder, HandleHash> folders_;  // its elements never move
};

}  // namespace nimotifyd
