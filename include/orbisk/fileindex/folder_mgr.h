// The configuration of indexed folders.
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "orbisk/export.h"
#include "orbisk/fileindex/folder.h"

namespace orbisk::fileindex {

class FullPathIndex;

/// All indexed folders in order, read from the folders file at construction and written back by Save.
///
/// Entries are told apart by their share path, byte for byte. A full path is governed by the entry with the longest
/// full path that is this path or a folder above it. Questions about full paths ask the box for the full path of
/// entries that do not know theirs yet, and throw what Folder::GetFullPath throws.
///
/// Takes no lock. Whoever changes the configuration holds the lock file /tmp/orbisk_cfg_folder.lock from before the
/// construction until after Save; readers need none, as the file is replaced whole.
///
/// Threads: one object, with its entries, is used by one thread at a time.
class ORBISK_EXPORT FolderMgr {
 public:
  /// Reads /var/packages/Orbisk/etc/fileindex.folders; a missing file is an empty configuration. Throws Error 504 if
  /// the file cannot be read and parsed, and as Folder's constructor for a bad entry.
  FolderMgr();

  /// Replaces the folders file, as root, mode 0644. Throws Error 503 if the process cannot act as root, 505 if the file
  /// cannot be written, 502 if its mode cannot be set.
  void Save() const;

  /// The entries in order.
  const std::vector<std::shared_ptr<Folder>>& GetFolders() const { return folders_; }
  bool IsEmpty() const { return folders_.empty(); }

  /// Sets `out` to the entry with the share path `path`. Throws Error 902 with the path if there is none.
  void Get(std::shared_ptr<Folder>& out, const std::string& path) const;
  /// Whether there is an entry with the share path `path`.
  bool HasFolder(const std::string& path) const;

  /// The entry that governs `full_path`, the earlier of two with one full path; null if there is none.
  std::shared_ptr<Folder> GetMostSuitableCfg(const std::string& full_path) const;
  /// Whether the governing entry wants files of this file's kind. True for a file of no kind, false without an entry.
  bool IsFullPathNeedMeta(const std::string& full_path) const;
  /// Whether any entry governs `full_path`.
  bool IsFullPathIndexed(const std::string& full_path) const;
  /// Whether any entry's full path is `full_path`.
  bool IsFullPathHasOwnCfg(const std::string& full_path) const;
  /// Whether any entry lies in `share`.
  bool IsShareIndexed(const std::string& share) const;

  /// Sets `out` to one page of the entries and `total` to the count of all that pass the filters.
  ///
  /// `group` is the group that entries must have, exactly; "" stands for none, "all" lets all pass. `keyword`, trimmed
  /// and lower-cased, must be part of the lower-cased name. `sort_by` is "document", "audio", "video", "photo" (entries
  /// without come first), "path", or else the name; text is compared without regard to case. `sort_direction` "desc",
  /// in any case, turns the order round. The page leaves out the first `offset` entries and has at most `limit`; 0
  /// gives an empty page.
  void List(std::vector<std::shared_ptr<Folder>>& out, unsigned long& total, unsigned long offset, unsigned long limit,
            const std::string& sort_by, const std::string& sort_direction, const std::string& group,
            const std::string& keyword) const;

  /// Adds `folder` at the end, in place of an entry with its share path. Sets `diff` to the DiffCfg of what governed
  /// the folder until now and `folder`.
  void Upsert(std::shared_ptr<Folder>& diff, std::shared_ptr<Folder> folder);

  /// Removes the entry with the share path `path`, if there is one. Sets `diff` to the DiffCfg of what governed the
  /// folder until now and what governs it from now on. Throws as GetFullPath of orbisk/fileindex/util.h.
  void Delete(std::shared_ptr<Folder>& diff, const std::string& path);

  /// Removes every entry of `share`.
  void DeleteByShare(const std::string& share);

  /// What changes under a path when `after` governs it in place of `before`: an entry with the path and name of
  /// `before` whose kinds are those that change, all of them when `after` is null. Null when `before` is.
  std::shared_ptr<Folder> DiffCfg(std::shared_ptr<Folder> before, std::shared_ptr<Folder> after);

  /// The names of the shares of all entries.
  std::set<std::string> GetIndexedShares() const;
  /// The groups of all entries that have one.
  std::set<std::string> GetGroups() const;

 private:
  FullPathIndex& Index() const;
  template <class Predicate>
  void Remove(Predicate predicate);

  std::vector<std::shared_ptr<Folder>> folders_;
  mutable std::shared_ptr<FullPathIndex> index_;
};

}  // namespace orbisk::fileindex
