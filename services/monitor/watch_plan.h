// Which folders must be watched, and what has become of those that are.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "services/monitor/mounts.h"
#include "services/monitor/scope.h"

namespace nimotifyd {

/// Tells one folder from another that later has the same path.
struct FolderIdentity {
  uint64_t device = 0;
  uint64_t inode = 0;
  uint64_t mount = 0;
  int64_t born_seconds = 0;  ///< inode numbers are given again; 0 where the file system does not tell
  uint32_t born_nanoseconds = 0;
  bool operator==(const FolderIdentity&) const = default;
};

/// The folder at `path`, links followed; nothing if there is none.
std::optional<FolderIdentity> IdentifyFolder(const std::string& path);

struct PlannedPoint {
  FolderIdentity identity;
  bool registered = false;  ///< a registered folder; otherwise a mount point below one
  bool operator==(const PlannedPoint&) const = default;
};

/// The folders to watch, by path: the registered ones that are there, and the mount points below them that somebody
/// wants changes of.
std::map<std::string, PlannedPoint> PlanPoints(const Scopes& scopes, const std::vector<Mount>& mounts);
/// The same of some of the registered folders, `folders`, and what lies below them.
std::map<std::string, PlannedPoint> PlanPoints(const Scopes& scopes, const std::vector<std::string>& folders,
                                               const std::vector<Mount>& mounts);

}  // namespace nimotifyd
