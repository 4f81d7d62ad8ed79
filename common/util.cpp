// File-system helpers.
#include "orbisk/util.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include "common/check.h"
#include "nimo/filesystem.h"
#include "nimo/user.h"
#include "orbisk/lock_mutex.h"
#include "orbisk/sdk/sdk_mutex.h"

namespace orbisk {
namespace {

constexpr char kPackageAccount[] = "Orbisk";

struct CloseDir {
  void operator()(DIR* dir) const { closedir(dir); }
};

struct FreeUser {
  void operator()(NIMOUSER* user) const { NIMOUserFree(user); }
};

// The stored target of a link, "" on failure (no link has an empty target).
std::string ReadLink(const std::string& path) {
  char target[PATH_MAX];
  const ssize_t length = readlink(path.c_str(), target, sizeof(target) - 1);
  return length < 0 ? std::string() : std::string(target, static_cast<size_t>(length));
}

bool IsDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

}  // namespace

bool IsFileExist(const std::string& path) {
  struct stat status;
  return 0 == lstat(path.c_str(), &status) && S_ISREG(status.st_mode);
}

bool IsDirExist(const std::string& path, bool follow) {
  // A loop, so that a long chain of links does not cost stack.
  std::string current = path;
  while (true) {
    struct stat status;
    if (0 != lstat(current.c_str(), &status)) {
      return false;
    }
    if (!follow || !S_ISLNK(status.st_mode)) {
      return S_ISDIR(status.st_mode);
    }
    // As stored, not resolved against the link's folder.
    current = ReadLink(current);
  }
}

bool IsDirentDir(const dirent& entry, const std::string& /*full_path*/) {
  // An entry of unknown type never counts as a directory, whatever its path leads to, so the path is not looked at.
  return DT_DIR == entry.d_type;
}

bool CheckACLPerm(const std::string& path, int mask) {
  int perm = 0;
  if (0 > NIMOACLPermGet(path.c_str(), &perm)) {
    return false;
  }
  return 0 != (perm & mask);
}

bool IsMountPoint(const std::string& path) {
  return 0 < NIMOFSDirIsMntPoint(path.c_str());
}

std::string RealPath(const std::string& path) {
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
  return resolved ? std::string(resolved.get()) : std::string();
}

bool Unlink(const std::string& path) {
  return 0 == unlink(path.c_str()) || ENOENT == errno;
}

bool MVFileImpl(const std::string& from, const std::string& to, const NIMO_COPY_OPTIONS& options,
                int (*progress)(const char* path, unsigned long long bytes)) {
  return 0 == NIMOFileCopy(from.c_str(), to.c_str(), &options, progress);
}

bool MVFile(const std::string& from, const std::string& to) {
  NIMO_COPY_OPTIONS options{};
  options.nKeepAttributes = 1;
  options.nRemoveSource = 1;
  return MVFileImpl(from, to, options, nullptr);
}

bool CPFile(const std::string& from, const std::string& to) {
  NIMO_COPY_OPTIONS options{};
  options.nKeepAttributes = 1;
  return MVFileImpl(from, to, options, nullptr);
}

bool ChownOrbisk(const std::string& path) {
  uid_t uid = 0;
  gid_t gid = 0;
  {
    const LockMutex lock(sdk::SDKMutex());
    NIMOUSER* user = nullptr;
    ORBISK_CHECK(0 > NIMOUserGet(kPackageAccount, &user) || !user, 801, "");
    const std::unique_ptr<NIMOUSER, FreeUser> guard(user);
    uid = user->nUid;
    gid = user->nGid;
  }
  return 0 == chown(path.c_str(), uid, gid);
}

void ProcessDir(const std::string& full_path, std::function<void(const std::string&)> callback) {
  DIR* dir = nullptr;
  ORBISK_CHECK(nullptr == (dir = opendir(full_path.c_str())), 502, "Failed to open dir: " + full_path);
  const std::unique_ptr<DIR, CloseDir> guard(dir);
  // readdir(3) of the GNU library is safe as long as no two threads share a stream; a read error ends it like the end.
  while (const dirent* entry = readdir(dir)) {
    if (IsDotOrDotDot(entry->d_name)) {
      continue;
    }
    const std::string entry_path = full_path + "/" + entry->d_name;
    try {
      callback(entry_path);
    } catch (const Error& error) {
      ORBISK_RECORD(ORBISK_SOURCE, "ProcessDir failed on %s, reason=%s", entry_path.c_str(), error.what());
    } catch (...) {
      ORBISK_RECORD(ORBISK_SOURCE, "ProcessDir failed on %s", entry_path.c_str());
    }
    if (IsDirExist(entry_path, false)) {
      ProcessDir(entry_path, callback);
    }
  }
}

}  // namespace orbisk
