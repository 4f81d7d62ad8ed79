// Which paths of one share are to be indexed, and how.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace fileindexd {

/// One indexed folder's switches.
struct FolderSwitches {
  bool document = true;
  bool audio = true;
  bool video = true;
  bool photo = true;
  bool paused = false;
  bool operator==(const FolderSwitches&) const = default;
};

/// The indexed folders of one share, by full path. A path is governed by the folder with the longest path that is this
/// path or above it.
///
/// It asks nothing of the box, unlike the folder manager: entries of other shares, which may be gone, do not matter.
///
/// Threads: a plain value.
class Policy {
 public:
  using Folders = std::map<std::string, FolderSwitches>;

  Policy() = default;
  explicit Policy(Folders folders) : folders_(std::move(folders)) {}

  /// The folders that the folders file has for `share`. Throws orbisk::Error as FolderMgr and Folder::GetFullPath do.
  static Policy Read(const std::string& share);

  /// Whether some folder governs `path`.
  bool Governs(const std::string& path) const { return Governing(path) != nullptr; }
  /// Whether `path` is to be left as it is in the index.
  bool IsPaused(const std::string& path) const;
  /// Whether the text and metadata of a file are wanted, and not its attributes alone.
  bool NeedsMeta(const std::string& path) const;
  /// Whether an indexed folder lies below `path`.
  bool LeadsToFolder(const std::string& path) const;
  /// Whether there is a folder that is not paused.
  bool HasWork() const;
  /// The folders that are different in `after`: added, gone, or switched.
  std::vector<std::string> Changes(const Policy& after) const;

  const Folders& folders() const { return folders_; }

 private:
  const FolderSwitches* Governing(const std::string& path) const;

  Folders folders_;
};

/// Whether `path` is `folder` or below it.
bool IsAtOrBelow(const std::string& path, const std::string& folder);

}  // namespace fileindexd
