// Turns fanotify events into reports of changes at paths.
#include "services/monitor/fanotify_watcher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "services/base/log.h"

namespace nimotifyd {

using service::Record;
using service::UniqueFd;

namespace {

constexpr uint64_t kFileSystemMask =
    FAN_CREATE | FAN_DELETE | FAN_RENAME | FAN_CLOSE_WRITE | FAN_MODIFY | FAN_ATTRIB | FAN_ONDIR;
constexpr uint64_t kGuardMask = FAN_MOVE_SELF | FAN_DELETE_SELF | FAN_ONDIR;
constexpr uint64_t kNameGuardMask = kGuardMask | FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO;
constexpr uint64_t kFileGuardMask = kNameGuardMask | FAN_MODIFY | FAN_CLOSE_WRITE | FAN_ATTRIB | FAN_EVENT_ON_CHILD;
constexpr uint64_t kNameMask = FAN_CREATE | FAN_DELETE | FAN_RENAME | FAN_MOVED_TO | FAN_MOVED_FROM;

// Lines are written to the queues after so many events at the latest.
constexpr int kEventsAtOnce = 16'384;
// Names compared with the disk even if the kernel's queue never runs empty.
constexpr size_t kLedgerLimit = 32'768;
constexpr size_t kViewSlots = 256;
constexpr size_t kMostWriters = 65'536;

}  // namespace

std::unique_ptr<FanotifyWatcher> FanotifyWatcher::Create(const Options& options, const Recorder& recorder) {
  const unsigned unlimited = options.bounded_kernel_queue ? 0 : FAN_UNLIMITED_QUEUE;
  UniqueFd fd(fanotify_init(
      FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME_TARGET | FAN_UNLIMITED_MARKS | FAN_NONBLOCK | FAN_CLOEXEC | unlimited,
      O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) {
    return nullptr;
  }
  return std::unique_ptr<FanotifyWatcher>(new FanotifyWatcher(options, recorder, std::move(fd)));
}

FanotifyWatcher::FanotifyWatcher(const Options& options, const Recorder& recorder, UniqueFd fd)
    : recorder_(&recorder),
      fd_(std::move(fd)),
      own_pid_(getpid()),
      stream_(fd_.get(), options.read_ahead_bytes),
      cache_(options.folder_cache_limit),
      locator_(cache_, stream_),
      writers_(options.content_report),
      slots_(kViewSlots),
      outside_(std::make_shared<FolderViews>()) {}

void FanotifyWatcher::SetRecorder(const Recorder& recorder) {
  recorder_ = &recorder;
  slots_.assign(kViewSlots, {});
}

// ---- watch points

bool FanotifyWatcher::MarkFileSystem(const std::string& path, uint64_t file_system) {
  if (marks_.count(file_system) != 0) {
    return true;
  }
  return fanotify_mark(fd_.get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, kFileSystemMask, AT_FDCWD, path.c_str()) == 0;
}

WatchOutcome FanotifyWatcher::Watch(const WatchPoint& point) {
  const std::optional<uint64_t> file_system = FileSystemId(point.path);
  if (!file_system) {
    return errno == ENOENT || errno == ENOTDIR ? WatchOutcome::kMissing : WatchOutcome::kUnsupported;
  }
  if (!MarkFileSystem(point.path, *file_system)) {
    const int error = errno;
    Record(LOG_INFO, "mark_refused").Add("path", point.path).AddErrno("reason", error);
    return error == ENOENT || error == ENOTDIR ? WatchOutcome::kMissing : WatchOutcome::kUnsupported;
  }
  const std::optional<Handle> handle = HandleAt(*file_system, AT_FDCWD, point.path.c_str(), AT_SYMLINK_FOLLOW);
  const int error = errno;
  OfferPaths(*file_system, point.path);
  if (!handle || !locator_.Open(*handle).valid()) {
    OfferPaths(*file_system, {});
    if (marks_.count(*file_system) == 0) {
      UnmarkFileSystem(point.path, *file_system);
    }
    return handle || error != ENOENT ? WatchOutcome::kUnsupported : WatchOutcome::kMissing;
  }
  ++marks_[*file_system];
  cache_.Clear();  // what was learnt while nothing was watched may be old, and another mount may show more
  points_.push_back({point.path, point.mount, *handle});
  points_by_handle_[*handle].push_back(points_.size() - 1);
  OfferPaths(*file_system, {});
  slots_.assign(kViewSlots, {});
  locator_.CloseMounts();
  return WatchOutcome::kWatched;
}

// Where handles of the file system can be opened: the watched folders in it, and `another` one unless it is empty.
void FanotifyWatcher::OfferPaths(uint64_t file_system, const std::string& another) {
  std::vector<std::string> paths;
  std::unordered_set<uint64_t> mounts;
  for (const Point& point : points_) {
    if (point.handle.file_system == file_system && mounts.insert(point.mount).second) {
      paths.push_back(point.path);
    }
  }
  if (!another.empty()) {
    paths.push_back(another);
  }
  locator_.Offer(file_system, paths);
}

// A mark is removed through any path in its file system; the watched folder itself may be gone by now.
void FanotifyWatcher::UnmarkFileSystem(const std::string& path, uint64_t file_system) {
  const std::string at = NearestIn(file_system, path);
  if (!at.empty()) {
    fanotify_mark(fd_.get(), FAN_MARK_REMOVE | FAN_MARK_FILESYSTEM, kFileSystemMask, AT_FDCWD, at.c_str());
  }
}

void FanotifyWatcher::Unwatch(const std::string& path) {
  const auto point = std::find_if(points_.begin(), points_.end(), [&](const Point& p) { return p.path == path; });
  if (point == points_.end()) {
    return;
  }
  const uint64_t file_system = point->handle.file_system;
  points_.erase(point);
  points_by_handle_.clear();
  for (size_t i = 0; i < points_.size(); ++i) {
    points_by_handle_[points_[i].handle].push_back(i);
  }
  OfferPaths(file_system, {});
  if (--marks_[file_system] == 0) {
    marks_.erase(file_system);
    UnmarkFileSystem(path, file_system);
  }
  cache_.Clear();  // what lies above a mount of a part of a file system may be seen no more, or now
  slots_.assign(kViewSlots, {});
}

// In marked file systems the names tell. Elsewhere the step's folder gets a mark of its own, which tells when the
// folder itself goes and, if what the name leads to will not tell that of itself, what becomes of the name.
void FanotifyWatcher::GuardStep(const Handle& folder, const WayStep& step) {
  guarded_[folder].insert(step.name);
  guards_files_ |= step.is_file;
  if (marks_.count(folder.file_system) == 0) {
    const uint64_t mask = step.is_folder ? kGuardMask : step.is_file ? kFileGuardMask : kNameGuardMask;
    fanotify_mark(fd_.get(), FAN_MARK_ADD | FAN_MARK_ONLYDIR, mask, AT_FDCWD, step.folder.c_str());
  }
}

void FanotifyWatcher::Guard(const std::vector<WayStep>& steps) {
  fanotify_mark(fd_.get(), FAN_MARK_FLUSH, 0, AT_FDCWD, nullptr);  // the marks on folders; those on file systems stay
  guarded_.clear();
  guards_files_ = false;
  GuardAlso(steps);
}

void FanotifyWatcher::GuardAlso(const std::vector<WayStep>& steps) {
  std::string looked_up;
  std::optional<Handle> folder;
  for (const WayStep& step : steps) {  // sorted, so that those in one folder stand together
    if (step.folder != looked_up) {
      looked_up = step.folder;
      const std::optional<uint64_t> file_system = FileSystemId(step.folder);
      folder = file_system ? HandleAt(*file_system, AT_FDCWD, step.folder.c_str(), 0) : std::optional<Handle>();
    }
    if (folder) {
      GuardStep(*folder, step);
    }
  }
}

bool FanotifyWatcher::TouchesRoot(const KernelEvent& event, const Handle& folder) const {
  const auto guards = [this](const Handle& where, std::string_view name) {
    const auto at = guarded_.find(where);
    return at != guarded_.end() && at->second.count(std::string(name)) != 0;
  };
  if (guards(folder, event.name)) {
    return true;
  }
  const std::optional<Handle> old_folder =
      event.old_folder != nullptr ? HandleOf(*event.old_folder) : std::optional<Handle>();
  return old_folder && guards(*old_folder, event.old_name);
}

// ---- paths

FanotifyWatcher::Views FanotifyWatcher::ViewsOf(const FolderCache::Folder* folder) {
  if (folder == nullptr) {
    return outside_;
  }
  ViewSlot& slot = slots_[(reinterpret_cast<uintptr_t>(folder) / sizeof(FolderCache::Folder)) % kViewSlots];
  if (slot.folder != folder || slot.generation != cache_.generation() || slot.views == nullptr) {
    slot = {folder, cache_.generation(), ComputeViews(folder)};
  }
  return slot.views;
}

FanotifyWatcher::Views FanotifyWatcher::ComputeViews(const FolderCache::Folder* folder) const {
  FolderViews views;
  std::vector<const FolderCache::Folder*> below;
  for (const FolderCache::Folder* at = folder; at != nullptr; at = at->parent) {
    const auto points = points_by_handle_.find(at->handle);
    if (points != points_by_handle_.end()) {
      std::string rest;
      for (auto name = below.rbegin(); name != below.rend(); ++name) {
        rest += '/';
        rest += (*name)->name;
      }
      for (const size_t index : points->second) {
        const Point& point = points_[index];
        std::string path = point.path == "/" && !rest.empty() ? rest : point.path + rest;
        const bool known = std::any_of(views.begin(), views.end(), [&](const View& v) { return v.path == path; });
        if (!known) {
          views.push_back(recorder_->MakeView(point.mount, std::move(path)));
        }
      }
    }
    below.push_back(at);
  }
  std::erase_if(views, [](const View& view) { return view.entries.empty(); });
  return views.empty() ? outside_ : std::make_shared<const FolderViews>(std::move(views));
}

// ---- events

DrainReport FanotifyWatcher::Drain(Clock::time_point now) {
  DrainReport report;
  for (int count = 0; count < kEventsAtOnce; ++count) {
    const std::optional<KernelEvent> event = stream_.Next();
    if (!event) {
      report.unfinished = CompareWithDisk();
      locator_.CloseMounts();
      return report;
    }
    OnEvent(*event, now, report);
  }
  if (ledger_.size() > kLedgerLimit) {
    CompareWithDisk();
  }
  report.unfinished = true;
  return report;
}

void FanotifyWatcher::OnEvent(const KernelEvent& event, Clock::time_point now, DrainReport& report) {
  report.activity |= event.pid != own_pid_;
  if ((event.mask & FAN_Q_OVERFLOW) != 0) {
    OnLoss(report);
    return;
  }
  if (event.folder == nullptr) {
    return;  // the object alone: its number of links changed, which other events tell
  }
  const std::optional<Handle> folder = HandleOf(*event.folder);
  if (!folder) {
    return;
  }
  if ((event.mask & (FAN_MOVE_SELF | FAN_DELETE_SELF)) != 0) {
    report.roots_touched |= guarded_.count(*folder) != 0;
  }
  // Of a link too: it can lie on the way to a registered folder.
  if ((event.mask & kNameMask) != 0 || (guards_files_ && !event.is_dir())) {
    report.roots_touched |= TouchesRoot(event, *folder);
  }
  if (marks_.count(folder->file_system) == 0) {
    return;
  }
  if ((event.mask & FAN_RENAME) != 0) {
    OnRename(event, *folder);
  } else {
    OnChange(event, *folder, now);
  }
}

void FanotifyWatcher::OnLoss(DrainReport& report) {
  report.lost = true;
  cache_.Clear();  // lost events may have moved folders
  ledger_.Clear();
  moved_folders_.clear();
  seen_.clear();
  confused_ = false;
  writers_.Clear();
}

void FanotifyWatcher::OnChange(const KernelEvent& event, const Handle& folder, Clock::time_point now) {
  FolderCache::Folder* place = locator_.Locate(folder);
  if (place == nullptr) {
    return;  // gone with everything in it; the folder's own delete tells
  }
  const Views views = ViewsOf(place);
  if (event.name == ".") {
    if ((event.mask & FAN_ATTRIB) != 0) {
      recorder_->Report(*views, {}, true, kAttrib);
    }
    return;
  }
  const std::optional<Handle> target = event.target != nullptr ? HandleOf(*event.target) : std::optional<Handle>();
  if (event.is_dir() && target && (event.mask & FAN_CREATE) != 0 && !views->empty() &&
      cache_.Find(*target) == nullptr) {
    cache_.Insert(*target, place, event.name);
  }
  if (!views->empty()) {
    ReportChange(event, folder, *views, now);
  }
  if (event.is_dir() && target && (event.mask & FAN_DELETE) != 0) {
    if (FolderCache::Folder* known = cache_.Find(*target)) {
      cache_.Erase(known);
    }
  }
}

// A folder whose place is taken by something else has left it in a rename that was merged into an earlier one: where it
// went shows on disk.
void FanotifyWatcher::Learn(const KernelEvent& event, const Handle& folder, std::string_view name,
                            const Ledger::State& state, bool enter) {
  const Ledger::State* known = ledger_.Find(folder, name);
  if (known != nullptr && known->object && known->is_dir && state.object && *state.object != *known->object) {
    FolderCache::Folder* misplaced = cache_.Find(*known->object);
    if (misplaced != nullptr && misplaced->name == name && misplaced->parent != nullptr &&
        misplaced->parent->handle == folder) {
      cache_.Erase(misplaced);
    }
    confused_ = true;
  }
  if (!enter && known == nullptr) {
    return;
  }
  const std::optional<Handle> target = event.target != nullptr ? HandleOf(*event.target) : std::optional<Handle>();
  if (target) {
    seen_.insert(*target);
  }
  if (state.object && state.is_dir) {
    moved_folders_.insert(*state.object);
  }
  if (enter) {
    ledger_.Enter(folder, name, state);
  } else {
    ledger_.Update(folder, name, state);
  }
}

// The bits of one event in an order that leaves the right state. Create and delete together may have come either way:
// the delete is written last, and the disk asked later.
void FanotifyWatcher::ReportChange(const KernelEvent& event, const Handle& folder, const FolderViews& views,
                                   Clock::time_point now) {
  const bool is_dir = event.is_dir();
  const bool deleted = (event.mask & FAN_DELETE) != 0;
  const std::optional<Handle> target = event.target != nullptr ? HandleOf(*event.target) : std::optional<Handle>();
  if ((event.mask & FAN_CREATE) != 0) {
    recorder_->Report(views, event.name, is_dir, kCreate);
    Learn(event, folder, event.name, {target, is_dir}, false);
  }
  if (deleted) {
    recorder_->Report(views, event.name, is_dir, kDelete);
    Learn(event, folder, event.name, {std::nullopt, is_dir}, (event.mask & FAN_CREATE) != 0);
    if (target) {
      writers_.Erase(*target);
    }
    return;
  }
  if ((event.mask & FAN_ATTRIB) != 0) {
    recorder_->Report(views, event.name, is_dir, kAttrib);
  }
  if ((event.mask & (FAN_MODIFY | FAN_CLOSE_WRITE)) != 0) {
    OnContent(event, folder, views, now);
  }
}

// A close without a write is reported too, because writing through a mapping shows as nothing but the close; only of
// a file just made is it known that there was nothing to write.
void FanotifyWatcher::OnContent(const KernelEvent& event, const Handle& folder, const FolderViews& views,
                                Clock::time_point now) {
  const std::optional<Handle> target = event.target != nullptr ? HandleOf(*event.target) : std::optional<Handle>();
  if ((event.mask & FAN_CLOSE_WRITE) != 0) {
    if ((event.mask & (FAN_CREATE | FAN_MODIFY)) != FAN_CREATE) {
      recorder_->Report(views, event.name, event.is_dir(), kModify);
    }
    if (target) {
      writers_.Erase(*target);
    }
  } else if (target && writers_.size() < kMostWriters) {
    writers_.Written(*target, folder, event.name, now);
  } else {
    recorder_->Report(views, event.name, event.is_dir(), kModify);
  }
}

// ---- renames

void FanotifyWatcher::OnRename(const KernelEvent& event, const Handle& new_folder) {
  const std::optional<Handle> old_folder =
      event.old_folder != nullptr ? HandleOf(*event.old_folder) : std::optional<Handle>();
  if (!old_folder) {
    return;
  }
  locator_.Locate(*old_folder);
  FolderCache::Folder* to = locator_.Locate(new_folder);
  FolderCache::Folder* from = locator_.Locate(*old_folder);  // again: making room for the other may have dropped it
  const Views old_views = ViewsOf(from);
  const Views new_views = ViewsOf(to);
  const bool watched = ReportRename(event, *old_folder, *old_views, new_folder, *new_views);
  const std::optional<Handle> target = event.target != nullptr ? HandleOf(*event.target) : std::optional<Handle>();
  if (!target) {
    return;
  }
  if (event.is_dir()) {
    from = cache_.Find(*old_folder);  // the report may have shown that places known so far were wrong
    to = locator_.Locate(new_folder);
    if (MoveFolder(event, from, to, watched)) {
      recorder_->Report(*new_views, event.name, true, kCreate);
    }
  } else {
    writers_.Renamed(*target, new_folder, event.name);
  }
}

// Two objects that change places come as two renames; the second moves what the first one overwrote according to the
// lines. It is written as a create of its target then.
bool FanotifyWatcher::ReportRename(const KernelEvent& event, const Handle& old_folder, const FolderViews& from,
                                   const Handle& new_folder, const FolderViews& to) {
  if (from.empty() && to.empty()) {
    return false;
  }
  const std::optional<Handle> target = event.target != nullptr ? HandleOf(*event.target) : std::optional<Handle>();
  const Ledger::State* source = ledger_.Find(old_folder, event.old_name);
  const bool taken = source != nullptr && source->object && source->object != target;
  bool watched = false;
  if (taken) {
    watched = recorder_->Report(to, event.name, event.is_dir(), kCreate);
  } else {
    watched = recorder_->ReportRename(from, event.old_name, to, event.name, event.is_dir());
    Learn(event, old_folder, event.old_name, {std::nullopt, event.is_dir()}, true);
  }
  Learn(event, new_folder, event.name, {target, event.is_dir()}, true);
  return watched;
}

// Returns whether the folder was not thought to be where it came from: lines about its content may have gone out under
// another path, so it must be looked through again.
bool FanotifyWatcher::MoveFolder(const KernelEvent& event, FolderCache::Folder* from, FolderCache::Folder* to,
                                 bool watched) {
  const std::optional<Handle> target = HandleOf(*event.target);
  FolderCache::Folder* known = target ? cache_.Find(*target) : nullptr;
  if (known == nullptr) {
    if (target && to != nullptr && watched) {
      cache_.Insert(*target, to, event.name);
    }
    return false;
  }
  const bool expected = known->parent == from && known->name == event.old_name;
  if (to == nullptr) {
    cache_.Erase(known);
  } else if (!cache_.Move(known, to, event.name)) {
    cache_.Clear();
  }
  return !expected && watched;
}

// ---- comparison with the disk

std::optional<Handle> FanotifyWatcher::ObjectNow(const Ledger::Name& name, const FolderViews& views) {
  const std::string path = views.front().path + "/" + name.name;
  if (path.size() < PATH_MAX) {
    return HandleAt(name.folder.file_system, AT_FDCWD, path.c_str(), 0);
  }
  return HandleAt(name.folder.file_system, locator_.Open(name.folder).get(), name.name.c_str(), 0);
}

// Whether the object that should be under the name is there. What is found is noted with its number of links.
bool FanotifyWatcher::IsThere(const Ledger::Name& name, const Ledger::State& state, Links& found) {
  const Views views = ViewsOf(locator_.Locate(name.folder));
  if (views->empty()) {
    return true;
  }
  if (ObjectNow(name, *views) != state.object) {
    return false;
  }
  struct stat info {};
  const std::string path = views->front().path + "/" + name.name;
  if (state.is_dir) {
    found[*state.object] = 1;
  } else if (path.size() < PATH_MAX && lstat(path.c_str(), &info) == 0) {
    found[*state.object] = info.st_nlink;
  }
  return true;
}

bool FanotifyWatcher::IsGone(const Ledger::Name& name) {
  const Views views = ViewsOf(locator_.Locate(name.folder));
  return views->empty() || !ObjectNow(name, *views);
}

// Whether each object that names in the ledger were about is gone, or found under a name and has no other.
bool FanotifyWatcher::AllAccountedFor(const Links& found) {
  return std::all_of(seen_.begin(), seen_.end(), [&](const Handle& object) {
    const auto links = found.find(object);
    return links != found.end() ? links->second <= 1 : !locator_.Open(object).valid();
  });
}

void FanotifyWatcher::Correct(const Ledger::Name& name, const Ledger::State& state) {
  const Views views = ViewsOf(locator_.Locate(name.folder));
  if (views->empty()) {
    return;
  }
  struct stat info {};
  const UniqueFd folder = locator_.Open(name.folder);
  const bool present = fstatat(folder.get(), name.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
  const bool is_dir = present && S_ISDIR(info.st_mode);
  if (state.object && (!present || is_dir != state.is_dir)) {
    recorder_->Report(*views, name.name, state.is_dir, kDelete);
  }
  if (present) {
    recorder_->Report(*views, name.name, is_dir, kCreate);
  }
  if (is_dir || state.is_dir) {
    confused_ = true;
  }
}

// Some folder is not where its renames left it. Lines about what is in it may have gone out under the path of another
// one, so all that were moved are looked through again.
void FanotifyWatcher::ReportMovedFolders() {
  cache_.Clear();
  for (const Handle& moved : std::exchange(moved_folders_, {})) {
    recorder_->Report(*ViewsOf(locator_.Locate(moved)), {}, true, kCreate);
  }
  confused_ = false;
}

// Returns whether events came meanwhile: then a difference may be their doing, and is left for the next time.
bool FanotifyWatcher::CompareWithDisk() {
  if (ledger_.size() == 0) {
    return false;
  }
  Links found;
  bool all_there = true;
  ledger_.DropIf([&](const Ledger::Name& name, const Ledger::State& state) {
    const bool there = state.object && IsThere(name, state, found);
    all_there &= there || !state.object;
    return there;
  });
  // Looking a missing name up waits for whoever changes the folder, and keeps him waiting. If every object is where it
  // should be, or gone, nothing can be under the names that should be free.
  const bool accounted_for = all_there && AllAccountedFor(found);
  ledger_.DropIf([&](const Ledger::Name& name, const Ledger::State& state) {
    return !state.object && (accounted_for || IsGone(name));
  });
  if (ledger_.size() == 0) {
    seen_.clear();
  }
  stream_.ReadAhead();
  if (!stream_.drained() && ledger_.size() < kLedgerLimit) {
    return true;
  }
  for (const auto& [name, state] : ledger_.TakeAll()) {
    Correct(name, state);
  }
  if (confused_) {
    ReportMovedFolders();
  }
  moved_folders_.clear();
  seen_.clear();
  return !stream_.drained();
}

DrainReport FanotifyWatcher::OnDeadline(Clock::time_point now) {
  for (const auto& file : writers_.TakeDue(now)) {
    const Views views = ViewsOf(locator_.Locate(file.folder));
    recorder_->Report(*views, file.name, false, kModify);
  }
  locator_.CloseMounts();
  DrainReport report;
  report.unfinished = !stream_.drained();  // looking a folder up reads ahead
  return report;
}

}  // namespace nimotifyd
