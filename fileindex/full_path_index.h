// Finding the entry that governs a full path without comparing every entry.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "fileindex/folder_fields.h"
#include "orbisk/fileindex/folder.h"

namespace orbisk::fileindex {

/// The entries of one list by their full paths, the earlier of two with one path.
///
/// Taken in as far as questions need them, in order, because an entry's full path may have to be asked of the box,
/// which may fail: an entry behind the one that answers a question must not fail it.
///
/// Threads: as FolderMgr.
class FullPathIndex {
 public:
  FullPathIndex() : path_changes_(PathChanges()) {}

  /// Whether no entry got another path since this was made. An index that is out of date answers wrongly.
  bool IsUpToDate() const { return path_changes_ == PathChanges(); }

  /// The entry of `folders` with the longest full path that holds `full_path`; null if there is none.
  std::shared_ptr<Folder> Nearest(const std::vector<std::shared_ptr<Folder>>& folders, std::string_view full_path);
  /// Whether the full path of any of `folders` holds `full_path`.
  bool AnyHolds(const std::vector<std::shared_ptr<Folder>>& folders, std::string_view full_path);
  /// Whether the full path of any of `folders` is `full_path`.
  bool AnyIs(const std::vector<std::shared_ptr<Folder>>& folders, std::string_view full_path);

  /// Says that some entry in the process got another path. Threads: any.
  static void NotePathChange();

 private:
  static std::uint64_t PathChanges();
  std::shared_ptr<Folder> Scan(const std::vector<std::shared_ptr<Folder>>& folders, std::string_view full_path);
  template <class Answers>
  bool Ask(const std::vector<std::shared_ptr<Folder>>& folders, Answers answers);
  void TakeInNext(const std::vector<std::shared_ptr<Folder>>& folders);

  const std::uint64_t path_changes_;
  bool was_asked_ = false;  // for the nearest
  size_t taken_in_ = 0;     // the first so many entries of the list are in the table
  // By what the entries themselves keep.
  std::unordered_map<std::string_view, std::shared_ptr<Folder>> by_full_path_;
  FullPaths full_paths_;
};

}  // namespace orbisk::fileindex
