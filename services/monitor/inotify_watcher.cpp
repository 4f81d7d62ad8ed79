// Turns inotify events into reports of changes at paths.
#include "services/monitor/inotify_watcher.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

#include "services/base/log.h"

namespace nimotifyd {

using service::Record;
using service::UniqueFd;

namespace {

// The halves of a rename are queued one after the other, so the second is late by a preemption at most.
constexpr std::chrono::milliseconds kOtherHalfWait{30};
constexpr std::chrono::milliseconds kFirstRebuildPause{1000};
constexpr std::chrono::milliseconds kLongestRebuildPause{60'000};
constexpr size_t kEventsHeld = 65'536;
constexpr size_t kMostWriters = 65'536;
constexpr size_t kPolledNamed = 1000;

size_t WatchLimit(const Options& options) {
  if (options.watch_limit != 0) {
    return options.watch_limit;
  }
  size_t allowed = 8192;
  std::ifstream("/proc/sys/fs/inotify/max_user_watches") >> allowed;
  size_t in_namespace = allowed;  // a container may have fewer
  std::ifstream("/proc/sys/user/max_inotify_watches") >> in_namespace;
  allowed = std::min(allowed, in_namespace);
  return allowed - allowed * options.watch_reserve_percent / 100;
}

}  // namespace

std::unique_ptr<InotifyWatcher> InotifyWatcher::Create(const Options& options, const Recorder& recorder) {
  UniqueFd fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!fd.valid()) {
    return nullptr;
  }
  return std::unique_ptr<InotifyWatcher>(new InotifyWatcher(options, recorder, std::move(fd)));
}

InotifyWatcher::InotifyWatcher(const Options& options, const Recorder& recorder, UniqueFd fd)
    : recorder_(&recorder),
      fd_(std::move(fd)),
      tree_(fd_.get(), WatchBudget(WatchLimit(options), options.watch_reserve_percent), recorder),
      writers_(options.content_report),
      poll_period_(options.poll_period) {}

void InotifyWatcher::SetRecorder(const Recorder& recorder) {
  recorder_ = &recorder;
  tree_.SetRecorder(recorder);
  tree_.ResetLimit();
  // What is skipped may be something else now. What changes while the watches are set anew is reported by nobody, so
  // each folder is to be looked through.
  for (const WatchPoint& point : WatchAnew()) {
    recorder_->Report({recorder_->MakeView(point.mount, point.path)}, {}, true, kCreate);
  }
}

WatchOutcome InotifyWatcher::Watch(const WatchPoint& point) {
  if (tree_.AddRoot(point) == nullptr) {
    const int error = errno;
    Record(LOG_INFO, "watch_refused").Add("path", point.path).AddErrno("reason", error);
    return error == ENOENT || error == ENOTDIR ? WatchOutcome::kMissing : WatchOutcome::kUnsupported;
  }
  KeepReserve();
  return WatchOutcome::kWatched;
}

void InotifyWatcher::Unwatch(const std::string& path) {
  tree_.RemoveRoot(path);
}

void InotifyWatcher::Guard(const std::vector<WayStep>& steps) {
  tree_.ClearGuards();
  AddGuards(steps);
  if (KeepReserve()) {
    tree_.ClearGuards();
    AddGuards(steps);
  }
}

void InotifyWatcher::GuardAlso(const std::vector<WayStep>& steps) {
  AddGuards(steps);
  if (KeepReserve()) {
    AddGuards(steps);
  }
}

void InotifyWatcher::AddGuards(const std::vector<WayStep>& steps) {
  for (const WayStep& step : steps) {
    tree_.AddGuard(step);
  }
}

// ---- reading

void InotifyWatcher::ReadAll(Clock::time_point now) {
  alignas(inotify_event) std::array<char, 65'536> buffer;
  while (events_.size() < kEventsHeld) {
    const ssize_t count = read(fd_.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return;
    }
    for (size_t at = 0; at < static_cast<size_t>(count);) {
      inotify_event raw;
      memcpy(&raw, buffer.data() + at, sizeof(raw));
      const char* name = buffer.data() + at + sizeof(raw);
      if ((raw.mask & IN_MOVED_TO) != 0) {
        moved_to_[raw.cookie] = first_number_ + events_.size();
      }
      events_.push_back({raw.wd, raw.mask, raw.cookie, std::string(name, strnlen(name, raw.len)), now, false});
      at += sizeof(raw) + raw.len;
    }
  }
}

DrainReport InotifyWatcher::Drain(Clock::time_point now) {
  DrainReport report;
  ReadAll(now);
  report.unfinished = events_.size() >= kEventsHeld;
  while (!events_.empty()) {
    Event& event = events_.front();
    if (!event.done && !OnEvent(event, now, report)) {
      report.unfinished = false;
      break;  // waits for the other half
    }
    events_.pop_front();
    ++first_number_;
  }
  if (events_.empty()) {
    Reconcile();
  }
  KeepReserve();
  return report;
}

// ---- events

bool InotifyWatcher::OnEvent(Event& event, Clock::time_point now, DrainReport& report) {
  if ((event.mask & IN_Q_OVERFLOW) != 0) {
    OnLoss(now, report);
    return true;
  }
  if ((event.mask & IN_IGNORED) != 0) {
    tree_.Dropped(event.watch);
    return true;
  }
  report.activity = true;
  report.roots_touched |= TouchesRoot(event);
  if ((event.mask & IN_MOVED_TO) != 0) {
    moved_to_.erase(event.cookie);  // came without its first half: from outside
  }
  if ((event.mask & IN_MOVED_FROM) != 0) {
    return OnMovedFrom(event, now, report);
  }
  for (const uint64_t id : tree_.Find(event.watch)) {
    if (InotifyFolder* folder = tree_.FindById(id)) {
      OnNamed(*folder, event, now);
    }
  }
  return true;
}

bool InotifyWatcher::TouchesRoot(const Event& event) const {
  if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) == 0) {
    return tree_.Guards(event.watch, event.name);
  }
  const std::vector<uint64_t> ids = tree_.Find(event.watch);
  return tree_.IsGuard(event.watch) || std::any_of(ids.begin(), ids.end(), [this](uint64_t id) {
           const InotifyFolder* folder = tree_.FindById(id);
           return folder != nullptr && folder->parent == nullptr;
         });
}

void InotifyWatcher::OnNamed(InotifyFolder& folder, const Event& event, Clock::time_point now) {
  const bool is_dir = (event.mask & IN_ISDIR) != 0;
  if ((event.mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
    Appeared(folder, event);
  } else if ((event.mask & IN_DELETE) != 0) {
    Vanished(folder, event);
  } else if ((event.mask & IN_ATTRIB) != 0) {
    // A folder's change comes through its own watch and its parent's; the own one is taken where there is one.
    const auto child = is_dir ? folder.children.find(event.name) : folder.children.end();
    if (event.name.empty() || child == folder.children.end() || child->second->watch < 0) {
      recorder_->Report(tree_.ViewsOf(folder), event.name, is_dir, kAttrib);
    }
    if (is_dir && !event.name.empty() && child == folder.children.end()) {
      WatchLate(folder, event.name);
    }
  } else if ((event.mask & (IN_MODIFY | IN_CLOSE_WRITE)) != 0) {
    OnContent(folder, event, now);
  }
}

std::string InotifyWatcher::KeyOf(const InotifyFolder& folder, const std::string& name) {
  return std::to_string(folder.id) + "/" + name;
}

void InotifyWatcher::OnContent(InotifyFolder& folder, const Event& event, Clock::time_point now) {
  const bool closed = (event.mask & IN_CLOSE_WRITE) != 0;
  if (!closed && writers_.size() < kMostWriters) {
    writers_.Written(KeyOf(folder, event.name), folder.id, event.name, now);
    return;
  }
  recorder_->Report(tree_.ViewsOf(folder), event.name, false, kModify);
  writers_.Erase(KeyOf(folder, event.name));
}

void InotifyWatcher::Appeared(InotifyFolder& folder, const Event& event) {
  const bool is_dir = (event.mask & IN_ISDIR) != 0;
  if (is_dir) {
    tree_.Add(folder, event.name);
  } else {
    tree_.Remove(folder, event.name);
  }
  recorder_->Report(tree_.ViewsOf(folder), event.name, is_dir, kCreate);
}

// The kernel may have refused a folder until its permissions changed.
void InotifyWatcher::WatchLate(InotifyFolder& folder, const std::string& name) {
  const InotifyFolder* added = tree_.Add(folder, name);
  if (added != nullptr && (added->watch >= 0 || added->polled)) {
    recorder_->Report(tree_.ViewsOf(folder), name, true, kCreate);
  }
}

void InotifyWatcher::Vanished(InotifyFolder& folder, const Event& event) {
  const bool is_dir = (event.mask & IN_ISDIR) != 0;
  if (is_dir) {
    tree_.Remove(folder, event.name);
  } else {
    writers_.Erase(KeyOf(folder, event.name));
  }
  recorder_->Report(tree_.ViewsOf(folder), event.name, is_dir, kDelete);
}

// ---- renames

bool InotifyWatcher::OnMovedFrom(const Event& event, Clock::time_point now, DrainReport& report) {
  const std::vector<uint64_t> sources = tree_.Find(event.watch);
  const auto other = moved_to_.find(event.cookie);
  if (other != moved_to_.end() && other->second >= first_number_) {
    Event& in = events_[other->second - first_number_];
    in.done = true;
    moved_to_.erase(other);
    report.roots_touched |= TouchesRoot(in);
    OnMoved(sources, event, tree_.Find(in.watch), in);
    return true;
  }
  if (now - event.read_at < kOtherHalfWait && !sources.empty()) {
    report.again = event.read_at + kOtherHalfWait;
    return false;
  }
  OnMoved(sources, event, {}, event);
  return true;
}

// Where folders can be reached by several paths, the sides that lie in one mount belong together.
void InotifyWatcher::OnMoved(const std::vector<uint64_t>& sources, const Event& out, std::vector<uint64_t> targets,
                             const Event& in) {
  for (const uint64_t id : sources) {
    InotifyFolder* from = tree_.FindById(id);
    const auto target = std::find_if(targets.begin(), targets.end(), [&](uint64_t other) {
      const InotifyFolder* to = tree_.FindById(other);
      return from != nullptr && to != nullptr &&
             (to->mount == from->mount || (sources.size() == 1 && targets.size() == 1));
    });
    if (target != targets.end()) {
      const uint64_t matched = *target;
      targets.erase(target);
      OnRename(*from, out, *tree_.FindById(matched), in);
    } else if (from != nullptr) {
      Vanished(*from, out);
      LookAgain(id, out.name);  // it may have changed places with something outside
    }
  }
  for (const uint64_t id : targets) {
    if (InotifyFolder* to = tree_.FindById(id)) {
      Appeared(*to, in);
    }
  }
}

void InotifyWatcher::OnRename(InotifyFolder& from, const Event& out, InotifyFolder& to, const Event& in) {
  const bool is_dir = (in.mask & IN_ISDIR) != 0;
  const uint64_t from_id = from.id;
  const uint64_t to_id = to.id;
  const std::string source = KeyOf(from, out.name);
  const std::string target = KeyOf(to, in.name);
  const FolderViews to_views = tree_.ViewsOf(to);
  recorder_->ReportRename(tree_.ViewsOf(from), out.name, to_views, in.name, is_dir);
  if (!is_dir) {
    tree_.Remove(to, in.name);
    writers_.Renamed(source, to_id, in.name);
  } else if (!MoveFolder(from, out.name, to, in.name)) {
    // It was not watched where it came from, so changes in it may have gone unseen.
    recorder_->Report(to_views, in.name, true, kCreate);
  }
  // Two objects that change places come as a rename and its reverse, just as one that is moved forth and back.
  if (renames_.count(target + "\n" + source) != 0) {
    LookAgain(from_id, out.name);
    LookAgain(to_id, in.name);
  }
  renames_.insert(source + "\n" + target);
}

// Returns whether the folder was known and is followed.
bool InotifyWatcher::MoveFolder(InotifyFolder& from, const std::string& old_name, InotifyFolder& to,
                                const std::string& name) {
  const uint64_t from_id = from.id;
  const uint64_t to_id = to.id;
  const bool known = from.children.find(old_name) != from.children.end();
  if (!tree_.Move(from, old_name, to, name)) {
    tree_.Remove(from, old_name);
    if (InotifyFolder* parent = tree_.FindById(to_id)) {
      tree_.Add(*parent, name);
    }
  }
  // The tree is built from paths as they are now, and corrected by events of how they came about: a folder that seems
  // to lie in itself shows that the two do not fit.
  doubtful_ |= tree_.FindById(from_id) == nullptr || tree_.FindById(to_id) == nullptr;
  return known;
}

// Reports what is on disk under a name as new.
void InotifyWatcher::LookAgain(uint64_t folder_id, const std::string& name) {
  InotifyFolder* folder = tree_.FindById(folder_id);
  struct stat info {};
  if (folder == nullptr || fstatat(tree_.Open(*folder).get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    return;
  }
  if (S_ISDIR(info.st_mode)) {
    tree_.Add(*folder, name);
  } else {
    tree_.Remove(*folder, name);
  }
  recorder_->Report(tree_.ViewsOf(*folder), name, S_ISDIR(info.st_mode), kCreate);
}

// ---- loss

void InotifyWatcher::OnLoss(Clock::time_point now, DrainReport& report) {
  if (now - last_rebuild_ > kLongestRebuildPause) {
    rebuild_pause_ = std::chrono::milliseconds(0);
  }
  if (now - last_rebuild_ >= rebuild_pause_) {
    Rebuild(now, report);
  } else {
    next_rebuild_ = last_rebuild_ + rebuild_pause_;
  }
}

// Folders may have come and gone unseen: every watch is set anew before the loss is reported, so that whatever the
// reader's rescan does not see is seen here.
void InotifyWatcher::Rebuild(Clock::time_point now, DrainReport& report) {
  Record(LOG_WARNING, "watches_rebuilt").Add("reason", "kernel_overflow");
  WatchAnew();
  writers_.Clear();
  next_rebuild_.reset();
  last_rebuild_ = now;
  rebuild_pause_ = std::clamp(rebuild_pause_ * 2, kFirstRebuildPause, kLongestRebuildPause);
  report.lost = true;
}

// With all events handled the tree must be what is on disk; where it showed that it is not, folders are watched anew
// and looked through again.
void InotifyWatcher::Reconcile() {
  renames_.clear();
  if (std::exchange(doubtful_, false)) {
    for (const WatchPoint& point : WatchAnew()) {
      recorder_->Report({recorder_->MakeView(point.mount, point.path)}, {}, true, kCreate);
    }
  }
  ReportAnew(tree_.RetryMissed());
  for (const uint64_t id : tree_.TakeContested()) {
    InotifyFolder* folder = tree_.FindById(id);
    InotifyFolder* parent = folder != nullptr ? folder->parent : nullptr;
    if (parent != nullptr) {
      const std::string name = folder->name;
      if (tree_.Add(*parent, name) != nullptr) {
        recorder_->Report(tree_.ViewsOf(*parent), name, true, kCreate);
      }
    }
  }
}

std::vector<WatchPoint> InotifyWatcher::WatchAnew() {
  std::vector<WatchPoint> points = tree_.roots();
  for (const WatchPoint& point : points) {
    tree_.RenewRoot(point);
  }
  KeepReserve();
  return points;
}

// Returns whether watches were given back. No reference to a folder may be held.
bool InotifyWatcher::KeepReserve() {
  const std::vector<uint64_t> given = tree_.GiveBack();
  ReportAnew(given);
  return !given.empty();
}

// Reports folders that are to be looked through.
void InotifyWatcher::ReportAnew(const std::vector<uint64_t>& ids) {
  for (const uint64_t id : ids) {
    if (InotifyFolder* folder = tree_.FindById(id)) {
      recorder_->Report(tree_.ViewsOf(*folder), {}, true, kCreate);
    }
  }
}

// ---- time

std::optional<Clock::time_point> InotifyWatcher::deadline() {
  if (!tree_.has_polled()) {
    next_poll_.reset();
  } else if (!next_poll_) {
    next_poll_ = Clock::now() + poll_period_;
  }
  std::optional<Clock::time_point> earliest = writers_.next_due();
  for (const auto& time : {next_poll_, next_rebuild_}) {
    if (time && (!earliest || *time < *earliest)) {
      earliest = time;
    }
  }
  return earliest;
}

PolledFolders InotifyWatcher::polled() const {
  return {tree_.polled(), tree_.PolledPaths(kPolledNamed)};
}

DrainReport InotifyWatcher::OnDeadline(Clock::time_point now) {
  DrainReport report;
  for (const auto& file : writers_.TakeDue(now)) {
    if (InotifyFolder* folder = tree_.FindById(file.folder)) {
      recorder_->Report(tree_.ViewsOf(*folder), file.name, false, kModify);
    }
  }
  if (next_poll_ && *next_poll_ <= now) {
    next_poll_.reset();
    const std::vector<uint64_t> changed = tree_.Poll();
    ReportAnew(changed);
    // No event tells that a registered folder goes that has no watch.
    report.roots_touched = std::any_of(changed.begin(), changed.end(), [this](uint64_t id) {
      const InotifyFolder* folder = tree_.FindById(id);
      return folder != nullptr && folder->parent == nullptr;
    });
  }
  if (next_rebuild_ && *next_rebuild_ <= now) {
    Rebuild(now, report);
  }
  KeepReserve();
  return report;
}

}  // namespace nimotifyd
