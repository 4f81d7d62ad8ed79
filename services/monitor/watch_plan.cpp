// Plans the watch points from the registered folders and the mount table.
#include "services/monitor/watch_plan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <climits>
#include <cstdlib>

namespace nimotifyd {
namespace {

std::string RealPath(const std::string& path) {
  char real[PATH_MAX];
  return realpath(path.c_str(), real) != nullptr ? std::string(real) : path;
}

}  // namespace

std::optional<FolderIdentity> IdentifyFolder(const std::string& path) {
  struct statx info {};
  constexpr unsigned kWanted = STATX_TYPE | STATX_INO | STATX_BTIME | STATX_MNT_ID;
  if (statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, kWanted, &info) != 0 || !S_ISDIR(info.stx_mode)) {
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

std::map<std::string, PlannedPoint> PlanPoints(const Scopes& scopes, const std::vector<Mount>& mounts) {
  std::map<std::string, PlannedPoint> plan;
  for (const std::string& folder : scopes.folders()) {
    const std::optional<FolderIdentity> identity = IdentifyFolder(folder);
    if (!identity) {
      continue;
    }
    plan[folder] = {*identity, true};
    const std::string real = RealPath(folder);
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
