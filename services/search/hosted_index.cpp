// Opens, closes, repairs.
#include "services/search/hosted_index.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "services/base/log.h"
#include "services/base/unique_fd.h"
#include "services/search/refusal.h"

namespace nimoelasticd {

using service::Record;
using service::UniqueFd;

namespace {

// Lies in the index's folder while there are changes that are not committed. A daemon that finds it knows that clients
// count on changes that are gone. It need not survive a power cut: those clients do not either, and begin anew.
constexpr const char* kUncommittedName = "uncommitted";

std::string MarkerOf(const std::string& path) {
  return path + "/" + kUncommittedName;
}

// Lies there from when damage is found until it is repaired: what finds damage at opening, the log of an unclean end,
// is gone after that opening, and a repair may have to wait for room on the disk.
constexpr const char* kDamagedName = "damaged";

std::string DamageMarkerOf(const std::string& path) {
  return path + "/" + kDamagedName;
}

void Touch(const std::string& marker) {
  UniqueFd(open(marker.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
}

}  // namespace

const char* NameOf(State state) {
  switch (state) {
    case State::kOpening:
      return "opening";
    case State::kMoving:
      return "moving";
    case State::kUpgrading:
      return "upgrading";
    case State::kOpen:
      return "open";
    case State::kPaused:
      return "paused";
    case State::kRepairing:
      return "repairing";
    case State::kAbsent:
      return "absent";
    case State::kNewer:
      return "of a later version";
    case State::kDamaged:
      return "damaged";
    case State::kGone:
      return "gone";
  }
  return "unknown";
}

HostedIndex::Use::Use(HostedIndex& host, For purpose) : host_(host), index_(host.Enter(purpose)) {}

HostedIndex::Use::~Use() {
  host_.Leave();
}

HostedIndex::HostedIndex(std::string path, State state, search::OpenOptions options)
    : options_(options), state_(state), path_(std::move(path)) {}

State HostedIndex::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

std::string HostedIndex::path() const {
  const std::lock_guard lock(mutex_);
  return path_;
}

std::string HostedIndex::problem() const {
  const std::lock_guard lock(mutex_);
  return problem_;
}

void HostedIndex::Refuse() const {
  switch (state_) {
    case State::kUpgrading:
      throw Refusal(Code::kUpgrading, "the index is being upgraded");
    case State::kNewer:
      throw Refusal(Code::kNotReady, "the index cannot be opened: " + problem_);
    case State::kPaused:
      throw Refusal(Code::kPaused, "the index is paused");
    case State::kRepairing:
      throw Refusal(Code::kRepairing, "the index is being repaired");
    case State::kAbsent:
      throw Refusal(Code::kNoDatabase, "the index cannot be opened: " + problem_);
    case State::kDamaged:
      throw Refusal(Code::kDamaged, "the index is damaged, delete and create it: " + problem_);
    case State::kGone:
      throw Refusal(Code::kUnknownIndex, "the index was deleted");
    default:
      throw Refusal(Code::kNotReady, std::string("the index is ") + NameOf(state_));
  }
}

void HostedIndex::RequireOpen() const {
  const std::lock_guard lock(mutex_);
  if (state_ != State::kOpen) {
    Refuse();
  }
}

bool HostedIndex::Answers() const {
  const std::lock_guard lock(mutex_);
  return state_ == State::kOpen || (state_ == State::kRepairing && index_ != nullptr);
}

search::Index* HostedIndex::Enter(Use::For purpose) {
  const std::lock_guard lock(mutex_);
  const bool last_resort = purpose == Use::For::kAsking && state_ == State::kRepairing && index_ != nullptr;
  if (state_ != State::kOpen && !last_resort) {
    Refuse();
  }
  if (purpose == Use::For::kChanging && !changed_) {
    changed_ = true;
    Touch(MarkerOf(path_));
  }
  ++users_;
  return index_.get();
}

void HostedIndex::Leave() {
  const std::lock_guard lock(mutex_);
  if (--users_ == 0) {
    unused_.notify_all();
  }
}

void HostedIndex::Become(State state, std::unique_ptr<search::Index> index) {
  const std::lock_guard lock(mutex_);
  state_ = state;
  index_ = std::move(index);
}

void HostedIndex::Create(const Json::Value& mappings, const Json::Value& settings) {
  unlink(MarkerOf(path()).c_str());  // they speak of an index that was here before
  unlink(DamageMarkerOf(path()).c_str());
  Become(State::kOpen, search::Index::Create(path(), mappings, settings, options_));
}

void HostedIndex::Open() {
  SetState(State::kOpening);
  Opened opened = access(DamageMarkerOf(path()).c_str(), F_OK) == 0 ? Opened::kDamaged : TryOpen();
  if (opened == Opened::kOlder) {
    opened = UpgradeAndOpen();
  }
  if (opened == Opened::kDamaged) {
    AnswerWhileDamaged();
    RepairFiles();
  }
}

// What can be read of it is better than nothing, as long as the repair takes.
void HostedIndex::AnswerWhileDamaged() {
  try {
    Become(State::kRepairing, search::Index::OpenDamaged(path(), options_));
  } catch (const search::Error&) {
    SetState(State::kRepairing);
  }
}

bool HostedIndex::MarkDamaged() {
  const std::lock_guard lock(mutex_);
  if (state_ != State::kOpen) {
    return false;
  }
  state_ = State::kRepairing;
  changes_lost_ = true;
  Touch(DamageMarkerOf(path_));
  return true;
}

void HostedIndex::Repair() {
  RepairFiles();
}

void HostedIndex::RepairFiles() {
  if (TryRepair() && TryOpen() == Opened::kDamaged) {
    SetState(State::kDamaged);
  }
}

HostedIndex::Opened HostedIndex::TryOpen() {
  try {
    Become(State::kOpen, search::Index::Open(path(), options_));
    NoteLostChanges();
    Record(LOG_INFO, "index_opened").Add("path", path());
    return Opened::kDone;
  } catch (const search::Error& error) {
    if (problem() != error.what()) {  // each request tries again, and one record is enough
      Record(LOG_ERR, "index_not_opened").Add("path", path()).Add("reason", error.what());
    }
    SetProblem(error.what());
    if (error.code() == search::ErrorCode::kOlderFormat) {
      return Opened::kOlder;
    }
    if (error.code() == search::ErrorCode::kCorrupt) {
      Touch(DamageMarkerOf(path()));
      return Opened::kDamaged;
    }
    SetState(error.code() == search::ErrorCode::kNewerFormat ? State::kNewer : State::kAbsent);
    return Opened::kNot;
  }
}

HostedIndex::Opened HostedIndex::UpgradeAndOpen() {
  SetState(State::kUpgrading);
  try {
    search::Index::Upgrade(path());
    Record(LOG_NOTICE, "index_upgraded").Add("path", path());
    SetProblem("");
  } catch (const search::Error& error) {
    Record(LOG_ERR, "upgrade_failed").Add("path", path()).Add("reason", error.what());
    SetProblem(error.what());
    if (error.code() == search::ErrorCode::kCorrupt) {
      Touch(DamageMarkerOf(path()));
      return Opened::kDamaged;  // a repair makes a database of this version
    }
    Rest();
    SetState(State::kAbsent);
    return Opened::kNot;
  }
  return TryOpen();
}

bool HostedIndex::TryRepair() {
  Record(LOG_WARNING, "repair_started").Add("path", path());
  try {
    bool lost = false;
    const std::int64_t documents = search::Index::Repair(path(), &lost, options_);
    Record(LOG_WARNING, "repair_ended")
        .Add("path", path())
        .Add("documents", documents)
        .Add("lost", lost ? "yes" : "no");
    SetProblem(lost ? "repaired, but not all documents could be read: rebuild the share" : "");
    unlink(DamageMarkerOf(path()).c_str());
    Close(State::kOpening, false);
    return true;
  } catch (const search::Error& error) {
    Record(LOG_ERR, "repair_failed").Add("path", path()).Add("reason", error.what());
    SetProblem(error.what());
    Rest();
    Close(error.code() == search::ErrorCode::kCorrupt ? State::kDamaged : State::kAbsent, false);
    return false;
  }
}

void HostedIndex::NoteLostChanges() {
  const std::lock_guard lock(mutex_);
  changed_ = false;
  changes_lost_ = changes_lost_ || access(MarkerOf(path_).c_str(), F_OK) == 0;
}

bool HostedIndex::TakeLostChanges() {
  const std::lock_guard lock(mutex_);
  if (!std::exchange(changes_lost_, false)) {
    return false;
  }
  if (!changed_) {
    unlink(MarkerOf(path_).c_str());
  }
  return true;
}

void HostedIndex::NoteCommitted() {
  const std::lock_guard lock(mutex_);
  if (std::exchange(changed_, false) && !changes_lost_) {
    unlink(MarkerOf(path_).c_str());
  }
}

std::vector<std::string> HostedIndex::FilesToMove() {
  std::vector<std::string> names = search::Index::FileNames();
  names.insert(names.end(), {kUncommittedName, kDamagedName});
  return names;
}

void HostedIndex::RemoveFiles(const std::string& path) {
  unlink(MarkerOf(path).c_str());
  unlink(DamageMarkerOf(path).c_str());
  search::Index::Remove(path);
}

void HostedIndex::SetProblem(const std::string& problem) {
  const std::lock_guard lock(mutex_);
  problem_ = problem;
}

void HostedIndex::Rest() {
  constexpr std::chrono::minutes kRest{1};
  const std::lock_guard lock(mutex_);
  rest_until_ = std::chrono::steady_clock::now() + kRest;
}

bool HostedIndex::MayTryAgain(std::chrono::steady_clock::time_point now) const {
  const std::lock_guard lock(mutex_);
  return now >= rest_until_;
}

void HostedIndex::Close(State next, bool commit) {
  std::unique_lock lock(mutex_);
  const State before = std::exchange(state_, next);
  unused_.wait(lock, [this] { return users_ == 0; });
  if (index_ == nullptr) {
    return;
  }
  // Nobody can come in any more, so the lock need not be held while the disk works; stat and list ask for it.
  search::Index* const index = index_.get();
  lock.unlock();
  if (commit && index->HasUncommitted()) {
    try {
      index->Commit();
    } catch (const search::Error&) {
      SetState(before);
      throw;
    }
    NoteCommitted();
  }
  index->Close();
  lock.lock();
  index_.reset();
}

void HostedIndex::SetPath(const std::string& path) {
  const std::lock_guard lock(mutex_);
  path_ = path;
}

void HostedIndex::SetState(State state) {
  const std::lock_guard lock(mutex_);
  state_ = state;
}

void HostedIndex::SetEventHandler(std::unique_ptr<EventHandler> handler) {
  const std::lock_guard lock(mutex_);
  event_handler_ = std::move(handler);
}

std::int64_t HostedIndex::BytesOnDisk() const {
  const std::filesystem::path folder = path();
  std::int64_t bytes = 0;
  for (const std::string& name : search::Index::FileNames()) {
    struct stat info {};
    if (stat((folder / name).c_str(), &info) == 0) {
      bytes += info.st_size;
    }
  }
  return bytes;
}

}  // namespace nimoelasticd
