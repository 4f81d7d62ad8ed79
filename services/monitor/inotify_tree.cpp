// Keeps one inotify watch for each folder, as long as there are watches.
#include "services/monitor/inotify_tree.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "services/base/log.h"
#include "services/monitor/folder_digest.h"
#include "services/monitor/listing.h"

namespace nimotifyd {

using service::Record;
using service::UniqueFd;

namespace {

constexpr uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE |
                                 IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK | IN_MASK_ADD;
constexpr uint32_t kGuardMask = IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_MASK_ADD;
constexpr uint32_t kNameGuardMask = kGuardMask | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr uint32_t kFileGuardMask = kNameGuardMask | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;

constexpr size_t kFoldersNamed = 100;  // in records of one kind

constexpr int kOpenFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

UniqueFd OpenWithoutLinks(int at, const std::string& path) {
  open_how how{};
  how.flags = kOpenFlags;
  how.resolve = RESOLVE_NO_SYMLINKS;
  return UniqueFd(static_cast<int>(syscall(SYS_openat2, at, path.c_str(), &how, sizeof(how))));
}

UniqueFd OpenPart(int at, const std::string& path, bool follow_links) {
  static const bool can_refuse_links = OpenWithoutLinks(AT_FDCWD, "/").valid();  // a sandbox may not know the call
  return follow_links || !can_refuse_links ? UniqueFd(openat(at, path.c_str(), kOpenFlags))
                                           : OpenWithoutLinks(at, path);
}

// A path longer than the kernel takes at once is opened in parts, each up to the last slash that fits.
UniqueFd OpenFolder(int at, const std::string& path, bool follow_links) {
  UniqueFd fd;
  for (size_t start = 0;;) {
    size_t end = path.size();
    if (end - start >= PATH_MAX) {
      end = path.rfind('/', start + PATH_MAX - 2);
    }
    fd = OpenPart(fd.valid() ? fd.get() : at, path.substr(start, end - start), follow_links);
    if (!fd.valid() || end == path.size()) {
      return fd;
    }
    start = end + 1;
  }
}

}  // namespace

InotifyTree::InotifyTree(int fd, const WatchBudget& budget, const Recorder& recorder)
    : fd_(fd), budget_(budget), recorder_(&recorder), said_polled_(kFoldersNamed), said_refused_(kFoldersNamed) {}

void InotifyTree::SetRecorder(const Recorder& recorder) {
  recorder_ = &recorder;
  ++epoch_;
}

// ---- roots

InotifyFolder* InotifyTree::AddRoot(const WatchPoint& point) {
  RemoveRoot(point.path);
  InotifyFolder& root = NewRoot(point);
  std::vector<uint64_t> left;
  if (!WatchOne(root, left) && !root.polled) {
    const int error = errno;
    RemoveRoot(point.path);
    errno = error;
    return nullptr;
  }
  WatchTrees(std::move(left));
  return &root;
}

void InotifyTree::RenewRoot(const WatchPoint& point) {
  if (AddRoot(point) == nullptr) {
    const int error = errno;
    InotifyFolder& root = NewRoot(point);
    SayRefused(root, error);
    StartPolling(root);
  }
}

InotifyFolder& InotifyTree::NewRoot(const WatchPoint& point) {
  auto folder = std::make_unique<InotifyFolder>();
  folder->id = ++last_id_;
  folder->name = point.path;
  folder->mount = point.mount;
  by_id_[folder->id] = folder.get();
  return *(roots_[point.path] = std::move(folder));
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
  WatchTrees({folder.id});
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
  DropWatch(folder);
  polled_.erase(&folder);
  by_id_.erase(folder.id);
}

void InotifyTree::DropWatch(InotifyFolder& folder) {
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
  folder.watch = -1;
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
  if (!budget_.Allows(watches())) {
    StartPolling(folder);
    return false;
  }
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const int watch = inotify_add_watch(fd_, link.c_str(), kFolderMask);
  if (watch < 0) {
    const int error = errno;
    if (error == ENOSPC) {
      LowerLimit();
    }
    if (error == ENOSPC || error == ENOMEM) {
      StartPolling(folder);
    }
    errno = error;
    return false;
  }
  ShareWatch(watch, folder, fd);
  return true;
}

void InotifyTree::LowerLimit() {
  const size_t before = budget_.limit();
  budget_.Refused(watches());
  over_limit_ = watches() > budget_.limit();
  if (budget_.limit() == before) {
    return;
  }
  Record(LOG_WARNING, "watch_limit_lowered")
      .Add("watches", static_cast<long long>(watches()))
      .Add("limit", static_cast<long long>(budget_.limit()));
}

// The kernel knows folders, not paths. Another path of this folder is either as good as this one, or one that it was
// moved from; what stands there now, if anything, is not watched.
void InotifyTree::ShareWatch(int watch, InotifyFolder& folder, int fd) {
  struct stat here {};
  fstat(fd, &here);
  std::vector<InotifyFolder*>& sharers = by_watch_[watch];
  std::erase_if(sharers, [&](InotifyFolder* other) {
    struct stat there {};
    if (other == &folder ||
        (fstat(Open(*other).get(), &there) == 0 && there.st_ino == here.st_ino && there.st_dev == here.st_dev)) {
      return other == &folder;
    }
    other->watch = -1;
    contested_.push_back(other->id);
    return true;
  });
  sharers.push_back(&folder);
  folder.watch = watch;
}

bool InotifyTree::WatchOne(InotifyFolder& folder, std::vector<uint64_t>& found) {
  const UniqueFd fd = Open(folder);
  if (!fd.valid() || !SetWatch(folder, fd.get())) {
    const int error = errno;
    if (!folder.polled) {
      missed_.push_back(folder.id);
      if (folder.parent != nullptr && error != ENOENT && error != ENOTDIR && error != ELOOP) {
        SayRefused(folder, error);
      }
    }
    errno = error;
    return false;
  }
  ListInto(folder, fd.get(), found);
  return true;
}

void InotifyTree::ListInto(InotifyFolder& folder, int fd, std::vector<uint64_t>& found) {
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
      found.push_back(NewFolder(folder, item->d_name).id);
    }
  }
}

void InotifyTree::WatchTrees(std::vector<uint64_t> left) {
  while (!left.empty()) {
    InotifyFolder* folder = FindById(left.back());
    left.pop_back();
    if (folder != nullptr) {
      WatchOne(*folder, left);
    }
  }
}

std::vector<uint64_t> InotifyTree::RetryMissed() {
  std::vector<uint64_t> found;
  for (const uint64_t id : std::exchange(missed_, {})) {
    InotifyFolder* folder = FindById(id);
    if (folder == nullptr || folder->watch >= 0 || folder->polled || folder->parent == nullptr) {
      continue;
    }
    WatchTrees({id});
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

void InotifyTree::AddGuard(const WayStep& step) {
  const uint32_t mask = step.is_folder ? kGuardMask : step.is_file ? kFileGuardMask : kNameGuardMask;
  const int watch = inotify_add_watch(fd_, step.folder.c_str(), mask);
  if (watch >= 0) {
    guards_[watch].insert(step.name);
  } else if (errno == ENOSPC) {
    LowerLimit();
  }
}

bool InotifyTree::Guards(int watch, std::string_view name) const {
  const auto at = guards_.find(watch);
  return at != guards_.end() && at->second.count(std::string(name)) != 0;
}

// ---- paths

UniqueFd InotifyTree::Open(const InotifyFolder& folder) const {
  const InotifyFolder* root = &folder;
  while (root->parent != nullptr) {
    root = root->parent;
  }
  UniqueFd fd = OpenFolder(AT_FDCWD, root->name, true);
  if (fd.valid() && root != &folder) {
    fd = OpenFolder(fd.get(), PathOf(folder).substr(root->name == "/" ? 1 : root->name.size() + 1), false);
  }
  return fd;
}

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
  const std::string path = PathOf(folder);
  const SaidOnce::Answer answer = said_polled_.Ask(path);
  if (answer != SaidOnce::Answer::kKeepQuiet) {
    Record record(LOG_WARNING, "watch_limit_reached");
    record.Add("folder", path).Add("watches", static_cast<long long>(watches())).Add("instead", "polled");
    if (answer == SaidOnce::Answer::kSayLast) {
      record.Add("others", "not recorded");
    }
  }
  folder.polled = true;
  polled_.insert(&folder);
  folder.digest = DigestOf(Open(folder).get(), path, recorder_->scopes());
}

void InotifyTree::SayRefused(const InotifyFolder& folder, int error) {
  const std::string path = PathOf(folder);
  const SaidOnce::Answer answer = said_refused_.Ask(path);
  if (answer != SaidOnce::Answer::kKeepQuiet) {
    Record record(LOG_WARNING, "folder_not_watched");
    record.Add("folder", path).AddErrno("reason", error);
    if (answer == SaidOnce::Answer::kSayLast) {
      record.Add("others", "not recorded");
    }
  }
}

std::vector<uint64_t> InotifyTree::Poll() {
  std::vector<uint64_t> ids;
  ids.reserve(polled_.size());
  for (const InotifyFolder* folder : polled_) {
    ids.push_back(folder->id);
  }
  std::vector<uint64_t> changed;
  for (const uint64_t id : ids) {
    InotifyFolder* folder = FindById(id);
    if (folder != nullptr && PollOne(*folder)) {
      changed.push_back(id);
    }
  }
  return changed;
}

bool InotifyTree::PollOne(InotifyFolder& folder) {
  const uint64_t before = folder.digest;
  if (budget_.Allows(watches())) {
    polled_.erase(&folder);
    folder.polled = false;
    WatchTrees({folder.id});  // may end up polled again, further down or as a whole
    if (folder.watch >= 0) {
      return true;
    }
  }
  if (!folder.polled) {  // it cannot be opened, or the kernel refuses it: that may change
    folder.polled = true;
    polled_.insert(&folder);
    std::erase(missed_, folder.id);
  }
  const std::string path = PathOf(folder);
  folder.digest = DigestOf(Open(folder).get(), path, recorder_->scopes());
  return folder.digest != before;
}

std::vector<std::string> InotifyTree::PolledPaths(size_t most) const {
  std::vector<std::string> paths;
  for (const InotifyFolder* folder : polled_) {
    if (paths.size() == most) {
      break;
    }
    paths.push_back(PathOf(*folder));
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

// Deepest first: what is below a folder has no watch any more when the folder itself is polled with all below it.
std::vector<uint64_t> InotifyTree::GiveBack() {
  std::vector<std::pair<size_t, uint64_t>> by_depth;
  if (std::exchange(over_limit_, false)) {
    for (const auto& [id, folder] : by_id_) {
      if (folder->watch >= 0 && folder->parent != nullptr) {
        by_depth.emplace_back(DepthOf(*folder), id);
      }
    }
  }
  std::sort(by_depth.rbegin(), by_depth.rend());
  std::vector<uint64_t> given;
  for (auto at = by_depth.begin(); at != by_depth.end() && watches() > budget_.limit(); ++at) {
    InotifyFolder& folder = *by_id_.at(at->second);
    while (!folder.children.empty()) {
      Remove(folder, std::string(folder.children.begin()->first));
    }
    DropWatch(folder);
    given.push_back(folder.id);
  }
  std::erase_if(given, [this](uint64_t id) { return by_id_.count(id) == 0; });  // went with the folder above
  for (const uint64_t id : given) {
    StartPolling(*by_id_.at(id));
  }
  return given;
}

size_t InotifyTree::DepthOf(const InotifyFolder& folder) {
  size_t depth = 0;
  for (const InotifyFolder* above = folder.parent; above != nullptr; above = above->parent) {
    ++depth;
  }
  return depth;
}

}  // namespace nimotifyd
