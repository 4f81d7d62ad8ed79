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

using service::UniqueFd;

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

void FolderLocator::Offer(uint64_t file_system, const std::vector<std::string>& paths) {
  mounts_.erase(file_system);
  if (paths.empty()) {
    paths_.erase(file_system);
  } else {
    paths_[file_system] = paths;
  }
}

const std::vector<UniqueFd>& FolderLocator::MountsOf(uint64_t file_system) {
  const auto [at, added] = mounts_.try_emplace(file_system);
  if (added) {
    for (const std::string& path : paths_[file_system]) {
      // open_by_handle_at takes no O_PATH descriptor here.
      UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (fd.valid() && FileSystemId(path) == file_system) {
        at->second.push_back(std::move(fd));
      }
    }
  }
  return at->second;
}

UniqueFd FolderLocator::Open(const Handle& folder) {
  for (const UniqueFd& mount : MountsOf(folder.file_system)) {
    UniqueFd fd(OpenHandle(mount.get(), folder));
    if (fd.valid()) {
      return fd;
    }
  }
  return UniqueFd();
}

std::optional<FolderLocator::Finding> FolderLocator::LookOnDisk(const Handle& folder) {
  std::optional<Finding> best;
  for (const UniqueFd& mount : MountsOf(folder.file_system)) {
    std::optional<Finding> finding = LookThrough(mount.get(), folder);
    if (finding && !finding->top) {
      return finding;
    }
    best = finding ? std::move(finding) : std::move(best);
  }
  return best;
}

std::optional<FolderLocator::Finding> FolderLocator::LookThrough(int mount, const Handle& folder) {
  const UniqueFd fd(OpenHandle(mount, folder));
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
