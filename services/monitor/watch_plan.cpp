// Plans the watch points from the registered folders and the mount table.
#include "services/monitor/watch_plan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <climits>
#include <cstdlib>

namespace nimotifyd {
namespace {

std::optional<std::string> RealPath(const std::string& path) {
  char real[PATH_MAX];
  return realpath(path.c_str(), real) != nullptr ? std::optional<std::string>(real) : std::nullopt;
}

// Real paths of many folders, of which many lie in the same ones.
class RealPaths {
 public:
  // `is_link`: the last component is one.
  std::string Of(const std::string& path, bool is_link) {
    const size_t slash = path.rfind('/');
    if (slash == 0 || is_link) {
      return RealPath(path).value_or(path);
    }
    const std::string above = path.substr(0, slash);
    if (above != above_) {
      above_ = above;
      real_above_ = RealPath(above);
    }
    return real_above_ ? (*real_above_ == "/" ? "" : *real_above_) + path.substr(slash) : path;
  }

 private:
  std::string above_;
  std::optional<std::string> real_above_;
};

// As IdentifyFolder, and whether a link leads there.
std::optional<FolderIdentity> Identify(const std::string& path, bool& is_link) {
  struct statx info {};
  constexpr unsigned kWanted = STATX_TYPE | STATX_INO | STATX_BTIME | STATX_MNT_ID;
  constexpr int kFlags = AT_NO_AUTOMOUNT;
  is_link = false;
  int done = statx(AT_FDCWD, path.c_str(), kFlags | AT_SYMLINK_NOFOLLOW, kWanted, &info);
  if (done == 0 && S_ISLNK(info.stx_mode)) {
    is_link = true;
    done = statx(AT_FDCWD, path.c_str(), kFlags, kWanted, &info);
  }
  if (done != 0 || !S_ISDIR(info.stx_mode)) {
    return std::nullopt;
  }
  FolderIdentity identity;
  identity.device = makedev(info.stx_dev_major, info.stx_dev_minor);
  identity.inode = info.stx_ino;
  identity.mount = info.stx_mnt_id;
  if ((info.stx_mask & STATX_BTIME) != 0) {
    identity.born_seconds = info.stx_btime.tv_sec;
    identity.born_nanoseconds = info.stx_btime.tv_nsec;
  }
  return identity;
}

}  // namespace

std::optional<FolderIdentity> IdentifyFolder(const std::string& path) {
  bool is_link = false;
  return Identify(path, is_link);
}

std::map<std::string, PlannedPoint> PlanPoints(const Scopes& scopes, const std::vector<Mount>& mounts) {
  return PlanPoints(scopes, scopes.folders(), mounts);
}

std::map<std::string, PlannedPoint> PlanPoints(const Scopes& scopes, const std::vector<std::string>& folders,
                                               const std::vector<Mount>& mounts) {
  std::map<std::string, PlannedPoint> plan;
  RealPaths real_paths;
  for (const std::string& folder : folders) {
    bool is_link = false;
    const std::optional<FolderIdentity> identity = Identify(folder, is_link);
    if (!identity) {
      continue;
    }
    plan[folder] = {*identity, true};
    const std::string real = real_paths.Of(folder, is_link);
    const std::string prefix = real == "/" ? real : real + "/";
    for (const Mount& mount : mounts) {
      if (mount.path.compare(0, prefix.size(), prefix) != 0 || IsPseudoFileSystem(mount.type)) {
        continue;
      }
      const std::string path = (folder == "/" ? folder : folder + "/") + mount.path.substr(prefix.size());
      const std::optional<FolderIdentity> below = IdentifyFolder(path);
      // Of mounts over one another only the last can be reached.
      if (below && below->mount == mount.id && !scopes.IsRegistered(path) && !scopes.EntriesAt(path).empty()) {
        plan[path] = {*below, false};
      }
    }
  }
  return plan;
}

}  // namespace nimotifyd
