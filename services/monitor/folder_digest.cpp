// Sums up what stat says of everything below a folder.
#include "services/monitor/folder_digest.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <functional>
#include <string_view>

#include "services/base/unique_fd.h"
#include "services/monitor/listing.h"

namespace nimotifyd {

using service::UniqueFd;

namespace {

struct Sum {
  uint64_t digest = 0;
  bool whole = true;  // nothing was left out, so that the folder's own times are of interest
};

uint64_t Mix(uint64_t hash, uint64_t value) {
  hash = (hash ^ value) * 0x9E3779B97F4A7C15U;
  return hash ^ (hash >> 29);
}

uint64_t DigestOfItem(const char* name, const struct stat& info, bool times) {
  uint64_t hash = std::hash<std::string_view>()(name);
  for (const auto value : {static_cast<uint64_t>(info.st_ino), static_cast<uint64_t>(info.st_mode),
                           static_cast<uint64_t>(info.st_uid), static_cast<uint64_t>(info.st_gid)}) {
    hash = Mix(hash, value);
  }
  if (times) {
    for (const auto value : {static_cast<uint64_t>(info.st_size), static_cast<uint64_t>(info.st_mtim.tv_sec),
                             static_cast<uint64_t>(info.st_mtim.tv_nsec), static_cast<uint64_t>(info.st_ctim.tv_sec),
                             static_cast<uint64_t>(info.st_ctim.tv_nsec)}) {
      hash = Mix(hash, value);
    }
  }
  return hash;
}

Sum SumOf(int fd, const std::string& path, const Scopes& scopes);

uint64_t DigestOfFolder(int parent, const char* name, const struct stat& info, const std::string& path,
                        const Scopes& scopes) {
  const UniqueFd fd(openat(parent, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat opened {};
  struct stat above {};
  if (!fd.valid() || fstat(fd.get(), &opened) != 0 || fstat(parent, &above) != 0 || opened.st_dev != above.st_dev) {
    return DigestOfItem(name, info, false);
  }
  const Sum below = SumOf(fd.get(), path, scopes);
  return Mix(DigestOfItem(name, info, below.whole), below.digest);
}

Sum SumOf(int fd, const std::string& path, const Scopes& scopes) {
  // A sum, so that the order in which a folder is listed does not matter.
  Sum sum;
  sum.whole = !scopes.HoldsQueueFiles(path);
  Listing listing(fd);
  while (const dirent* item = listing.Next()) {
    const std::string below = (path == "/" ? "" : path) + "/" + item->d_name;
    if (scopes.IsQueueFile(below) || scopes.EntriesAt(below).empty()) {
      sum.whole = false;
      continue;
    }
    struct stat info {};
    if (fstatat(fd, item->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    sum.digest += S_ISDIR(info.st_mode) ? DigestOfFolder(fd, item->d_name, info, below, scopes)
                                        : DigestOfItem(item->d_name, info, true);
  }
  return sum;
}

}  // namespace

uint64_t DigestOf(int fd, const std::string& path, const Scopes& scopes) {
  return SumOf(fd, path, scopes).digest;
}

}  // namespace nimotifyd
