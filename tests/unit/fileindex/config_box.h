// A box with shares and the configuration's fixed paths, both private to the test program.
#pragma once

#include <json/json.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orbisk/fileindex/folder.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "tests/support/fake_platform.h"
#include "tests/support/temp_dir.h"

namespace orbisk::fileindex::test {

constexpr char kFoldersFile[] = "/var/packages/Orbisk/etc/fileindex.folders";
constexpr char kStatusFile[] = "/var/packages/Orbisk/etc/fileindex.status";
constexpr char kStatusLock[] = "/tmp/orbisk_cfg_fi_status.lock";
constexpr char kDaemonSocket[] = "/var/run/fileindexd.sock";

/// The fake platform with shares whose folders really exist below a temporary volume, and neither of the two
/// configuration files. The program is in a private mount namespace from its start.
class ConfigBox {
 public:
  ConfigBox();

  /// Adds a share at <volume>/<name>, with the folder that holds its queue.
  void AddShare(const std::string& name);
  /// Makes the folder of a share path.
  void MakeFolder(const std::string& share_path) const;
  /// Where a share path lies.
  std::string Full(const std::string& share_path) const { return volume_.path() + share_path; }
  static std::string QueuePath(const std::string& share);

 private:
  orbisk::test::FakePlatform platform_;
  orbisk::test::TempDir volume_;
};

/// An entry as the folders file has it: `kinds` has the first letters of document, audio, video and photo.
Json::Value Entry(const std::string& path, std::string_view kinds = "davp", const std::string& name = "",
                  const std::string& group = "");
std::shared_ptr<Folder> MakeFolder(const std::string& path, std::string_view kinds = "davp",
                                   const std::string& name = "", const std::string& group = "");
/// The letters of Entry for what `folder` wants; "null" without one.
std::string KindsOf(const std::shared_ptr<Folder>& folder);
/// The share path of `folder`; "null" without one.
std::string PathOf(const std::shared_ptr<Folder>& folder);

void WriteFoldersFile(const std::vector<Json::Value>& entries);
/// A manager of these entries, by way of the folders file.
FolderMgr Manager(const std::vector<Json::Value>& entries);
/// The paths of all entries in order.
std::vector<std::string> PathsOf(const FolderMgr& manager);
/// The file's whole document; fails the test if it is no JSON text.
Json::Value ReadJson(const std::string& path);

/// Descriptors that the process has open.
size_t OpenDescriptors();

}  // namespace orbisk::fileindex::test
