// Keeps one inotify watch for each folder, as long as there are watches.
#include "services/monitor/inotify_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include "services/monitor/log.h"

namespace nimotifyd {
namespace {

constexpr uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE |
                                 IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK | IN_MASK_ADD;
constexpr uint32_t kGuardMask = IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD;
constexpr uint32_t kArrivalMask = kGuardMask | IN_CREATE | IN_MOVED_TO;

class Listing {
 public:
  explicit Listing(int folder) {
    const int fd = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    listing_ = fd >= 0 ? fdopendir(fd) : nullptr;
    if (listing_ == nullptr && fd >= 0) {
      close(fd);
    }
  }
  Listing(const Listing&) = delete;
  Listing& operator=(const Listing&) = delete;
  ~Listing() {
    if (listing_ != nullptr) {
      closedir(listing_);
    }
  }
  const dirent* Next() {
    while (const dirent* item = listing_ != nullptr ? readdir(listing_) : nullptr) {
      if (strcmp(item->d_name, ".") != 0 && strcmp(item->d_name, "..") != 0) {
        return item;
      }
    }
    return nullptr;
  }

 private:
  DIR* listing_ = nullptr;
};

uint64_t Mix(uint64_t hash, uint64_t value) {
  hash = (hash ^ value) * 0x9E3779B97F4A7C15U;
  return hash ^ (hash >> 29);
}

uint64_t DigestOfItem(const char* name, const struct stat& info) {
  uint64_t hash = std::hash<std::string_view>()(name);
  for (const auto value :
       {static_cast<uint64_t>(info.st_ino), static_cast<uint64_t>(info.st_size), static_cast<uint64_t>(info.st_mode),
        static_cast<uint64_t>(info.st_mtim.tv_sec), static_cast<uint64_t>(info.st_mtim.tv_nsec),
        static_cast<uint64_t>(info.st_ctim.tv_sec), static_cast<uint64_t>(info.st_ctim.tv_nsec)}) {
    hash = Mix(hash, value);
  }
  return hash;
}

}  // namespace

UniqueFd OpenFolder(const std::string& path) {
  constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  if (path.size() < PATH_MAX) {
    return UniqueFd(open(path.c_str(), kFlags));
  }
  // Longer than the kernel takes at once: in parts, each up to the last slash that fits.
  size_t start = path.rfind('/', PATH_MAX - 2);
  UniqueFd fd(open(path.substr(0, start).c_str(), kFlags));
  while (fd.valid() && start < path.size()) {
    ++start;
    size_t end = path.size();
    if (end - start >= PATH_MAX) {
      end = path.rfind('/', start + PATH_MAX - 2);
    }
    fd = UniqueFd(openat(fd.get(), path.substr(start, end - start).c_str(), kFlags));
    start = end;
  }
  return fd;
}

uint64_t DigestOf(int fd) {
  // Sums, so that the order in which a folder is listed does not matter.
  uint64_t digest = 0;
  Listing listing(fd);
  while (const dirent* item = listing.Next()) {
    struct stat info {};
    if (fstatat(fd, item->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    uint64_t own = DigestOfItem(item->d_name, info);
    if (S_ISDIR(info.st_mode)) {
      const UniqueFd below(openat(fd, item->d_name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      struct stat opened {};
      struct stat here {};
      if (below.valid() && fstat(below.get(), &opened) == 0 && fstat(fd, &here) == 0 && opened.st_dev == here.st_dev) {
        own = Mix(own, DigestOf(below.get()));
      }
    }
    digest += own;
  }
  return digest;
}

InotifyTree::InotifyTree(int fd, size_t limit, const Recorder& recorder)
    : fd_(fd), limit_(limit), recorder_(&recorder) {}

void InotifyTree::SetRecorder(const Recorder& recorder) {
  recorder_ = &recorder;
  ++epoch_;
}

// ---- roots

InotifyFolder* InotifyTree::AddRoot(const WatchPoint& point) {
  const UniqueFd fd = OpenFolder(point.path);
  if (!fd.valid()) {
    return nullptr;
  }
  auto folder = std::make_unique<InotifyFolder>();
  folder->id = ++last_id_;
  folder->name = point.path;
  folder->mount = point.mount;
  by_id_[folder->id] = folder.get();
  InotifyFolder& root = *(roots_[point.path] = std::move(folder));
  WatchTree(root);
  return &root;
}

void InotifyTree::RemoveRoot(const std::string& path) {
  const auto at = roots_.find(path);
  if (at != roots_.end()) {
    Forget(*at->second);
    roots_.erase(at);
  }
}

std::vector<WatchPoint> InotifyTree::roots() const {
  std::vector<WatchPoint> result;
  for (const auto& [path, folder] : roots_) {
    result.push_back({path, folder->mount});
  }
  return result;
}

// ---- folders

InotifyFolder& InotifyTree::NewFolder(InotifyFolder& parent, std::string_view name) {
  auto folder = std::make_unique<InotifyFolder>();
  folder->id = ++last_id_;
  folder->parent = &parent;
  folder->name = name;
  folder->mount = parent.mount;
  by_id_[folder->id] = folder.get();
  return *(parent.children[std::string(name)] = std::move(folder));
}

InotifyFolder* InotifyTree::Add(InotifyFolder& parent, std::string_view name) {
  Remove(parent, name);
  if (!Wanted(parent, name)) {
    return nullptr;
  }
  InotifyFolder& folder = NewFolder(parent, name);
  WatchTree(folder);
  return &folder;
}

void InotifyTree::Remove(InotifyFolder& parent, std::string_view name) {
  const auto at = parent.children.find(name);
  if (at != parent.children.end()) {
    Forget(*at->second);
    parent.children.erase(at);
  }
}

bool InotifyTree::Move(InotifyFolder& from, std::string_view old_name, InotifyFolder& to, std::string_view name) {
  const auto at = from.children.find(old_name);
  if (at == from.children.end() || !Wanted(to, name) ||
      recorder_->scopes().EntriesAt(PathOf(from)) != recorder_->scopes().EntriesAt(PathOf(to))) {
    return false;
  }
  std::unique_ptr<InotifyFolder> folder = std::move(at->second);
  from.children.erase(at);
  for (const InotifyFolder* above = &to; above != nullptr; above = above->parent) {
    if (above == folder.get()) {  // the tree is behind the disk; the folder is found again where it is
      Forget(*folder);
      return true;
    }
  }
  Remove(to, name);
  folder->parent = &to;
  folder->name = name;
  to.children[std::string(name)] = std::move(folder);
  ++epoch_;
  return true;
}

void InotifyTree::Forget(InotifyFolder& folder) {
  for (auto& [name, child] : folder.children) {
    Forget(*child);
  }
  const auto at = folder.watch >= 0 ? by_watch_.find(folder.watch) : by_watch_.end();
  if (at != by_watch_.end()) {
    std::erase(at->second, &folder);
    if (at->second.empty()) {
      by_watch_.erase(at);
      if (guards_.count(folder.watch) == 0) {
        inotify_rm_watch(fd_, folder.watch);
      }
    }
  }
  polled_.erase(&folder);
  by_id_.erase(folder.id);
}

void InotifyTree::Dropped(int watch) {
  guards_.erase(watch);
  const auto at = by_watch_.find(watch);
  if (at != by_watch_.end()) {
    for (InotifyFolder* folder : at->second) {
      folder->watch = -1;
    }
    by_watch_.erase(at);
  }
}

std::vector<uint64_t> InotifyTree::Find(int watch) const {
  std::vector<uint64_t> result;
  std::unordered_set<std::string> paths;  // a registered folder below another one is in the tree twice
  const auto at = by_watch_.find(watch);
  if (at != by_watch_.end()) {
    for (const InotifyFolder* folder : at->second) {
      if (at->second.size() == 1 || paths.insert(PathOf(*folder)).second) {
        result.push_back(folder->id);
      }
    }
  }
  return result;
}

InotifyFolder* InotifyTree::FindById(uint64_t id) const {
  const auto at = by_id_.find(id);
  return at == by_id_.end() ? nullptr : at->second;
}

// ---- watches

bool InotifyTree::SetWatch(InotifyFolder& folder, int fd) {
  if (watches() >= limit_) {
    StartPolling(folder);
    return false;
  }
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const int watch = inotify_add_watch(fd_, link.c_str(), kFolderMask);
  if (watch < 0) {
    if (errno == ENOSPC || errno == ENOMEM) {
      StartPolling(folder);
    }
    return false;
  }
  ShareWatch(watch, folder, fd);
  return true;
}

// The kernel knows folders, not paths. Another path of this folder is either as good as this one, or one that it was
// moved from; what stands there now, if anything, is not watched.
void InotifyTree::ShareWatch(int watch, InotifyFolder& folder, int fd) {
  struct stat here {};
  fstat(fd, &here);
  std::vector<InotifyFolder*>& sharers = by_watch_[watch];
  std::erase_if(sharers, [&](InotifyFolder* other) {
    struct stat there {};
    if (other == &folder || (fstat(OpenFolder(PathOf(*other)).get(), &there) == 0 && there.st_ino == here.st_ino &&
                             there.st_dev == here.st_dev)) {
      return other == &folder;
    }
    other->watch = -1;
    contested_.push_back(other->id);
    return true;
  });
  sharers.push_back(&folder);
  folder.watch = watch;
}

bool InotifyTree::WatchOne(InotifyFolder& folder, std::vector<InotifyFolder*>& found) {
  const UniqueFd fd = OpenFolder(PathOf(folder));
  if (!fd.valid() || !SetWatch(folder, fd.get())) {
    if (!folder.polled) {
      missed_.push_back(folder.id);
    }
    return false;
  }
  ListInto(folder, fd.get(), found);
  return true;
}

void InotifyTree::ListInto(InotifyFolder& folder, int fd, std::vector<InotifyFolder*>& found) {
  struct stat here {};
  if (fstat(fd, &here) != 0) {
    return;
  }
  Listing listing(fd);
  while (const dirent* item = listing.Next()) {
    if (item->d_type != DT_DIR && item->d_type != DT_UNKNOWN) {
      continue;
    }
    struct stat info {};
    if (fstatat(fd, item->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(info.st_mode) ||
        info.st_dev != here.st_dev || !Wanted(folder, item->d_name)) {
      continue;  // another file system is a watch point of its own
    }
    if (folder.children.find(item->d_name) == folder.children.end()) {
      found.push_back(&NewFolder(folder, item->d_name));
    }
  }
}

void InotifyTree::WatchTree(InotifyFolder& top) {
  std::vector<InotifyFolder*> left{&top};
  while (!left.empty()) {
    InotifyFolder* folder = left.back();
    left.pop_back();
    WatchOne(*folder, left);
  }
}

std::vector<uint64_t> InotifyTree::RetryMissed() {
  std::vector<uint64_t> found;
  for (const uint64_t id : std::exchange(missed_, {})) {
    InotifyFolder* folder = FindById(id);
    if (folder == nullptr || folder->watch >= 0 || folder->parent == nullptr) {
      continue;
    }
    WatchTree(*folder);
    if (folder->watch >= 0 || folder->polled) {
      found.push_back(id);
    } else {
      Remove(*folder->parent, std::string(folder->name));
    }
  }
  missed_.clear();  // what was missed a second time is gone
  return found;
}

bool InotifyTree::Wanted(const InotifyFolder& folder, std::string_view name) {
  const std::string path = PathOf(folder);
  return !recorder_->scopes().EntriesAt((path == "/" ? "" : path) + "/" + std::string(name)).empty();
}

// ---- guards

void InotifyTree::ClearGuards() {
  for (const auto& [watch, names] : guards_) {
    if (by_watch_.count(watch) == 0) {
      inotify_rm_watch(fd_, watch);
    }
  }
  guards_.clear();
}

void InotifyTree::AddGuard(const std::string& path, const std::string& name, bool arrivals) {
  const int watch = inotify_add_watch(fd_, path.c_str(), arrivals ? kArrivalMask : kGuardMask);
  if (watch >= 0) {
    guards_[watch].insert(name);
  }
}

bool InotifyTree::Guards(int watch, std::string_view name) const {
  const auto at = guards_.find(watch);
  return at != guards_.end() && at->second.count(std::string(name)) != 0;
}

// ---- paths

std::string InotifyTree::PathOf(const InotifyFolder& folder) const {
  std::vector<const InotifyFolder*> chain;
  const InotifyFolder* at = &folder;
  for (; at->parent != nullptr; at = at->parent) {
    chain.push_back(at);
  }
  std::string path = at->name == "/" && !chain.empty() ? "" : at->name;
  for (auto below = chain.rbegin(); below != chain.rend(); ++below) {
    path += '/';
    path += (*below)->name;
  }
  return path;
}

const FolderViews& InotifyTree::ViewsOf(InotifyFolder& folder) {
  if (folder.views_epoch != epoch_) {
    folder.views_epoch = epoch_;
    folder.views.clear();
    View view = recorder_->MakeView(folder.mount, PathOf(folder));
    if (!view.entries.empty()) {
      folder.views.push_back(std::move(view));
    }
  }
  return folder.views;
}

// ---- polling

void InotifyTree::StartPolling(InotifyFolder& folder) {
  if (polled_.empty()) {
    Record(LOG_WARNING, "watch_limit_reached")
        .Add("folder", PathOf(folder))
        .Add("watches", static_cast<long long>(watches()))
        .Add("instead", "polled");
  }
  folder.polled = true;
  polled_.insert(&folder);
  folder.digest = DigestOf(OpenFolder(PathOf(folder)).get());
}

std::vector<InotifyFolder*> InotifyTree::Poll() {
  std::vector<InotifyFolder*> changed;
  const std::vector<InotifyFolder*> polled(polled_.begin(), polled_.end());
  for (InotifyFolder* folder : polled) {
    if (watches() < limit_) {
      polled_.erase(folder);
      folder->polled = false;
      WatchTree(*folder);  // may end up polled again, further down or as a whole
      changed.push_back(folder);
      continue;
    }
    const uint64_t digest = DigestOf(OpenFolder(PathOf(*folder)).get());
    if (digest != folder->digest) {
      folder->digest = digest;
      changed.push_back(folder);
    }
  }
  return changed;
}

}  // namespace nimotifyd
