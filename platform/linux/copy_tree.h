// Copying and removing whole trees, entry by entry.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "nimo/filesystem.h"

namespace nimo {

/// Copies one file or tree, and remembers what it copied so that the source can be removed without losing changes.
///
/// Directories are walked by descriptor and links are never followed, so a tree that others rename and relink meanwhile
/// cannot lead outside itself. Each level that the walk is below holds two descriptors.
///
/// All functions return false with errno set on failure. Threads: one object is used by one thread.
class TreeCopy {
 public:
  /// `path` is what `progress` (may be null) is told.
  TreeCopy(bool keep_attributes, const char* path, NIMO_COPY_PROGRESS progress)
      : keep_attributes_(keep_attributes), path_(path), progress_(progress) {}

  /// Copies `from_name` in `from_directory` to the new name `to_name` in `to_directory`. Leaves a partial copy there on
  /// failure. Call it once.
  bool Copy(int from_directory, const char* from_name, int to_directory, const char* to_name);

  /// Whether everything in the source is still what was copied; if not, false with errno EBUSY.
  bool SourceIsUnchanged(int from_directory, const char* from_name) const;

  /// Removes what was copied from the source. What came or changed since stays, with its folders, and is a failure.
  bool RemoveSource(int from_directory, const char* from_name) const;

 private:
  using FileId = std::pair<dev_t, ino_t>;
  struct Copied {
    off_t size;
    int64_t modified_seconds;
    int64_t modified_nanoseconds;
  };

  bool CopyEntry(int from_directory, const char* from_name, int to_directory, const char* to_name);
  bool CopyDirectory(int from_directory, const char* from_name, int to_directory, const char* to_name);
  bool CopyFile(int from_directory, const char* from_name, int to_directory, const char* to_name);
  bool CopyLink(int from_directory, const char* from_name, int to_directory, const char* to_name,
                const struct stat& status);
  bool CopySpecial(int to_directory, const char* to_name, const struct stat& status);
  bool LinkToEarlierCopy(const struct stat& status, int to_directory, const char* to_name) const;
  std::string RelativePath(const char* name) const;
  void Remember(const struct stat& status);
  bool IsWhatWasCopied(const struct stat& status) const;
  bool Sweep(int directory, const char* name, bool remove) const;

  const bool keep_attributes_;
  const char* const path_;
  const NIMO_COPY_PROGRESS progress_;
  unsigned long long copied_bytes_ = 0;
  int to_root_ = -1;                          // the directory that the copy's root lies in
  std::vector<std::string> trail_;            // names from the copy's root to where the walk is
  FileId root_id_{};                          // the copy's root, if it is a directory
  std::map<FileId, Copied> copied_;           // all that was copied
  std::map<FileId, std::string> hard_links_;  // copies of files with several names, by path below to_root_
};

/// Removes `name` in `directory` with everything in it. For trees of our own making: modes that are in the way are
/// changed.
bool RemoveTree(int directory, const char* name);

}  // namespace nimo
