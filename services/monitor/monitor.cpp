// Ties the kernel interfaces, the registrations and the queue files together.
#include "services/monitor/monitor.h"

#include <sys/stat.h>

#include <boost/asio/post.hpp>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <thread>
#include <utility>

#include "services/base/log.h"
#include "services/monitor/fanotify_watcher.h"
#include "services/monitor/inotify_watcher.h"

namespace nimotifyd {

using service::Record;

namespace {

namespace asio = boost::asio;

constexpr std::chrono::milliseconds kStopPatience{2000};
constexpr std::chrono::milliseconds kStopRetry{5};
constexpr int kPlanRounds = 4;

void AppendJson(std::string& text, const char* key, const std::string& value) {
  text += std::string(text.size() > 1 ? "," : "") + "\"" + key + "\":" + value;
}

// Some file systems keep a date in units of two seconds; and a tick of the clock that files are stamped with.
constexpr std::chrono::milliseconds kYoung{2020};

std::string Quoted(const std::string& value) {
  std::string text = "\"";
  AppendEscaped(text, value);
  return text + "\"";
}

}  // namespace

WatcherMakers KernelWatchers() {
  return {&FanotifyWatcher::Create, &InotifyWatcher::Create};
}

Monitor::Monitor(asio::io_context& context, const Options& options, WatcherMakers makers)
    : context_(context), options_(options), makers_(std::move(makers)), mounts_changed_(context), tick_(context) {}

Monitor::~Monitor() {
  for (const auto& source : sources_) {
    if (source->descriptor.is_open()) {
      source->descriptor.release();  // the watcher owns it
    }
  }
  if (mounts_changed_.is_open()) {
    mounts_changed_.release();
  }
}

// Nothing if there is no file.
std::optional<Monitor::FileState> Monitor::LookAtFile(const std::string& path) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return std::nullopt;
  }
  const auto nanoseconds = [](const timespec& time) { return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec; };
  const std::chrono::nanoseconds age{nanoseconds(now) - nanoseconds(info.st_ctim)};
  return FileState{info.st_dev, info.st_ino, info.st_size, nanoseconds(info.st_mtim), nanoseconds(info.st_ctim),
                   age < kYoung};
}

// ---- start and stop

bool Monitor::Start() {
  LoadScopes(LoadRegistrations(options_.registrations));
  if (!CreateSources()) {
    return false;
  }
  RefreshPoints(false);
  CrashAll("start");
  mounts_changed_.assign(mounts_.descriptor());
  AwaitMounts();
  Flush(Clock::now());
  for (const auto& source : sources_) {
    PostPump(*source);
  }
  ArmTick();
  Record record(LOG_NOTICE, "started");
  record.Add("queues", static_cast<long long>(sinks_.size())).Add("folders", static_cast<long long>(points_.size()));
  for (const auto& source : sources_) {
    record.Add("backend", source->name);
  }
  return true;
}

bool Monitor::CreateSources() {
  if (options_.backend != BackendChoice::kInotify) {
    if (auto watcher = makers_.fanotify(options_, *recorder_)) {
      AddSource(std::move(watcher), "fanotify");
      return true;
    }
    Record(LOG_WARNING, "fanotify_refused").AddErrno("reason", errno);
    if (options_.backend == BackendChoice::kFanotify) {
      return false;
    }
  }
  return InotifySource() != nullptr;
}

Monitor::Source* Monitor::AddSource(std::unique_ptr<Watcher> watcher, const char* name) {
  sources_.push_back(std::make_unique<Source>(context_, std::move(watcher), name));
  return sources_.back().get();
}

Monitor::Source* Monitor::InotifySource() {
  for (const auto& source : sources_) {
    if (source->name == "inotify") {
      return source.get();
    }
  }
  auto watcher = makers_.inotify(options_, *recorder_);
  if (watcher == nullptr) {
    Record(LOG_ERR, "inotify_refused").AddErrno("reason", errno);
    return nullptr;
  }
  Source* source = AddSource(std::move(watcher), "inotify");
  if (mounts_changed_.is_open()) {  // the loop runs already
    AwaitEvents(*source);
  }
  return source;
}

void Monitor::PumpUntilEmpty() {
  for (const auto& source : sources_) {
    const auto patience = Clock::now() + kStopPatience;
    for (bool more = true; more && Clock::now() < patience;) {
      const DrainReport report = source->watcher->Drain(Clock::now());
      Handle(report);
      Flush(Clock::now());
      if (report.again) {
        std::this_thread::sleep_until(*report.again);
      }
      more = report.unfinished || report.again;
    }
  }
}

void Monitor::Stop() {
  stopped_ = true;
  PumpUntilEmpty();
  for (const auto& source : sources_) {
    if (source->watcher->OnDeadline(Clock::time_point::max()).lost) {
      ++overflows_;
      CrashAll("kernel_overflow");
    }
    source->gather.cancel();
    if (source->descriptor.is_open()) {
      source->descriptor.release();
    }
  }
  tick_.cancel();
  mounts_changed_.release();
  const auto patience = Clock::now() + kStopPatience;
  for (auto& [path, sink] : sinks_) {
    for (sink->FlushNow(Clock::now()); sink->pending() && Clock::now() < patience; sink->FlushNow(Clock::now())) {
      std::this_thread::sleep_for(kStopRetry);
    }
    if (sink->pending()) {
      Record(LOG_ERR, "lines_unwritten")
          .Add("queue", path)
          .Add("lines", static_cast<long long>(sink->pending_lines()))
          .Add("bytes", static_cast<long long>(sink->pending_bytes()));
    }
  }
  Record(LOG_NOTICE, "stopped");
}

// ---- registrations

void Monitor::LoadScopes(std::vector<Registration> registrations) {
  registrations_ = std::move(registrations);
  struct Crashed {
    std::string folder;
    bool wanted = false;
  };
  std::unordered_map<std::string, std::unique_ptr<QueueSink>> sinks;
  std::unordered_map<std::string, Crashed> crashed;  // of each queue: several may register one
  for (const Registration& registration : registrations_) {
    auto& sink = sinks[registration.queue];
    if (sink == nullptr) {
      const auto known = sinks_.find(registration.queue);
      sink = known != sinks_.end() ? std::move(known->second)
                                   : std::make_unique<QueueSink>(registration.queue, options_.memory_limit_bytes);
    }
    Crashed& line = crashed[registration.queue];
    for (const WatchEntry& entry : registration.entries) {
      line.folder = line.folder.empty() ? entry.path : line.folder;
      line.wanted = line.wanted || (entry.mask & kQueueCrashed) != 0;
    }
  }
  for (auto& [queue, sink] : sinks) {
    sink->SetFirstFolder(crashed[queue].folder, crashed[queue].wanted);
  }
  auto scopes = std::make_unique<Scopes>(registrations_, sinks);
  auto recorder = std::make_unique<Recorder>(*scopes);
  for (const auto& source : sources_) {
    source->watcher->SetRecorder(*recorder);
  }
  recorder_ = std::move(recorder);
  scopes_ = std::move(scopes);
  sinks_ = std::move(sinks);
}

void Monitor::Reload() {
  PumpUntilEmpty();
  std::vector<Registration> registrations = LoadRegistrations(options_.registrations);
  if (registrations != registrations_) {
    const std::optional<std::vector<std::string>> added = AddedFolders(registrations);
    LoadScopes(std::move(registrations));
    added ? AddPoints(*added) : RefreshPoints(false);
    Flush(Clock::now());
  }
  PumpAllSoon();
  ArmTick();
  Record(LOG_INFO, "reloaded").Add("queues", static_cast<long long>(sinks_.size()));
}

// ---- watch points

void Monitor::CrashSinksAt(const std::string& path, const char* reason) {
  for (const ScopeEntry* entry : scopes_->EntriesAt(path)) {
    entry->sink->Crash(reason);
  }
}

void Monitor::CrashAll(const char* reason) {
  for (auto& [path, sink] : sinks_) {
    sink->Crash(reason);
  }
}

// A folder whose content is not what it was: to be looked through, as after its creation.
void Monitor::ReportFolder(const std::string& path) {
  recorder_->Report({recorder_->MakeView(0, path)}, {}, true, kCreate);
}

void Monitor::Withdraw(const std::string& path, const ActivePoint& point) {
  point.source->watcher->Unwatch(path);
  if (!point.planned.registered) {
    ReportFolder(path);
  } else if (scopes_->IsRegistered(path)) {
    Record(LOG_WARNING, "folder_lost").Add("folder", path);
    CrashSinksAt(path, "folder_lost");
  }
}

bool Monitor::Establish(const std::string& path, const PlannedPoint& point) {
  const WatchPoint wanted{path, point.identity.mount};
  Source* source = sources_.front().get();
  WatchOutcome outcome = source->watcher->Watch(wanted);
  if (outcome == WatchOutcome::kUnsupported && options_.backend == BackendChoice::kAuto && source->name != "inotify") {
    source = InotifySource();
    outcome = source != nullptr ? source->watcher->Watch(wanted) : WatchOutcome::kUnsupported;
  }
  if (outcome != WatchOutcome::kWatched) {
    Record(LOG_ERR, "folder_not_watched").Add("folder", path);
    return false;
  }
  Record(LOG_INFO, "folder_watched").Add("folder", path).Add("backend", source->name);
  points_.insert_or_assign(path, ActivePoint{point, source});
  return true;
}

// `announce`: folders that are new here get a create line, because nobody else tells what is in them.
void Monitor::RefreshPoints(bool announce) {
  // A folder may come or go while the plan is carried out, and which folders need a guard depends on what is watched.
  const std::vector<std::string> folders = scopes_->folders();
  std::vector<WayStep> steps = WaysTo(folders);
  for (int rounds = 0; rounds < kPlanRounds; ++rounds) {
    for (const auto& source : sources_) {
      source->watcher->Guard(steps);
    }
    const bool changed = FollowPlan(PlanPoints(*scopes_, mounts_.Read()), announce || rounds > 0);
    std::vector<WayStep> steps_after = WaysTo(folders);
    if (!changed && steps_after == steps) {
      break;
    }
    steps = std::move(steps_after);
  }
  FollowFiles(announce);
  UpdatePresence();
  PumpAllSoon();
}

// What lies at a registered path may be a file. No folder's watch tells of it where the folder that it lies in is not
// registered too; a guard does, and not what happened, nor to which. Both lines have whoever reads them look at the
// file. One that is known already is told of in any case: its guard may find it as it is then.
void Monitor::FollowFiles(bool announce) {
  std::map<std::string, FileState> files;
  for (const std::string& path : scopes_->folders()) {
    if (points_.count(path) != 0) {
      continue;
    }
    const std::optional<FileState> file = LookAtFile(path);
    const auto before = files_.find(path);
    const bool known = before != files_.end();
    if (file && (known ? before->second.young || !before->second.Same(*file) : announce)) {
      recorder_->Report({recorder_->MakeView(0, path)}, {}, false, kCreate);
    } else if (!file && known) {
      recorder_->Report({recorder_->MakeView(0, path)}, {}, false, kDelete);
    }
    if (file) {
      files.emplace(path, *file);
    }
  }
  files_ = std::move(files);
}

// Returns whether anything had to be changed.
bool Monitor::FollowPlan(const std::map<std::string, PlannedPoint>& plan, bool announce) {
  bool changed = false;
  for (auto at = points_.begin(); at != points_.end();) {
    const auto planned = plan.find(at->first);
    if (planned != plan.end() && planned->second.identity == at->second.planned.identity) {
      at->second.planned = planned->second;
      ++at;
      continue;
    }
    Withdraw(at->first, at->second);
    at = points_.erase(at);
    changed = true;
  }
  return EstablishMissing(plan, announce) || changed;
}

bool Monitor::EstablishMissing(const std::map<std::string, PlannedPoint>& plan, bool announce) {
  bool established = false;
  for (const auto& [path, point] : plan) {
    if (points_.count(path) == 0 && Establish(path, point)) {
      established = true;
      if (announce) {
        ReportFolder(path);
      }
    }
  }
  return established;
}

// The folders that are new in `registrations`; nothing if anything else changed, or if a new one could change what is
// watched for another.
std::optional<std::vector<std::string>> Monitor::AddedFolders(const std::vector<Registration>& registrations) const {
  const bool mounts_watched =
      std::any_of(points_.begin(), points_.end(), [](const auto& point) { return !point.second.planned.registered; });
  if (mounts_watched || registrations.size() != registrations_.size()) {
    return std::nullopt;
  }
  std::vector<std::string> added;
  for (size_t i = 0; i < registrations.size(); ++i) {
    const Registration& before = registrations_[i];
    const Registration& now = registrations[i];
    if (now.app != before.app || now.queue != before.queue || now.entries.size() < before.entries.size() ||
        !std::equal(before.entries.begin(), before.entries.end(), now.entries.begin())) {
      return std::nullopt;
    }
    for (size_t entry = before.entries.size(); entry < now.entries.size(); ++entry) {
      added.push_back(now.entries[entry].path);
    }
  }
  std::sort(added.begin(), added.end());
  added.erase(std::unique(added.begin(), added.end()), added.end());
  return added;
}

// As RefreshPoints does with all folders. What becomes of the others the kernel tells: they stay guarded meanwhile.
void Monitor::AddPoints(const std::vector<std::string>& folders) {
  std::vector<WayStep> steps = WaysTo(folders);
  for (int rounds = 0; rounds < kPlanRounds; ++rounds) {
    for (const auto& source : sources_) {
      source->watcher->GuardAlso(steps);
    }
    const bool changed = EstablishMissing(PlanPoints(*scopes_, folders, mounts_.Read()), rounds > 0);
    std::vector<WayStep> steps_after = WaysTo(folders);
    if (!changed && steps_after == steps) {
      break;
    }
    steps = std::move(steps_after);
  }
  for (const std::string& path : folders) {
    const std::optional<FileState> file = points_.count(path) == 0 ? LookAtFile(path) : std::nullopt;
    if (file) {
      files_.emplace(path, *file);
    }
  }
  UpdatePresence();
  PumpAllSoon();
}

void Monitor::UpdatePresence() {
  std::unordered_map<std::string, bool> present;  // of each queue: several may register one
  for (const Registration& registration : registrations_) {
    present[registration.queue] |=
        registration.entries.empty() ||
        std::any_of(registration.entries.begin(), registration.entries.end(), [this](const WatchEntry& entry) {
          return points_.count(entry.path) != 0 || files_.count(entry.path) != 0;
        });
  }
  for (const auto& [queue, sink] : sinks_) {
    sink->SetPresent(present[queue]);
  }
}

// ---- the loop

void Monitor::AwaitEvents(Source& source) {
  source.awaited = true;
  source.descriptor.assign(source.watcher->descriptor());
  source.descriptor.async_wait(asio::posix::stream_descriptor::wait_read,
                               [this, &source](const boost::system::error_code& error) {
                                 if (!error && !stopped_ && source.awaited) {
                                   source.awaited = false;
                                   source.descriptor.release();
                                   Pump(source);
                                 }
                               });
}

void Monitor::AwaitMounts() {
  mounts_changed_.async_wait(asio::posix::stream_descriptor::wait_error,
                             [this](const boost::system::error_code& error) {
                               if (error || stopped_) {
                                 return;
                               }
                               RefreshPoints(true);
                               Flush(Clock::now());
                               ArmTick();
                               AwaitMounts();
                             });
}

void Monitor::Handle(const DrainReport& report) {
  if (report.lost) {
    ++overflows_;
    CrashAll("kernel_overflow");
  }
  if (report.lost || report.roots_touched) {  // what was lost may have been about a registered folder
    RefreshPoints(true);
  }
}

void Monitor::Pump(Source& source) {
  const DrainReport report = source.watcher->Drain(Clock::now());
  Handle(report);
  Flush(Clock::now());
  ArmTick();
  if (report.unfinished) {
    PostPump(source);
  } else if (report.again) {
    Gather(source, std::min<Clock::duration>(*report.again - Clock::now(), options_.gather));
  } else if (report.activity || report.roots_touched) {
    Gather(source, options_.gather);
  } else {
    AwaitEvents(source);
  }
}

void Monitor::PostPump(Source& source) {
  asio::post(context_, [this, &source] {
    if (!stopped_) {
      Pump(source);
    }
  });
}

// A watcher that looks folders up may have read events already, and its descriptor does not tell of those. A source
// that gathers is pumped in a moment anyway.
void Monitor::PumpSoon(Source& source) {
  if (source.awaited) {
    source.awaited = false;
    source.descriptor.release();
    PostPump(source);
  }
}

void Monitor::PumpAllSoon() {
  for (const auto& source : sources_) {
    PumpSoon(*source);
  }
}

void Monitor::Gather(Source& source, Clock::duration pause) {
  source.gather.expires_after(pause);
  source.gather.async_wait([this, &source](const boost::system::error_code& error) {
    if (!error && !stopped_) {
      Pump(source);
    }
  });
}

void Monitor::Flush(Clock::time_point now) {
  for (auto& [path, sink] : sinks_) {
    if (sink->pending()) {
      sink->Flush(now);
    }
  }
}

void Monitor::ArmTick() {
  Clock::time_point earliest = Clock::time_point::max();
  for (const auto& source : sources_) {
    earliest = std::min(earliest, source->watcher->deadline().value_or(earliest));
  }
  for (const auto& [path, sink] : sinks_) {
    earliest = std::min(earliest, sink->retry_time().value_or(earliest));
  }
  if (earliest == Clock::time_point::max()) {
    tick_.cancel();
    return;
  }
  tick_.expires_at(earliest);
  tick_.async_wait([this](const boost::system::error_code& error) {
    if (!error && !stopped_) {
      OnTick();
    }
  });
}

void Monitor::OnTick() {
  const auto now = Clock::now();
  for (const auto& source : sources_) {
    const std::optional<Clock::time_point> due = source->watcher->deadline();
    if (due && *due <= now) {
      const DrainReport report = source->watcher->OnDeadline(now);
      Handle(report);
      if (report.unfinished) {
        PumpSoon(*source);
      }
    }
  }
  Flush(now);
  ArmTick();
}

// ---- status

std::string Monitor::Status() const {
  std::string queues = "[";
  for (const auto& [path, sink] : sinks_) {
    std::string queue = "{";
    AppendJson(queue, "lines_unwritten", std::to_string(sink->pending_lines()));
    AppendJson(queue, "pending_bytes", std::to_string(sink->pending_bytes()));
    AppendJson(queue, "queue", Quoted(path));
    queues += (queues.size() > 1 ? "," : "") + queue + "}";
  }
  std::string folders = "[";
  for (const auto& [path, point] : points_) {
    std::string folder = "{";
    AppendJson(folder, "backend", Quoted(point.source->name));
    AppendJson(folder, "path", Quoted(path));
    folders += (folders.size() > 1 ? "," : "") + folder + "}";
  }
  std::string polled = "[";
  size_t polled_count = 0;
  for (const auto& source : sources_) {
    const PolledFolders found = source->watcher->polled();
    polled_count += found.count;
    for (const std::string& path : found.paths) {
      polled += (polled.size() > 1 ? "," : "") + Quoted(path);
    }
  }
  std::string text = "{";
  AppendJson(text, "folders", folders + "]");
  AppendJson(text, "overflows", std::to_string(overflows_));
  AppendJson(text, "polled", polled + "]");
  AppendJson(text, "polled_count", std::to_string(polled_count));
  AppendJson(text, "queues", queues + "]");
  return text + "}";
}

}  // namespace nimotifyd
