// The mounts of this mount namespace, and news of them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "services/base/unique_fd.h"

namespace nimotifyd {

struct Mount {
  uint64_t id = 0;
  std::string path;  ///< mount point
  std::string type;  ///< kind of file system, such as "ext4"
};

/// Parses the text of /proc/self/mountinfo. Lines that make no sense are left out.
std::vector<Mount> ParseMountInfo(std::string_view text);

/// Whether file systems of this kind hold no user's files: proc, sysfs and the like, and mounts that are not there yet.
bool IsPseudoFileSystem(std::string_view type);

/// The mount table. Its descriptor reports an exceptional condition (POLLPRI) after every change.
class MountTable {
 public:
  MountTable();
  int descriptor() const { return fd_.get(); }
  /// Reads the table anew; this also takes back the exceptional condition. Empty if it cannot be read.
  std::vector<Mount> Read() const;

 private:
  service::UniqueFd fd_;
};

}  // namespace nimotifyd
