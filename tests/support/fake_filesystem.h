// The fake platform's view of files.
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>

#include "nimo/filesystem.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

template <>
struct ArgumentText<const NIMO_COPY_OPTIONS*> {
  /// The flags in order: "1 1 0 0 0 0 0 0" is a move.
  static std::string Of(const NIMO_COPY_OPTIONS* options);
};

constexpr int kFakeLocalFS = 1;
constexpr int kFakeRemoteFS = 2;
constexpr int kFakeImageFS = 3;

/// Looks at the real files, plainly: permissions are the owner's mode bits, nothing is a mount point, and copying and
/// moving are done by the standard library. Tests set what differs.
class FakeFileSystemService final : public FakeService {
 public:
  FakeFileSystemService();

  FakeFunction<int(const char*, int*)> get_permissions;
  FakeFunction<int(const char*)> is_mount_point;
  FakeFunction<int(const char*, const char*, const NIMO_COPY_OPTIONS*, NIMO_COPY_PROGRESS)> copy;

  FakeFunction<int(const char*, int)> get_type;
  FakeFunction<int(int)> is_remote;  ///< kFakeRemoteFS is
  FakeFunction<int(int)> is_image;   ///< kFakeImageFS is
  FakeFunction<int(const char*, int*)> path_in_snapshot;
  FakeFunction<int(const char*)> is_hidden_dir;  ///< "@eaDir", "@fileindex" and "@tmp" are

  /// From now on the answer of NIMOACLPermGet for this very path, which need not exist.
  void SetPermissions(const std::string& path, int permissions);
  /// From now on this very path is a mount point; it need not exist.
  void AddMountPoint(const std::string& path);
  /// From now on the kind of file system of this folder and all below it; kFakeLocalFS for everything else.
  void SetType(const std::string& folder, int type);
  void Reset() override;

 private:
  int GetPermissions(const char* path, int* permissions);
  int IsMountPoint(const char* path);
  int GetType(const char* path);

  std::mutex mutex_;  // guards the rest
  std::map<std::string, int> permissions_;
  std::set<std::string> mount_points_;
  std::map<std::string, int> types_;
};

FakeFileSystemService& FakeFileSystem();

}  // namespace orbisk::test
