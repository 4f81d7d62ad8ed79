// The fake platform's view of files.
#include "tests/support/fake_filesystem.h"

#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "tests/support/fake_share.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

int Copy(const char* from, const char* to, const NIMO_COPY_OPTIONS* options, NIMO_COPY_PROGRESS) {
  if (from == nullptr || to == nullptr || options == nullptr) {
    return FailPlatform(EINVAL);
  }
  std::error_code error;
  if (options->nRemoveSource != 0) {
    fs::rename(from, to, error);
    return error ? FailPlatform(error.value()) : 0;
  }
  // A tree that cannot be copied whole is not left in part.
  const bool existed = fs::exists(fs::symlink_status(to, error));
  fs::copy(from, to,
           fs::copy_options::recursive | fs::copy_options::copy_symlinks | fs::copy_options::overwrite_existing, error);
  if (error && !existed) {
    std::error_code ignored;
    fs::remove_all(to, ignored);
  }
  return error ? FailPlatform(error.value()) : 0;
}

// A folder called #snapshot right below a share's folder, or right below a home in the share of homes.
int IsInSnapshot(const char* path, int* flag) {
  if (path == nullptr || flag == nullptr) {
    return FailPlatform(EINVAL);
  }
  constexpr char kSnapshot[] = "/#snapshot/";
  const auto holder = FakeShares().HolderOf(path);
  const std::string below = holder ? std::string(path).substr(holder->path.size()) + "/" : "";
  const size_t home_end = holder && holder->name == "homes" ? below.find('/', 1) : std::string::npos;
  const bool of_share = below.rfind(kSnapshot, 0) == 0;
  const bool of_home = home_end != std::string::npos && below.compare(home_end, strlen(kSnapshot), kSnapshot) == 0;
  *flag = of_share || of_home ? 1 : 0;
  return 0;
}

int IsHiddenFolder(const char* name) {
  static const std::set<std::string> kNames = {"@eaDir", "@fileindex", "@tmp"};
  return name != nullptr && kNames.count(name) != 0 ? 1 : 0;
}

}  // namespace

std::string ArgumentText<const NIMO_COPY_OPTIONS*>::Of(const NIMO_COPY_OPTIONS* options) {
  if (options == nullptr) {
    return "null";
  }
  std::string text = std::to_string(options->nKeepAttributes) + " " + std::to_string(options->nRemoveSource);
  for (const int reserved : options->nReserved) {
    text += " " + std::to_string(reserved);
  }
  return text;
}

FakeFileSystemService::FakeFileSystemService()
    : get_permissions("NIMOACLPermGet",
                      [this](const char* path, int* permissions) { return GetPermissions(path, permissions); }),
      is_mount_point("NIMOFSDirIsMntPoint", [this](const char* path) { return IsMountPoint(path); }),
      copy("NIMOFileCopy", Copy),
      get_type("NIMOGetFSType", [this](const char* path, int) { return GetType(path); }),
      is_remote("NIMOFSIsRemoteFS", [](int type) { return type == kFakeRemoteFS ? 1 : 0; }),
      is_image("NIMOFSIsImageFS", [](int type) { return type == kFakeImageFS ? 1 : 0; }),
      path_in_snapshot("NLIBFhsPathInSnapshot", IsInSnapshot),
      is_hidden_dir("NIMOEAIsHiddenDir", IsHiddenFolder) {}

void FakeFileSystemService::SetPermissions(const std::string& path, int permissions) {
  const std::lock_guard lock(mutex_);
  permissions_[path] = permissions;
}

void FakeFileSystemService::AddMountPoint(const std::string& path) {
  const std::lock_guard lock(mutex_);
  mount_points_.insert(path);
}

void FakeFileSystemService::SetType(const std::string& folder, int type) {
  const std::lock_guard lock(mutex_);
  types_[folder] = type;
}

void FakeFileSystemService::Reset() {
  const std::lock_guard lock(mutex_);
  permissions_.clear();
  mount_points_.clear();
  types_.clear();
}

int FakeFileSystemService::GetPermissions(const char* path, int* permissions) {
  if (path == nullptr || permissions == nullptr) {
    return FailPlatform(EINVAL);
  }
  const std::lock_guard lock(mutex_);
  *permissions = 0;
  if (const auto found = permissions_.find(path); found != permissions_.end()) {
    *permissions = found->second;
    return 0;
  }
  struct stat status;
  if (stat(path, &status) != 0) {
    return FailPlatform(errno);
  }
  *permissions = ((status.st_mode & S_IRUSR) != 0 ? NIMO_ACL_READ : 0) |
                 ((status.st_mode & S_IWUSR) != 0 ? NIMO_ACL_WRITE : 0) |
                 ((status.st_mode & S_IXUSR) != 0 ? NIMO_ACL_EXECUTE : 0);
  return 0;
}

int FakeFileSystemService::IsMountPoint(const char* path) {
  if (path == nullptr) {
    return FailPlatform(EINVAL);
  }
  const std::lock_guard lock(mutex_);
  struct stat status;
  if (mount_points_.count(path) != 0) {
    return 1;
  }
  return lstat(path, &status) == 0 ? 0 : FailPlatform(errno);
}

int FakeFileSystemService::GetType(const char* path) {
  if (path == nullptr) {
    return FailPlatform(EINVAL);
  }
  struct stat status;
  if (stat(path, &status) != 0) {
    return FailPlatform(errno);
  }
  const std::lock_guard lock(mutex_);
  int type = kFakeLocalFS;
  for (const auto& [folder, kind] : types_) {
    if (std::string(path).compare(0, folder.size(), folder) == 0) {
      type = kind;
    }
  }
  return type;
}

FakeFileSystemService& FakeFileSystem() {
  static auto* const file_system = new FakeFileSystemService;
  return *file_system;
}

}  // namespace orbisk::test

int NIMOACLPermGet(const char* path, int* permissions) {
  return orbisk::test::FakeFileSystem().get_permissions(path, permissions);
}

int NIMOFSDirIsMntPoint(const char* path) {
  return orbisk::test::FakeFileSystem().is_mount_point(path);
}

int NIMOFileCopy(const char* from, const char* to, const NIMO_COPY_OPTIONS* options, NIMO_COPY_PROGRESS progress) {
  return orbisk::test::FakeFileSystem().copy(from, to, options, progress);
}

int NIMOGetFSType(const char* path, int reserved) {
  return orbisk::test::FakeFileSystem().get_type(path, reserved);
}

int NIMOFSIsRemoteFS(int type) {
  return orbisk::test::FakeFileSystem().is_remote(type);
}

int NIMOFSIsImageFS(int type) {
  return orbisk::test::FakeFileSystem().is_image(type);
}

int NLIBFhsPathInSnapshot(const char* path, int* flag) {
  return orbisk::test::FakeFileSystem().path_in_snapshot(path, flag);
}

int NIMOEAIsHiddenDir(const char* name) {
  return orbisk::test::FakeFileSystem().is_hidden_dir(name);
}
