// The passes, and what becomes of those that fail.
#include "services/indexer/worker.h"

#include <pthread.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <functional>
#include <system_error>
#include <utility>

#include "nimo/content_extract.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/queue_mgr.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"
#include "orbisk/notification.h"
#include "orbisk/sdk/share.h"
#include "services/base/log.h"
#include "services/indexer/limits.h"
#include "services/indexer/pass.h"
#include "services/indexer/registration.h"
#include "services/indexer/try_lock.h"

namespace fileindexd {

namespace fi = orbisk::fileindex;
using orbisk::Error;
using service::Record;

namespace {

constexpr std::chrono::milliseconds kFirstBackOff{250};
constexpr std::chrono::milliseconds kNotReadyBackOff{2'000};  // the longest while a database is opened or mended
constexpr int kTriesLeftOut = 10;
constexpr std::uint64_t kMoreRoom = std::uint64_t{1} << 20;  // bytes
constexpr std::chrono::seconds kStatusPatience{2};
constexpr std::chrono::milliseconds kStatusLook{10};

// What stands at the share's path is not what stood there.
struct AnotherFolder : Offline {};

// Codes of the search daemon and the library that ask for something.
constexpr int kSystem = 502;
constexpr int kIndexOpening = 606;
constexpr int kIndexUpgrading = 607;
constexpr int kIndexPaused = 608;
constexpr int kIndexRepairing = 609;
constexpr int kNoShare = 800;
constexpr int kNoSpaceOnVolume = 1003;
constexpr int kNoSuchIndex = 1204;
constexpr int kFilesMissing = 1221;
constexpr int kIndexDamaged = 1222;
constexpr int kNoRoom = 1223;

bool IsNotReady(int code) {
  return code == kIndexOpening || code == kIndexUpgrading || code == kIndexRepairing;
}

std::uint64_t FreeBytes(const std::string& folder) {
  struct statvfs info {};
  return statvfs(folder.c_str(), &info) == 0 ? std::uint64_t{info.f_bavail} * info.f_frsize : 0;
}

std::uint64_t BytesOf(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

bool HasContent(const std::string& path) {
  return BytesOf(path) > 0;
}

bool Exists(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0;
}

// A share that is gone answers no question about its paths; nothing may be concluded from that.
bool MayBeIndexed(const std::string& path) {
  try {
    return fi::CanFullPathBeIndexed(path);
  } catch (const Error&) {
    throw Offline();
  }
}

std::vector<std::string> PathsOf(const Policy& policy) {
  std::vector<std::string> paths;
  for (const auto& [path, switches] : policy.folders()) {
    paths.push_back(path);
  }
  return paths;
}

bool ExtractorAnswers(const std::string& share_folder) {
  Json::Value options;
  options["need_meta"] = false;
  Json::Value document;
  try {
    NIMO_CONTENT_EXTRACT_ParseFile(share_folder, options, document);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

ShareInfo ShareInfo::Of(const std::string& name) {
  const orbisk::sdk::SDKShare share(name);
  return {name, share.GetPath(), share.GetQueuePath(), share.GetDBPath()};
}

Worker::Worker(ShareInfo share, const WorkerSettings& settings, Extractions& extractions, Roots& roots, bool paused,
               std::function<void()> on_end)
    : share_(std::move(share)),
      settings_(settings),
      on_end_(std::move(on_end)),
      settle_(settings.settle, settings.settle_limit),
      paused_(paused),
      interrupt_(paused),
      index_(share_.name, extractions),
      roots_(roots),
      pace_(settings.recovery_pause, settings.recovery_limit),
      thread_([this] { Run(); }) {}

Worker::~Worker() {
  Stop();
  thread_.join();
}

void Worker::NoteQueue() {
  const std::lock_guard lock(mutex_);
  settle_.Note(Clock::now());
  wake_.notify_one();
}

void Worker::NoteConfiguration() {
  const std::lock_guard lock(mutex_);
  configuration_ = true;
  look_again_ = true;
  retry_at_.reset();
  wake_.notify_one();
}

void Worker::NoteFlag() {
  const std::lock_guard lock(mutex_);
  flagged_ = true;
  wake_.notify_one();
}

void Worker::CompareAll() {
  const std::lock_guard lock(mutex_);
  compare_ = true;
  interrupt_ = true;
  look_again_ = true;
  retry_at_.reset();
  try {
    DropMark(MarkPath(share_.queue));  // the worker's thread waits for the disk
  } catch (const std::system_error& error) {
    Record(LOG_WARNING, "mark_stays").Add("share", share_.name).Add("reason", error.what());
  }
  wake_.notify_one();
}

void Worker::NoteMounts() {
  const std::lock_guard lock(mutex_);
  mounts_changed_ = true;
  wake_.notify_one();
}

void Worker::NoteExtractor() {
  const std::lock_guard lock(mutex_);
  extractor_came_ = true;
  wake_.notify_one();
}

void Worker::SetPaused(bool paused) {
  const std::lock_guard lock(mutex_);
  look_again_ = look_again_ || (paused_ && !paused);
  paused_ = paused;
  interrupt_ = paused || stop_ || compare_;
  wake_.notify_one();
}

void Worker::Stop() {
  const std::lock_guard lock(mutex_);
  stop_ = true;
  interrupt_ = true;
  wake_.notify_one();
}

Json::Value Worker::Report(size_t most_failures) const {
  Json::Value report = progress_.ToJson(most_failures);
  report["share"] = share_.name;
  report["backlog"] = Json::UInt64{BytesOf(share_.queue) + BytesOf(share_.queue + ".tmp")};
  return report;
}

void Worker::Run() {
  pthread_setname_np(pthread_self(), ("i-" + share_.name).substr(0, 15).c_str());
  LowerPriority(settings_.nice);
  LoadFailures();
  Record(LOG_NOTICE, "worker_started").Add("share", share_.name);
  while (WaitForWork()) {
    try {
      TryPass();
    } catch (const std::exception& error) {  // what was to be done about a failure failed, too
      RetryLater(Progress::State::kFailing, error.what());
    }
  }
  SyncDroppedMark();
  Record(LOG_NOTICE, "worker_stopped").Add("share", share_.name);
  on_end_();
}

// Whoever asked for the comparison is answered when the worker has ended.
void Worker::SyncDroppedMark() {
  try {
    std::unique_lock lock(mutex_);
    if (compare_) {
      lock.unlock();
      SyncMark(MarkPath(share_.queue));
    }
  } catch (const std::system_error& error) {
    Record(LOG_WARNING, "mark_stays").Add("share", share_.name).Add("reason", error.what());
  }
}

// False when it is to end.
bool Worker::WaitForWork() {
  std::unique_lock lock(mutex_);
  while (!stop_) {
    if (paused_) {
      progress_.SetState(Progress::State::kPaused);
      wake_.wait(lock);
      continue;
    }
    std::optional<Clock::time_point> due = retry_at_ ? retry_at_ : settle_.Due();
    if (!retry_at_ && recovery_at_) {
      due = std::min(due.value_or(*recovery_at_), *recovery_at_);
    }
    const bool may_be_back = offline_ && mounts_changed_;
    if (look_again_ || may_be_back || extractor_came_ || (flagged_ && !retry_at_) || (due && *due <= Clock::now())) {
      settle_.Take();
      tries_again_ = retry_at_.has_value() && !look_again_;
      look_again_ = false;
      offline_ = false;
      mounts_changed_ = false;
      another_extractor_ = std::exchange(extractor_came_, false) || another_extractor_;
      flagged_ = false;
      retry_at_.reset();
      recovery_at_.reset();  // the pass looks for itself whether it is time
      return true;
    }
    due ? static_cast<void>(wake_.wait_until(lock, *due)) : wake_.wait(lock);
  }
  return false;
}

void Worker::TryPass() {
  try {
    if (DoPass()) {
      back_off_ = {};
      missing_since_.reset();
      told_no_space_ = false;
      told_problem_.clear();
      full_with_.reset();
      progress_.SetProblem("");
    }
  } catch (const Interrupted&) {
    // Paused or stopped; or the configuration changed, which has woken it already.
  } catch (const AnotherFolder&) {
    RetryLater(Progress::State::kOffline,
               "another folder is in the share's place; if it is the right one, rebuild the share");
  } catch (const Offline&) {
    RetryLater(Progress::State::kOffline, "the share cannot be reached");
  } catch (const NoExtractor&) {
    RetryLater(Progress::State::kFailing, "the extractor does not answer");
  } catch (const Error& error) {
    OnError(error.code(), error.reason());
  } catch (const std::system_error& error) {
    const bool no_room = error.code().value() == ENOSPC || error.code().value() == EDQUOT;
    no_room ? OnError(kNoRoom, error.what()) : RetryLater(Progress::State::kFailing, error.what());
  } catch (const std::exception& error) {
    RetryLater(Progress::State::kFailing, error.what());
  }
}

// False if the share is not to be looked at now.
bool Worker::DoPass() {
  configuration_ = false;
  ReadPolicy();
  LoadFailures();
  if (!policy_.HasWork()) {
    KeepChanges();
    progress_.SetState(policy_.folders().empty() ? Progress::State::kIdle : Progress::State::kPaused);
    return true;
  }
  // Before it is asked whether the share is mounted: a volume that goes in between is noticed later.
  root_ = {IdentityOfFolder(share_.folder), IdentityOfIndex(share_.index)};
  if (!orbisk::sdk::SDKShare(share_.name).CanBeIndexed()) {
    // Whoever changes that changes the registry of shares or mounts something, and with it wakes this up.
    had_index_ = false;
    probed_ = false;
    whole_share_ = true;  // perhaps nobody tells what changes by then
    NoteOffline();
    progress_.SetState(Progress::State::kOffline);
    progress_.SetProblem("the share is locked or read-only");
    return false;
  }
  CheckRoot();
  index_.DropChanges();
  if (IsStillFull() || !Probe()) {
    return false;
  }
  WatchWhatMoved();
  const std::string index = IdentityOfIndex(share_.index);
  FindWork(index);
  FindFailuresToRetry();
  const bool again = Exists(share_.queue + ".tmp");
  const bool has_batch = again || HasContent(share_.queue);
  const bool recovers = recovery_pending_ && !pace_.Due(Clock::now());
  if (has_batch || whole_share_ || !changed_folders_.empty() || !retry_.empty() || recovers) {
    Apply(has_batch, again, index);
  }
  progress_.SetState(recovery_pending_ ? Progress::State::kWaiting : Progress::State::kIdle);
  if (recovery_pending_) {
    const std::lock_guard lock(mutex_);
    recovery_at_ = pace_.Due(Clock::now()).value_or(Clock::now());
  }
  if (again && HasContent(share_.queue)) {
    NoteQueue();  // what came while the left-over batch kept the queue waiting
  }
  return true;
}

// The index answers, has the present schema, and is the one that lies beside the share. False if it is made anew.
bool Worker::Probe() {
  if (!probed_) {
    index_.Find(share_.folder);
    if (!schema_known_ && index_.IsOutdated()) {
      Record(LOG_NOTICE, "index_outdated").Add("share", share_.name);
      // Once: a search daemon that tells of another schema even then is not asked again.
      schema_known_ = RebuildIndex(true);
      return false;
    }
    schema_known_ = true;
    probed_ = true;
    had_index_ = true;
  }
  if (root_.index.empty() && root_.folder != roots_.Known(share_.name)) {
    throw AnotherFolder();
  }
  roots_.Remember(share_.name, root_.folder);
  return true;
}

void Worker::NoteOffline() {
  const std::lock_guard lock(mutex_);
  offline_ = true;
}

// A full volume is left alone until it has more room: each try compares the whole share. Now and then it is tried all
// the same, because room within the index does not show from outside.
bool Worker::IsStillFull() {
  if (!full_with_ || !tries_again_ || tries_left_out_ == kTriesLeftOut ||
      FreeBytes(share_.folder) > *full_with_ + kMoreRoom || orbisk::sdk::SDKShare(share_.name).IsSpaceEnough()) {
    tries_left_out_ = 0;
    return false;
  }
  ++tries_left_out_;
  RetryLater(Progress::State::kNoSpace, "there is no room on the volume");
  return true;
}

// Of a share that is paused as a whole. Its volume may be on its way out; then they are kept in memory alone.
void Worker::KeepChanges() {
  try {
    if (!changed_folders_.empty()) {
      StoreMark({policy_.folders(), mark_ ? mark_->index : "", Unfinished()});
    }
  } catch (const std::system_error& error) {
    Record(LOG_NOTICE, "changes_not_kept").Add("share", share_.name).Add("reason", error.what());
  }
}

// What has to be compared whatever the queue says. It is written down before anything is done, because a part of it
// leaves an index that looks like neither the old nor the new configuration.
void Worker::FindWork(const std::string& index) {
  if (!std::exchange(has_mark_, true)) {
    mark_ = ReadMark(MarkPath(share_.queue));
    if (mark_) {
      changed_folders_.insert(changed_folders_.end(), mark_->pending.begin(), mark_->pending.end());
      AddChanges(Policy(mark_->folders));
    }
  }
  {
    const std::lock_guard lock(mutex_);
    whole_share_ = std::exchange(compare_, false) || whole_share_;
    interrupt_ = stop_ || paused_;
  }
  // Taken before the comparison: one that is set from now on asks for another one.
  const bool flagged = (fi::StatusMgr().GetShareStatus(share_.name) & kNeedsReindex) != 0;
  whole_share_ = whole_share_ || flagged || !mark_ || mark_->index != index;
  if (whole_share_) {
    ForgetMark();
  } else if (!changed_folders_.empty()) {
    StoreMark({policy_.folders(), index, Unfinished()});
  }
  if (flagged) {
    TakeFlag();
  }
}

// What the next pass has to compare if this one does not.
std::vector<std::string> Worker::Unfinished() const {
  std::vector<std::string> folders = changed_folders_;
  if (recovery_pending_) {
    folders.push_back(share_.folder);
  }
  return folders;
}

// Where events get lost again and again, the whole share is not compared each time.
void Worker::PlanRecovery(Pass& pass) {
  recovery_pending_ = recovery_pending_ || pass.EventsLost();
  recovering_ = recovery_pending_ && (whole_share_ || !pace_.Due(Clock::now()));
  if (recovering_) {
    pass.Recover();
  } else if (recovery_pending_) {
    pass.PutOffRecovery();
  }
}

// A recovery that was put off is kept in the mark alone when the batch goes, so that an old mark must not come back.
void Worker::EndRecovery(Clock::time_point begun) {
  if (recovering_) {
    pace_.NoteRecovery(begun, Clock::now());
    progress_.NoteRecovery();
    recovery_pending_ = recovering_ = false;
  } else if (recovery_pending_ && (!mark_ || mark_->pending != Unfinished())) {
    ForgetMark();
  }
}

// Not by StatusMgr, which writes what it read before it got the lock: it would undo a pause that is being stored. Who
// set the flag may hold the lock still. While somebody holds it for long, the flag stays and costs one more comparison.
void Worker::TakeFlag() {
  const Clock::time_point end_of_patience = Clock::now() + kStatusPatience;
  service::UniqueFd lock = TryLock(kStatusLock);
  while (!lock.valid() && !interrupt_ && Clock::now() < end_of_patience) {
    std::this_thread::sleep_for(kStatusLook);
    lock = TryLock(kStatusLock);
  }
  Json::Value status;
  if (!lock.valid() || !orbisk::fromFile(status, settings_.status_file) || !status.isObject() ||
      !status["share"].isObject() || !status["share"][share_.name].isInt()) {
    return;
  }
  Json::Value& flags = status["share"][share_.name];
  flags = flags.asInt() & ~kNeedsReindex;
  orbisk::toFile(status, settings_.status_file);
}

void Worker::Apply(bool has_batch, bool again, const std::string& index) {
  const std::string tried_by = reader_;
  progress_.BeginPass();
  Pass pass(share_.folder);
  if (whole_share_) {
    pass.TakeTree(share_.folder);
  }
  for (const std::string& folder : changed_folders_) {
    pass.TakeTree(folder);
  }
  for (const std::string& path : retry_) {
    pass.TakeAnew(path);
  }
  int operations = 0;
  if (has_batch) {
    fi::QueueMgr queue(share_.queue);
    operations = queue.ProcessOP([&pass](const std::shared_ptr<fi::OP>& operation) { pass.Take(*operation); }, true);
  }
  PlanRecovery(pass);
  const Clock::time_point begun = Clock::now();
  const Reconciler::Box box = AskedOfTheBox();
  Reconciler reconciler(index_, policy_, box, progress_);
  reconciler.WorkWith(settings_.hands);
  // Folders that are resumed are among the changed ones, and what had failed in them was forgiven.
  reconciler.retry_unlisted = retry_unlisted_ || !changed_folders_.empty();
  reconciler.on_milestone = [this] {
    CheckOnline();
    MeetExtractor();
    KeepFailures();
    index_.Commit();
  };
  pass.Apply(reconciler, progress_, again);
  CheckOnline();
  if (index_.uncommitted() || again || whole_share_) {
    index_.Commit();
  }
  if (IdentityOfIndex(share_.index) != index) {
    // Another index came in the place of the one that was compared with; the next pass finds that out.
    NoteConfiguration();
    throw Interrupted();
  }
  changed_folders_.clear();
  EndRecovery(begun);
  if (!StoreMark({policy_.folders(), index, Unfinished()})) {
    throw Interrupted();
  }
  EndRetry(reconciler.changes() > 0, tried_by);
  fi::QueueMgr(share_.queue).DeleteTmp();
  whole_share_ = false;
  progress_.EndPass(static_cast<std::uint64_t>(std::max(operations, 0)));
}

// Missing they are only where no daemon has stored any yet, or where the volume is not mounted.
void Worker::LoadFailures() {
  failures_loaded_ = failures_loaded_ || progress_.failures().Load(FailuresPath(share_.queue), share_.folder);
}

// A list that cannot be stored stays in memory, and the documents that are not on a stored one are read again.
void Worker::KeepFailures() {
  try {
    progress_.failures().Store(FailuresPath(share_.queue), share_.folder);
  } catch (const std::system_error& error) {
    Record(LOG_NOTICE, "failures_not_kept").Add("share", share_.name).Add("reason", error.what());
  }
}

// What it says of contents, and whether it is still the one that was met before.
void Worker::MeetExtractor() {
  const Json::Value status = AskExtractor(broken_contents_.told());
  if (status.isNull()) {
    return;
  }
  reader_ = ReaderOf(status);
  for (const BrokenContent& content : broken_contents_.New(status, share_.folder)) {
    content.has_document ? progress_.failures().Add(content.path, content.reason)
                         : progress_.failures().Explain(content.path, content.reason);
  }
}

// Another way of reading may succeed where the former one failed.
void Worker::FindFailuresToRetry() {
  LoadFailures();
  failures_loaded_ = true;
  if (!std::exchange(met_extractor_, true)) {
    // What it said before this daemon's work is old. One that does not answer yet says nothing before that work.
    const Json::Value status = AskExtractor(broken_contents_.told());
    reader_ = ReaderOf(status);
    broken_contents_.Skip(status);
  } else if (another_extractor_) {
    MeetExtractor();
  }
  another_extractor_ = false;
  Failures& failures = progress_.failures();
  if (reader_.empty() || failures.reader() == reader_) {
    return;
  }
  // Those that had no room on the list are found by comparing.
  retry_unlisted_ = failures.IsFull();
  whole_share_ = whole_share_ || retry_unlisted_;
  retry_ = failures.PathsIn(share_.folder);
  // What is left alone now is not on the list of what this one failed at: it is read when its folder is resumed.
  const auto paused = [this](const std::string& path) { return policy_.IsPaused(path); };
  const auto end = std::stable_partition(retry_.begin(), retry_.end(), std::not_fn(paused));
  std::for_each(end, retry_.end(), [&failures](const std::string& path) { failures.Forgive(path); });
  retry_.erase(end, retry_.end());
  if (retry_.empty() && !retry_unlisted_) {
    failures.SetReader(reader_);
  }
}

// `tried_by` is the way of reading that the pass began with.
void Worker::EndRetry(bool changed, const std::string& tried_by) {
  if (changed) {
    MeetExtractor();
  }
  Failures& failures = progress_.failures();
  if (!retry_.empty() || retry_unlisted_) {
    failures.SetReader(tried_by);
    retry_.clear();
    retry_unlisted_ = false;
  }
  KeepFailures();
  if (!reader_.empty() && failures.reader() != reader_) {
    NoteConfiguration();  // the next pass tries what this one may have failed at
  }
}

void Worker::ForgetMark() {
  {
    const std::lock_guard lock(mutex_);
    mark_.reset();
    DropMark(MarkPath(share_.queue));
  }
  SyncMark(MarkPath(share_.queue));
}

// False if the whole share has to be compared anyway.
bool Worker::StoreMark(Mark mark) {
  const std::lock_guard lock(mutex_);
  if (compare_) {
    return false;
  }
  if (mark_ != mark) {
    WriteMark(MarkPath(share_.queue), mark);
    mark_ = std::move(mark);
  }
  return true;
}

Reconciler::Box Worker::AskedOfTheBox() {
  // What lies where the share lay before is in no share, or in another one.
  const auto may_be_indexed = [this](const std::string& path) {
    return IsAtOrBelow(path, share_.folder) && MayBeIndexed(path);
  };
  return {may_be_indexed, fi::IsSystemPreservedFileName, [this] { return ExtractorAnswers(share_.folder); },
          [this] { return interrupt_.load() || !PolicyIsCurrent(); }, [this] { CheckOnline(); }};
}

// What changed in the configuration is compared, whoever changed it: the events that go with a change may be missing.
void Worker::ReadPolicy() {
  const Policy before = std::exchange(policy_, Policy::Read(share_.name));
  folders_moved_ = folders_moved_ || !has_policy_ || PathsOf(before) != PathsOf(policy_);
  if (std::exchange(has_policy_, true)) {
    AddChanges(before);
  }
}

// An account that gets another name takes its folders to other paths, and the library tells the monitor of none.
// Whoever adds folders registers them himself, and holds the lock meanwhile.
void Worker::WatchWhatMoved() {
  folders_moved_ = folders_moved_ && !Watches(settings_.registrations, share_.queue, PathsOf(policy_));
  const service::UniqueFd lock = folders_moved_ ? TryLock(kFoldersLock) : service::UniqueFd();
  if (!lock.valid()) {
    return;
  }
  try {
    Register(share_.name, share_.queue);
    Record(LOG_NOTICE, "registered").Add("share", share_.name);
    whole_share_ = true;  // what changed before it was watched
    folders_moved_ = false;
  } catch (const Error& error) {
    Record(LOG_WARNING, "not_registered").Add("share", share_.name).Add("reason", error.reason());
  }
}

void Worker::AddChanges(const Policy& before) {
  for (std::string& folder : before.Changes(policy_)) {
    if (std::find(changed_folders_.begin(), changed_folders_.end(), folder) == changed_folders_.end()) {
      changed_folders_.push_back(std::move(folder));
    }
  }
}

bool Worker::PolicyIsCurrent() {
  if (!configuration_.exchange(false)) {
    return true;
  }
  try {
    return Policy::Read(share_.name).folders() == policy_.folders();
  } catch (const Error&) {
    return true;  // it cannot be read; the next pass will say so
  }
}

// What is there when the pass begins, and whether it is the share.
void Worker::CheckRoot() const {
  if (root_.folder.empty()) {
    throw Offline();
  }
  if (!IsTheShare(root_, roots_.Known(share_.name))) {
    throw AnotherFolder();
  }
}

// The share's folder is there, and the one that it was when the pass began.
void Worker::CheckOnline() const {
  if (IdentityOfFolder(share_.folder) != root_.folder) {
    throw Offline();
  }
}

void Worker::OnError(int code, const std::string& reason) {
  const std::string problem = "error " + std::to_string(code) + (reason.empty() ? "" : ": " + reason);
  if (code == kNoSuchIndex) {
    OnMissingIndex(problem);
  } else if (code == kIndexDamaged || (code == kFilesMissing && IdentityOfIndex(share_.index).empty())) {
    // What is at the path may lie below the volume, which is not mounted. A share that nobody knew is not believed
    // here.
    const Root now{IdentityOfFolder(share_.folder), IdentityOfIndex(share_.index)};
    const std::string known = roots_.Known(share_.name);
    if (IsTheShare(now, known) && (!known.empty() || !now.index.empty())) {
      RebuildIndex(true);
    } else {
      RetryLater(Progress::State::kOffline, problem);
    }
  } else if (code == kNoRoom || code == kNoSpaceOnVolume) {
    OnNoRoom(problem);
  } else if (IsNotReady(code)) {
    RetryLater(Progress::State::kFailing, problem, kNotReadyBackOff);
  } else if (code == kNoShare || code == kSystem) {
    had_index_ = had_index_ && code != kNoShare;
    RetryLater(Progress::State::kOffline, problem);
  } else {
    RetryLater(code == kIndexPaused ? Progress::State::kPaused : Progress::State::kFailing, problem);
  }
}

// Whoever deletes an index tells why afterwards: the share is no longer indexed, or there is a new one. One that went
// together with the monitor's registration was cleaned away, because the share is about to go.
void Worker::OnMissingIndex(const std::string& problem) {
  missing_since_ = missing_since_.value_or(Clock::now());
  const bool missing_for_long = Clock::now() - *missing_since_ >= settings_.missing_index;
  if (missing_for_long && had_index_ && !IsRegistered(settings_.registrations, share_.queue)) {
    probed_ = false;
    progress_.SetState(Progress::State::kOffline);
    progress_.SetProblem("the index was cleaned away; it comes back with the share, or when the daemon starts again");
  } else if (missing_for_long) {
    RebuildIndex(false);
  } else {
    RetryLater(Progress::State::kFailing, problem);
  }
}

void Worker::OnNoRoom(const std::string& problem) {
  if (!std::exchange(told_no_space_, true)) {
    const int status = orbisk::fileindex::SendNXMNotify();
    Record(LOG_ERR, "no_room").Add("share", share_.name).Add("notified", status == 0 ? "yes" : "no");
  }
  full_with_ = FreeBytes(share_.folder);
  RetryLater(Progress::State::kNoSpace, problem);
}

// False if it has to be tried again later. Whoever takes folders out of the configuration deletes indexes first and
// stores that last, and holds the lock all the while: an index that is made in between would be left over.
bool Worker::RebuildIndex(bool delete_first) {
  try {
    const service::UniqueFd lock = TryLock(kFoldersLock);
    if (!lock.valid() || !fi::FolderMgr().IsShareIndexed(share_.name)) {
      RetryLater(Progress::State::kFailing, "the index has to be made anew; the configuration is being changed");
      return false;
    }
    Record(LOG_WARNING, "index_rebuilt").Add("share", share_.name);
    if (delete_first) {
      fi::elastic::ShareIndexDelete(share_.name);
    }
    ForgetMark();
    if (!IsRegistered(settings_.registrations, share_.queue)) {
      Register(share_.name, share_.queue);  // first: once there is an index, nobody asks for this again
    }
    fi::elastic::ShareIndexCreate(share_.name);
    missing_since_.reset();
    const std::lock_guard state_lock(mutex_);
    look_again_ = true;
    return true;
  } catch (const Error& error) {
    RetryLater(Progress::State::kFailing, error.reason());
  } catch (const std::exception& error) {
    RetryLater(Progress::State::kFailing, error.what());
  }
  return false;
}

void Worker::RetryLater(Progress::State state, const std::string& problem, std::chrono::milliseconds limit) {
  probed_ = false;
  if (state == Progress::State::kOffline) {
    NoteOffline();
  }
  back_off_ = std::min({settings_.retry_limit, limit, back_off_.count() == 0 ? kFirstBackOff : back_off_ * 2});
  progress_.SetState(state);
  progress_.SetProblem(problem);
  const bool is_news = std::exchange(told_problem_, problem) != problem;
  Record(is_news ? LOG_WARNING : LOG_INFO, "pass_failed")
      .Add("share", share_.name)
      .Add("reason", problem)
      .Add("retry_ms", back_off_.count());
  const std::lock_guard lock(mutex_);
  retry_at_ = Clock::now() + back_off_;
}

}  // namespace fileindexd
