// The comparison.
#include "services/indexer/reconciler.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <optional>

#include "orbisk/error.h"

namespace fileindexd {

using orbisk::Error;

namespace {

constexpr std::uint64_t kMilestoneChanges = 5'000;
constexpr std::chrono::seconds kMilestoneTime{5};
constexpr char kUnreadableFolder[] = "the folder cannot be read";
constexpr char kUnknown[] = "the file system does not say what it is";
constexpr int kNotBuilt = 914;  // by the extractor
constexpr int kNoDocument = 917;
constexpr int kAnswerTooLong = 1207;
constexpr int kNotAccepted = 1210;  // by the search daemon

// What fails the document and not the pass.
bool IsOfTheDocument(const Error& error) {
  return error.code() == kNotBuilt || error.code() == kNotAccepted;
}

// What IndexRename may fail with while the index is as sound as before: both trees are compared afterwards anyway.
bool IsOfTheMove(const Error& error) {
  constexpr int kArgument = 120;
  constexpr int kNoAnswer = 913;
  constexpr int kIncomplete = 916;
  constexpr int kUnknownDocument = 1200;
  switch (error.code()) {
    case kArgument:
    case kNoAnswer:
    case kIncomplete:
    case kNoDocument:
    case kUnknownDocument:
    case kAnswerTooLong:
      return true;
    default:
      return false;
  }
}

struct Listing {
  std::vector<std::string> names;
  bool readable = true;  // false: what is in it cannot be known; a folder that is gone is readable and empty
};

Listing List(const std::string& folder) {
  Listing listing;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(folder.c_str()), closedir);
  if (stream == nullptr) {
    listing.readable = errno == ENOENT || errno == ENOTDIR;
    return listing;
  }
  errno = 0;
  while (const dirent* const entry = readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      listing.names.push_back(name);
    }
    errno = 0;
  }
  listing.readable = errno == 0;
  return listing;
}

}  // namespace

// The documents of a tree, and which of them stand for something on disk.
class Reconciler::Known {
 public:
  explicit Known(std::vector<Entry> entries) : entries_(std::move(entries)), seen_(entries_.size()) {
    const auto by_path = [](const Entry& a, const Entry& b) { return a.path < b.path; };
    std::sort(entries_.begin(), entries_.end(), by_path);
  }

  // The document of `path`, which is on disk.
  const Entry* See(const std::string& path) {
    const auto at = At(path);
    if (at == entries_.end() || at->path != path) {
      return nullptr;
    }
    seen_[static_cast<size_t>(at - entries_.begin())] = true;
    return &*at;
  }

  // Nothing can be said of what is below `folder`.
  void KeepBelow(const std::string& folder) {
    for (auto at = At(folder + "/"); at != entries_.end() && IsAtOrBelow(at->path, folder); ++at) {
      seen_[static_cast<size_t>(at - entries_.begin())] = true;
    }
  }

  size_t size() const { return entries_.size(); }
  const std::string& PathOf(size_t i) const { return entries_[i].path; }
  bool IsSeen(size_t i) const { return seen_[i]; }

  enum class Below { kNothing, kUnseen, kSomeSeen };
  Below LookBelow(const std::string& folder) const {
    Below below = Below::kNothing;
    for (auto at = At(folder + "/"); at != entries_.end() && IsAtOrBelow(at->path, folder); ++at) {
      if (seen_[static_cast<size_t>(at - entries_.begin())]) {
        return Below::kSomeSeen;
      }
      below = Below::kUnseen;
    }
    return below;
  }

 private:
  std::vector<Entry>::const_iterator At(const std::string& path) const {
    return std::lower_bound(entries_.begin(), entries_.end(), path,
                            [](const Entry& entry, const std::string& wanted) { return entry.path < wanted; });
  }

  std::vector<Entry> entries_;
  std::vector<bool> seen_;
};

Reconciler::Reconciler(DocumentIndex& index, const Policy& policy, const Box& box, Progress& progress)
    : index_(index),
      policy_(policy),
      box_(box),
      progress_(progress),
      milestone_time_(std::chrono::steady_clock::now()) {}

void Reconciler::Update(const std::string& path, bool trust) {
  Update(path, trust ? Belief::kUnchanged : Belief::kNothing);
}

void Reconciler::UpdateAttributes(const std::string& path, bool doubt) {
  Update(path, doubt ? Belief::kUnchanged : Belief::kAttributes);
}

void Reconciler::Update(const std::string& path, Belief belief) {
  CheckInterrupted();
  FinishNear(path);
  const bool leads_to_folder = policy_.LeadsToFolder(path);
  if (policy_.IsPaused(path) || (!leads_to_folder && !policy_.Governs(path))) {
    EndFile(path, Settled::kAsItWas);  // a comparison has removed what was there while some folder governed it
    return;
  }
  const Found found = FindOnDisk(path);
  if (Keep(path, found)) {
    EndFile(path, Settled::kAsItWas);
    return;
  }
  const bool is_folder = found.kind == Kind::kFolder;
  if (!is_folder && leads_to_folder) {
    CompareInstead(path);  // the folders below it are not all to be treated alike
    return;
  }
  const LookedUp looked_up = index_.LookUp(path);
  const std::optional<Entry>& known = looked_up.entry;
  const bool is_known = known && known->stamp && known->stamp->identity == found.stamp.identity;
  if (is_folder && !is_known) {
    CompareInstead(path);  // not the folder that the index knows, so nothing is known of what is in it
    return;
  }
  progress_.BeginFile(path);
  if (IsWanted(path, found)) {
    if (!is_folder && looked_up.below) {
      index_.RemoveBelow(path);  // a folder was here, of whose end nobody said more than this
    }
    const Belief believes = is_folder ? Belief::kAttributes : belief;
    EndFile(path, Settle(path, found, known && believes != Belief::kNothing ? &*known : nullptr, believes));
    if (remember_reads) {
      read_[path] = found.stamp;
    }
  } else {
    EndFile(path, Remove(path, looked_up) ? Settled::kChanged : Settled::kAsItWas);
  }
}

// An operation on one path that turns out to be a tree, which counts for itself.
void Reconciler::CompareInstead(const std::string& path) {
  EndFile(path, Settled::kAsItWas);
  Tree(path);
}

void Reconciler::Expect(const std::vector<std::string>& paths) {
  CheckInterrupted();
  Finish();
  index_.Expect(paths);
}

void Reconciler::Move(const std::string& from, const std::string& to) {
  CheckInterrupted();
  Finish();
  if (from == to || policy_.IsPaused(from) || policy_.IsPaused(to)) {
    return;
  }
  moved_.insert(to);
  const LookedUp looked_up = index_.LookUp(from);
  const std::optional<Entry>& source = looked_up.entry;
  const Found there = Look(from, false);
  if (there.unknown) {
    return;
  }
  // In a pass that is done again, another file may have come to where the document was moved away from.
  if (!source || (source->stamp && there.kind != Kind::kNothing && source->stamp->identity == there.stamp.identity)) {
    return;
  }
  try {
    looked_up.below ? index_.Move(from, to) : index_.MoveOne(from, to);
    progress_.failures().Move(from, to);
    CountChange();
  } catch (const Error& error) {
    if (!IsOfTheMove(error)) {
      throw;
    }
  }
}

void Reconciler::Tree(const std::string& path) {
  CheckInterrupted();
  Finish();
  const Found found = FindOnDisk(path);
  Known known(FindKnown(path, found));
  if (Keep(path, found)) {
    return;
  }
  progress_.AddWork(1);
  progress_.BeginFile(path);
  const bool wanted = IsWanted(path, found) && !policy_.IsPaused(path);
  EndFile(path, wanted ? Settle(path, found, known.See(path), Belief::kUnchanged) : Settled::kAsItWas);
  std::vector<std::string> folders;
  if (found.kind == Kind::kFolder) {
    folders.push_back(path);
  }
  while (!folders.empty()) {
    const std::string folder = std::move(folders.back());
    folders.pop_back();
    WalkFolder(folder, known, folders);
  }
  Finish();
  RemoveVanished(known);
  ForgiveVanished(path);
}

// Most trees that are no folder, as the two sides of a file's rename, have nothing below in the index either.
std::vector<Entry> Reconciler::FindKnown(const std::string& path, const Found& found) {
  if (found.kind != Kind::kFolder) {
    const LookedUp looked_up = index_.LookUp(path);
    if (!looked_up.below) {
      return looked_up.entry ? std::vector<Entry>{*looked_up.entry} : std::vector<Entry>{};
    }
  }
  return index_.FindTree(path);
}

void Reconciler::RemoveOutside(const std::string& path) {
  for (std::vector<Entry> some = index_.FindOutside(path); !some.empty(); some = index_.FindOutside(path)) {
    for (const Entry& entry : some) {
      CheckInterrupted();
      index_.RemoveOne(entry.path);
      progress_.failures().Forgive(entry.path);
      CountChange();
    }
  }
}

// Adds the folders in it to `folders`.
void Reconciler::WalkFolder(const std::string& folder, Known& known, std::vector<std::string>& folders) {
  const Listing listing = List(folder);
  if (!listing.readable) {
    progress_.failures().Add(folder, kUnreadableFolder);
    known.KeepBelow(folder);
  } else {
    progress_.failures().ForgiveIf(folder, kUnreadableFolder);
  }
  progress_.AddWork(listing.names.size());
  for (const std::string& name : listing.names) {
    LookAtEntry(folder, name, known, folders);
  }
}

void Reconciler::LookAtEntry(const std::string& folder, const std::string& name, Known& known,
                             std::vector<std::string>& folders) {
  CheckInterrupted();
  const std::string path = (folder == "/" ? "" : folder) + "/" + name;
  Settled settled = Settled::kAsItWas;
  progress_.BeginFile(path);
  const bool leads_to_folder = policy_.LeadsToFolder(path);
  const bool wanted = policy_.Governs(path) && !policy_.IsPaused(path);
  if (wanted || leads_to_folder) {
    const Found found = FindForWalk(path, name);
    if (Keep(path, found)) {
      known.See(path);
      known.KeepBelow(path);
    } else if (wanted && found.kind != Kind::kNothing) {
      settled = Settle(path, found, known.See(path), Belief::kUnchanged);
    }
    if (found.kind == Kind::kFolder) {
      folders.push_back(path);
    }
  }
  EndFile(path, settled);
}

void Reconciler::RemoveVanished(Known& known) {
  box_.check_online();
  for (size_t i = 0; i < known.size(); ++i) {
    if (policy_.IsPaused(known.PathOf(i))) {
      known.See(known.PathOf(i));
    }
  }
  for (size_t i = 0; i < known.size(); ++i) {
    if (known.IsSeen(i)) {
      continue;
    }
    CheckInterrupted();
    const std::string& path = known.PathOf(i);
    // On the way to another indexed folder there may be documents that this walk has made.
    if (!policy_.LeadsToFolder(path) && known.LookBelow(path) == Known::Below::kUnseen) {
      index_.RemoveBelow(path);
      known.KeepBelow(path);  // nothing is left to be removed
    }
    index_.RemoveOne(path);
    progress_.failures().Forgive(path);
    CountChange();
  }
}

// Files that are not in the index at all can be on the list of failures, so no document says where they were.
void Reconciler::ForgiveVanished(const std::string& tree) {
  for (const std::string& path : progress_.failures().PathsIn(tree)) {
    if (policy_.IsPaused(path)) {
      continue;
    }
    const Found found = Look(path, false);
    if (!found.unknown && !IsWanted(path, found)) {
      progress_.failures().Forgive(path);
    }
  }
}

// What there is at the path of an operation, which can be any.
Found Reconciler::FindOnDisk(const std::string& path) const {
  Found found = Look(path, policy_.NeedsMeta(path), clock());
  if (found.kind != Kind::kNothing && (!box_.may_be_indexed(path) || IsBehindMount(path))) {
    found.kind = Kind::kNothing;
  }
  return found;
}

// The rules forbid a mount point and say nothing of what is below it, where a walk never comes.
bool Reconciler::IsBehindMount(const std::string& path) const {
  std::string above = path;
  while (true) {
    above.resize(above.rfind('/'));
    if (above.empty() || !policy_.Governs(above)) {
      return false;
    }
    if (Look(above, false).mounted && !box_.may_be_indexed(above)) {
      return true;
    }
  }
}

// What there is in a folder that may be indexed: much cheaper to find out for a file.
Found Reconciler::FindForWalk(const std::string& path, const std::string& name) const {
  Found found = Look(path, policy_.NeedsMeta(path), clock());
  const bool odd = found.mounted || found.kind == Kind::kFolder || name.find('#') != std::string::npos;
  if (box_.is_preserved(name) || (odd && found.kind != Kind::kNothing && !box_.may_be_indexed(path))) {
    found.kind = Kind::kNothing;
  }
  return found;
}

bool Reconciler::IsWanted(const std::string& path, const Found& found) const {
  return found.kind != Kind::kNothing && policy_.Governs(path);
}

// `known` is the document as it is, if it was asked for.
Reconciler::Settled Reconciler::Settle(const std::string& path, const Found& found, const Entry* known, Belief belief) {
  const auto earlier = read_.find(path);
  if (earlier != read_.end() && earlier->second == found.stamp && known != nullptr) {
    return Settled::kAsItWas;
  }
  if (belief != Belief::kNothing && known != nullptr && known->stamp) {
    const bool failed = HasFailed(path, *known->stamp, found.stamp);
    const Stamp stamp = failed ? known->stamp->Failed() : *known->stamp;
    if (stamp.Same(found.stamp)) {
      return Settled::kAsItWas;
    }
    if (stamp.SameContent(found.stamp) && IsExplained(path, found, stamp, belief)) {
      return Do(path, [this, path, found, failed] { SetAttributes(path, found, failed); });
    }
  }
  return Do(path, [this, path, found] { Index(path, found); });
}

// Changes what the index has of `path`: now, or while others are looked at.
Reconciler::Settled Reconciler::Do(const std::string& path, std::function<void()> work) {
  if (crew_ == nullptr) {
    work();
    return Settled::kChanged;
  }
  given_.insert(path);
  crew_->Give([this, path, work = std::move(work)] {
    work();
    progress_.EndFile(path, true);
  });
  return Settled::kGiven;
}

void Reconciler::EndFile(const std::string& path, Settled settled) {
  if (settled != Settled::kGiven) {
    progress_.EndFile(path, settled == Settled::kChanged);
  }
}

void Reconciler::Finish() {
  given_.clear();
  if (crew_ != nullptr) {
    crew_->Wait();
  }
}

// What the index says of a path is only known when nothing is in work at it, below it or above it.
void Reconciler::FinishNear(const std::string& path) {
  const auto below = given_.lower_bound(path + "/");
  bool near = below != given_.end() && IsAtOrBelow(*below, path);
  for (std::string at = path; !at.empty() && !near; at.resize(at.rfind('/') == std::string::npos ? 0 : at.rfind('/'))) {
    near = given_.count(at) != 0;
  }
  if (near) {
    Finish();
  }
}

// Whether attributes that differ say why the file was changed though its size and its date are those of before. Else
// its date may have been set back after its content was replaced.
bool Reconciler::IsExplained(const std::string& path, const Found& found, const Stamp& stamp, Belief belief) const {
  return belief == Belief::kAttributes || found.kind == Kind::kFolder || !stamp.SamePermissions(found.stamp) ||
         moved_.count(path) != 0;
}

// Whether the content of what is there now could not be read, and people can see why. Else it is worth another try; but
// of more failures than the list has room for, each would be read at every comparison, and drive another one out.
bool Reconciler::HasFailed(const std::string& path, const Stamp& stamp, const Stamp& now) const {
  const Failures& failures = progress_.failures();
  return stamp.Failed().SameContent(now) && (failures.Has(path) || (failures.IsFull() && !retry_unlisted));
}

void Reconciler::Index(const std::string& path, const Found& found) {
  const bool need_meta = found.kind == Kind::kFile && policy_.NeedsMeta(path);
  const std::optional<std::string> reason = TryUpsert(path, need_meta);
  if (reason) {
    IndexWithoutContent(path, found, *reason);
    return;
  }
  progress_.failures().Forgive(path);
  SetStamp(path, found, false);
}

// Why there can be no such document, "" where only the extractor can tell; nothing if there is one now. It is asked for
// twice, because the extractor may have ended in the middle of the first time, and what it dies of it says at once the
// second time.
std::optional<std::string> Reconciler::TryUpsert(const std::string& path, bool need_meta) {
  for (int attempt = 1;; ++attempt) {
    try {
      index_.Upsert(path, need_meta);
      return std::nullopt;
    } catch (const Error& error) {
      if (!IsOfTheDocument(error)) {
        throw;
      }
      if (error.code() != kNotBuilt || attempt == 2) {
        return error.code() == kNotBuilt ? "" : error.reason();
      }
    }
    if (!box_.extractor_answers()) {
      throw NoExtractor();
    }
  }
}

void Reconciler::IndexWithoutContent(const std::string& path, const Found& found, const std::string& reason) {
  const Found now = Look(path, false);
  if (Keep(path, now)) {
    return;
  }
  if (now.kind == Kind::kNothing) {
    Remove(path);  // it went while it was read
    return;
  }
  const std::optional<std::string> refusal = TryUpsert(path, false);
  if (!refusal) {
    NoteFailure(path, reason);
    SetStamp(path, found, true);
    return;
  }
  const Found still = Look(path, false);
  if (still.kind == Kind::kNothing && !still.unknown) {
    Remove(path);
    return;
  }
  // A folder stays one: what is in it has documents of its own.
  NoteFailure(path, *refusal);
  index_.RemoveOne(path);
  CountChange();
}

void Reconciler::NoteFailure(const std::string& path, const std::string& reason) {
  reason.empty() ? progress_.failures().AddUnexplained(path) : progress_.failures().Add(path, reason);
}

void Reconciler::SetAttributes(const std::string& path, const Found& found, bool failed) {
  try {
    index_.SetAttributes(path);
  } catch (const Error& error) {
    if (!IsOfTheDocument(error) && error.code() != kNoDocument) {
      throw;
    }
    Index(path, found);
    return;
  }
  SetStamp(path, found, failed);
}

// Comes after the content, so that a document never says that it is newer than it is.
void Reconciler::SetStamp(const std::string& path, const Found& found, bool failed) {
  index_.SetStamp(path, ToText(failed ? found.stamp.Failed() : found.stamp, found.young));
  CountChange();
}

// Whether what the index has of `path` is to stay because nobody knows what lies there.
bool Reconciler::Keep(const std::string& path, const Found& found) {
  if (found.unknown) {
    progress_.failures().Add(path, kUnknown);
  } else {
    progress_.failures().ForgiveIf(path, kUnknown);
  }
  return found.unknown;
}

void Reconciler::Remove(const std::string& path) {
  Remove(path, index_.LookUp(path));
}

// Whether there was something to be removed.
bool Reconciler::Remove(const std::string& path, const LookedUp& known) {
  box_.check_online();
  if (known.below) {
    index_.RemoveBelow(path);
  }
  if (known.entry) {
    index_.RemoveOne(path);
  }
  progress_.failures().ForgiveTree(path);
  if (!known.below && !known.entry) {
    return false;
  }
  CountChange();
  return true;
}

// Comes before each step.
void Reconciler::CheckInterrupted() {
  if (box_.interrupted()) {
    throw Interrupted();
  }
  if (crew_ != nullptr) {
    CheckMilestone();
  }
}

void Reconciler::CountChange() {
  ++changes_;
  if (crew_ == nullptr) {
    CheckMilestone();
  }
}

// Without changes there is nothing to be made durable: a share that went meanwhile is found out before anything is
// removed. The time counts from the end, as what is in work may take longer than milestones are apart.
void Reconciler::CheckMilestone() {
  if (changes_ == milestone_changes_) {
    return;
  }
  if (changes_ - milestone_changes_ >= kMilestoneChanges || steady_clock() - milestone_time_ >= kMilestoneTime) {
    Finish();
    on_milestone();
    milestone_changes_ = changes_;
    milestone_time_ = steady_clock();
  }
}

}  // namespace fileindexd
