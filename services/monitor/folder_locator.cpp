// Looks folders up by handle.
#include "services/monitor/folder_locator.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>
#include <vector>

namespace nimotifyd {
namespace {

// A folder that is moved while it is looked at is looked at again.
constexpr int kLookTries = 4;

// Deeper than any tree; a longer way up means that the places contradict one another.
constexpr size_t kDeepest = 100'000;

// The name of the folder with inode `inode` in the folder `up`, found by looking at all of them.
std::optional<std::string> NameByListing(int up, ino64_t inode) {
  const int fd = openat(up, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* listing = fd >= 0 ? fdopendir(fd) : nullptr;
  if (listing == nullptr) {
    return std::nullopt;
  }
  std::optional<std::string> name;
  while (const dirent* item = readdir(listing)) {
    if (item->d_ino == inode && strcmp(item->d_name, ".") != 0 && strcmp(item->d_name, "..") != 0) {
      name = item->d_name;
      break;
    }
  }
  closedir(listing);
  return name;
}

// What the kernel calls the folder now: the last component of the path it would print. It prints none that is longer
// than a page.
std::optional<std::string> NameNow(int fd) {
  std::array<char, PATH_MAX + 64> text;
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = readlink(link.c_str(), text.data(), text.size());
  if (length <= 0) {
    return std::nullopt;
  }
  const std::string path(text.data(), static_cast<size_t>(length));
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

void FolderLocator::Offer(uint64_t file_system, const std::string& path) {
  paths_[file_system] = path;
  mounts_.erase(file_system);
}

void FolderLocator::Forget(uint64_t file_system) {
  paths_.erase(file_system);
  mounts_.erase(file_system);
}

UniqueFd FolderLocator::Open(const Handle& folder) {
  const int mount = MountOf(folder.file_system);
  return UniqueFd(mount >= 0 ? OpenHandle(mount, folder) : -1);
}

int FolderLocator::MountOf(uint64_t file_system) {
  const auto open_already = mounts_.find(file_system);
  if (open_already != mounts_.end()) {
    return open_already->second.get();
  }
  const auto path = paths_.find(file_system);
  if (path == paths_.end()) {
    return -1;
  }
  // open_by_handle_at takes no O_PATH descriptor here.
  UniqueFd fd(open(path->second.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid() || FileSystemId(path->second) != file_system) {
    return -1;
  }
  return mounts_.emplace(file_system, std::move(fd)).first->second.get();
}

std::optional<FolderLocator::Finding> FolderLocator::LookOnDisk(const Handle& folder) {
  const UniqueFd fd = Open(folder);
  for (int tries = 0; fd.valid() && tries < kLookTries; ++tries) {
    struct statx info {};
    if (statx(fd.get(), "", AT_EMPTY_PATH, STATX_NLINK | STATX_TYPE | STATX_INO, &info) != 0 || info.stx_nlink == 0 ||
        !S_ISDIR(info.stx_mode)) {
      return std::nullopt;
    }
    if ((info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
      return Finding{true, {}};
    }
    const UniqueFd up(openat(fd.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    std::optional<std::string> name = NameNow(fd.get());
    if (!name) {
      name = NameByListing(up.get(), info.stx_ino);
    }
    const std::optional<Handle> parent = HandleAt(folder.file_system, up.get(), "", AT_EMPTY_PATH);
    if (!name || !parent) {
      return std::nullopt;
    }
    if (*parent == folder) {
      return Finding{true, {}};
    }
    if (HandleAt(folder.file_system, up.get(), name->c_str(), 0) == folder) {
      return Finding{false, {*parent, *name}};
    }
  }
  return std::nullopt;
}

std::optional<FolderLocator::Finding> FolderLocator::Find(const Handle& folder) {
  ++lookups_;
  std::optional<Finding> now = LookOnDisk(folder);
  stream_->ReadAhead();
  std::optional<FolderPlace> then = stream_->PlaceByLaterEvent(folder);
  if (then) {
    return Finding{false, std::move(*then)};
  }
  return now;
}

FolderCache::Folder* FolderLocator::Locate(const Handle& folder) {
  if (FolderCache::Folder* known = cache_->Find(folder)) {
    return known;
  }
  std::vector<std::pair<Handle, std::string>> below;
  Handle handle = folder;
  FolderCache::Folder* above = nullptr;
  while (above == nullptr) {
    std::optional<Finding> finding = Find(handle);
    if (!finding || below.size() > kDeepest) {
      return nullptr;
    }
    if (finding->top) {
      above = cache_->Insert(handle, nullptr, {});
      break;
    }
    below.emplace_back(handle, std::move(finding->place.name));
    handle = finding->place.parent;
    above = cache_->Find(handle);
  }
  for (auto at = below.rbegin(); at != below.rend(); ++at) {
    above = cache_->Insert(at->first, above, at->second);
  }
  return above;
}

}  // namespace nimotifyd
