// Each change is written down before its files are touched, and again when it is done.
#include "services/search/catalog.h"

#include <filesystem>
#include <system_error>

#include "services/base/log.h"
#include "services/search/mover.h"
#include "services/search/refusal.h"

namespace nimoelasticd {

using service::Record;

namespace {

std::string CleanPath(const std::string& path) {
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string::npos) {
    throw Refusal(Code::kBadMember, "member \"path\": an absolute path is wanted");
  }
  std::string clean = std::filesystem::path(path).lexically_normal();
  while (clean.size() > 1 && clean.back() == '/') {
    clean.pop_back();
  }
  if (clean == "/") {
    throw Refusal(Code::kBadMember, "member \"path\": an index needs a folder of its own");
  }
  return clean;
}

}  // namespace

class Catalog::Reservation {
 public:
  Reservation(Catalog& catalog, std::string id, std::string path)
      : catalog_(catalog), id_(std::move(id)), path_(std::move(path)) {
    const std::lock_guard lock(catalog_.mutex_);
    if (!id_.empty() && (catalog_.hosts_.count(id_) != 0 || catalog_.reserved_ids_.count(id_) != 0)) {
      throw Refusal(Code::kIndexExists, "the index exists: " + id_);
    }
    const std::optional<std::string> owner = catalog_.registry_.OwnerOf(path_);
    if (!path_.empty() && (owner || catalog_.reserved_paths_.count(path_) != 0)) {
      throw Refusal(Code::kPathInUse, "the path is used by another index: " + owner.value_or(path_));
    }
    catalog_.reserved_ids_.insert(id_);
    catalog_.reserved_paths_.insert(path_);
  }
  ~Reservation() {
    const std::lock_guard lock(catalog_.mutex_);
    catalog_.reserved_ids_.erase(id_);
    catalog_.reserved_paths_.erase(path_);
  }
  Reservation(const Reservation&) = delete;
  Reservation& operator=(const Reservation&) = delete;

 private:
  Catalog& catalog_;
  const std::string id_;    // "" for none
  const std::string path_;  // "" for none
};

Catalog::Catalog(const std::string& registry_file, search::OpenOptions options)
    : options_(options), registry_(registry_file) {}

HostPtr Catalog::Find(const std::string& id) const {
  const std::lock_guard lock(mutex_);
  const auto found = hosts_.find(id);
  return found != hosts_.end() ? found->second : nullptr;
}

HostPtr Catalog::Require(const std::string& id) const {
  HostPtr host = Find(id);
  if (host == nullptr) {
    throw Refusal(Code::kUnknownIndex, "no such index: " + id);
  }
  return host;
}

std::vector<std::pair<std::string, HostPtr>> Catalog::All() const {
  const std::lock_guard lock(mutex_);
  return {hosts_.begin(), hosts_.end()};
}

void Catalog::Insert(const Entry& entry, State state) {
  auto host = std::make_shared<HostedIndex>(entry.path, state, options_);
  host->SetEventHandler(EventHandler::Load(entry.id, entry.event_handler));
  const std::lock_guard lock(mutex_);
  hosts_[entry.id] = std::move(host);
}

std::vector<std::string> Catalog::Start() {
  for (const Entry& entry : registry_.Entries()) {
    try {
      FinishInterrupted(entry);
    } catch (const std::exception& error) {
      Record(LOG_ERR, "not_settled").Add("index", entry.id).Add("reason", error.what());
    }
  }
  std::vector<std::string> to_open;
  for (const Entry& entry : registry_.Entries()) {
    Insert(entry, entry.paused ? State::kPaused : State::kOpening);
    if (!entry.paused) {
      to_open.push_back(entry.id);
    }
  }
  return to_open;
}

void Catalog::FinishInterrupted(const Entry& entry) {
  if (entry.phase == Phase::kReady) {
    return;
  }
  Record(LOG_WARNING, "interrupted_change").Add("index", entry.id).Add("path", entry.path);
  if (entry.phase == Phase::kMoving) {
    SettleMove(entry);
  } else {
    HostedIndex::RemoveFiles(entry.path);
    registry_.Remove(entry.id);
  }
}

void Catalog::SettleMove(const Entry& entry) {
  const std::vector<std::string> names = search::Index::FileNames();
  const bool at_old = HasIndexFiles(entry.path, names);
  const bool at_new = HasIndexFiles(entry.new_path, names);
  if (!at_old && !at_new) {
    return;  // a volume is missing; when it is there again, we know
  }
  Entry settled = entry;
  settled.phase = Phase::kReady;
  settled.new_id.clear();
  settled.new_path.clear();
  DropPartialCopy(entry.new_path);
  if (at_new) {
    // Complete, or it would not have that name; what is left at the old place may be not.
    HostedIndex::RemoveFiles(entry.path);
    settled.id = entry.new_id;
    settled.path = entry.new_path;
  }
  registry_.Replace(entry.id, settled);
}

void Catalog::Create(const std::string& id, const std::string& path, const Json::Value& mappings,
                     const Json::Value& settings, const Json::Value& event_handler) {
  Entry entry;
  entry.id = id;
  entry.path = CleanPath(path);
  entry.event_handler = event_handler;
  entry.phase = Phase::kCreating;
  const Reservation reservation(*this, id, entry.path);
  registry_.Put(entry);
  try {
    if (HasIndexFiles(entry.path, search::Index::FileNames())) {
      Record(LOG_WARNING, "unknown_files_replaced").Add("index", id).Add("path", entry.path);
      HostedIndex::RemoveFiles(entry.path);
    }
    auto host = std::make_shared<HostedIndex>(entry.path, State::kOpening, options_);
    host->Create(mappings, settings);
    entry.phase = Phase::kReady;
    registry_.Put(entry);
    host->SetEventHandler(EventHandler::Load(id, event_handler));
    const std::lock_guard lock(mutex_);
    hosts_[id] = std::move(host);
  } catch (const std::exception&) {
    Abandon(entry);
    throw;
  }
  Record(LOG_NOTICE, "index_created").Add("index", id).Add("path", entry.path);
}

// What remains if this fails is found by the next Start.
void Catalog::Abandon(const Entry& entry) {
  try {
    HostedIndex::RemoveFiles(entry.path);
    registry_.Remove(entry.id);
  } catch (const std::exception& error) {
    Record(LOG_ERR, "not_settled").Add("index", entry.id).Add("reason", error.what());
  }
}

void Catalog::Delete(const std::string& id) {
  const HostPtr host = Require(id);
  const std::lock_guard admin(host->AdminLock());
  std::optional<Entry> entry = registry_.Find(id);
  if (!entry) {
    throw Refusal(Code::kUnknownIndex, "no such index: " + id);
  }
  entry->phase = Phase::kDeleting;
  registry_.Put(*entry);
  host->Close(State::kGone, false);
  HostedIndex::RemoveFiles(entry->path);
  registry_.Remove(id);
  {
    const std::lock_guard lock(mutex_);
    hosts_.erase(id);
  }
  Record(LOG_NOTICE, "index_deleted").Add("index", id).Add("path", entry->path);
}

void Catalog::Pause(const std::string& id) {
  const HostPtr host = Require(id);
  const std::lock_guard admin(host->AdminLock());
  Entry entry = registry_.Find(id).value_or(Entry{});
  if (entry.id != id || host->state() == State::kPaused) {
    return;
  }
  entry.paused = true;
  registry_.Put(entry);
  try {
    host->Close(State::kPaused, true);
  } catch (const search::Error&) {
    entry.paused = false;
    registry_.Put(entry);
    throw;
  }
  Record(LOG_NOTICE, "index_paused").Add("index", id);
}

void Catalog::Resume(const std::string& id) {
  const HostPtr host = Require(id);
  const std::lock_guard admin(host->AdminLock());
  Entry entry = registry_.Find(id).value_or(Entry{});
  if (entry.id != id || host->state() != State::kPaused) {
    return;
  }
  host->Open();
  if (host->state() == State::kAbsent) {
    host->SetState(State::kPaused);
    throw Refusal(Code::kNoDatabase, "the index cannot be opened: " + host->problem());
  }
  entry.paused = false;
  registry_.Put(entry);
  Record(LOG_NOTICE, "index_resumed").Add("index", id);
}

void Catalog::Configure(const std::string& id, const std::string& new_id, const std::string& new_path) {
  const HostPtr host = Require(id);
  const std::lock_guard admin(host->AdminLock());
  const std::optional<Entry> entry = registry_.Find(id);
  if (!entry) {
    throw Refusal(Code::kUnknownIndex, "no such index: " + id);
  }
  Entry wanted = *entry;
  wanted.phase = Phase::kReady;
  wanted.id = new_id.empty() ? id : new_id;
  wanted.path = new_path.empty() ? entry->path : CleanPath(new_path);
  const bool moves = wanted.path != entry->path;
  const Reservation reservation(*this, wanted.id != id ? wanted.id : "", moves ? wanted.path : "");
  if (moves) {
    Move(id, *host, *entry, wanted);
  } else if (wanted.id != id) {
    registry_.Replace(id, wanted);
  }
  Rename(id, wanted.id);
  if (moves && !wanted.paused) {
    host->Open();
  }
  Record(LOG_NOTICE, "index_configured").Add("index", id).Add("new_id", wanted.id).Add("path", wanted.path);
}

void Catalog::Move(const std::string& id, HostedIndex& host, const Entry& entry, const Entry& wanted) {
  host.Close(State::kMoving, true);
  try {
    MoveFiles(entry, wanted);
  } catch (const std::exception& error) {
    Record(LOG_ERR, "move_failed").Add("index", id).Add("path", wanted.path).Add("reason", error.what());
    if (entry.paused) {
      host.SetState(State::kPaused);
    } else {
      host.Open();
    }
    throw;
  }
  host.SetPath(wanted.path);
  if (entry.paused) {
    host.SetState(State::kPaused);
  }
}

void Catalog::MoveFiles(const Entry& entry, const Entry& wanted) {
  const std::vector<std::string> names = search::Index::FileNames();
  const bool at_old = HasIndexFiles(entry.path, names);
  const bool at_new = HasIndexFiles(wanted.path, names);
  if (at_old == at_new) {
    throw Refusal(at_old ? Code::kPathInUse : Code::kNoDatabase,
                  at_old ? "the new path has files of an index" : "the index has no files");
  }
  Entry moving = entry;
  moving.phase = Phase::kMoving;
  moving.new_id = wanted.id;
  moving.new_path = wanted.path;
  registry_.Replace(entry.id, moving);
  if (at_old) {  // else whoever moved the share has moved them along
    try {
      PlaceIndex(entry.path, wanted.path, HostedIndex::FilesToMove());
    } catch (const std::system_error& error) {
      registry_.Replace(entry.id, entry);
      throw Refusal(Code::kMoveFailed, std::string("the index cannot be moved: ") + error.what());
    }
    HostedIndex::RemoveFiles(entry.path);
  }
  registry_.Replace(entry.id, wanted);
}

void Catalog::Rename(const std::string& id, const std::string& new_id) {
  const std::lock_guard lock(mutex_);
  auto node = hosts_.extract(id);
  node.key() = new_id;
  hosts_.insert(std::move(node));
}

void Catalog::Open(const std::string& id) {
  const HostPtr host = Find(id);
  if (host == nullptr) {
    return;
  }
  const std::lock_guard admin(host->AdminLock());
  const State state = host->state();
  if (state != State::kOpening && (state != State::kAbsent || !host->MayTryAgain())) {
    return;
  }
  if (const std::optional<Entry> entry = registry_.Find(id); entry && entry->phase == Phase::kMoving) {
    SettleMove(*entry);
    if (const std::optional<Entry> moved = registry_.Find(entry->new_id); moved && moved->path == entry->new_path) {
      host->SetPath(moved->path);
      Rename(id, moved->id);
    }
  }
  host->Open();
}

void Catalog::OnDamage(std::function<void(const std::string& id)> repair) {
  on_damage_ = std::move(repair);
}

void Catalog::ReportDamage(const std::string& id) {
  const HostPtr host = Find(id);
  if (host != nullptr && host->MarkDamaged()) {
    Record(LOG_ERR, "index_damaged").Add("index", id).Add("path", host->path());
    if (on_damage_) {
      on_damage_(id);
    }
  }
}

void Catalog::Repair(const std::string& id) {
  const HostPtr host = Find(id);
  if (host == nullptr) {
    return;
  }
  const std::lock_guard admin(host->AdminLock());
  if (host->state() == State::kRepairing) {
    host->Repair();
  }
}

void Catalog::CloseAll() {
  for (const auto& [id, host] : All()) {
    const std::lock_guard admin(host->AdminLock());
    host->Close(State::kGone, false);
  }
}

}  // namespace nimoelasticd
