// Makes the index equal to the disk: at one path, or at a path and all below it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "services/indexer/crew.h"
#include "services/indexer/document_index.h"
#include "services/indexer/policy.h"
#include "services/indexer/progress.h"

namespace fileindexd {

/// The work has to end now: the daemon stops, or indexing is paused.
struct Interrupted {};

/// The share cannot be reached: nothing may be concluded from what is not on disk.
struct Offline {};

/// The extractor does not answer at all.
struct NoExtractor {};

/// What one pass does to the index of one share. The index has a document for each file and each folder that a folder
/// of the configuration governs and that may be indexed; documents of anything else are removed. Paused folders are
/// left alone.
///
/// Whatever it is told, it believes the disk: a change of a file that is gone removes its document, a delete of a file
/// that is there updates it. So it does not matter in which order it is told, and nothing is wrong in telling it twice.
///
/// Threads: one, which may have others work for it.
class Reconciler {
 public:
  /// What it asks of the box. Tests answer in their own way.
  struct Box {
    /// Whether a path may be indexed: that of an operation, or a folder on a walk.
    std::function<bool(const std::string& path)> may_be_indexed;
    /// Whether a name is never indexed.
    std::function<bool(const std::string& name)> is_preserved;
    /// Whether the extractor answers at all.
    std::function<bool()> extractor_answers;
    /// Whether the work has to end now.
    std::function<bool()> interrupted;
    /// Throws Offline if the share cannot be reached any more: what is not on disk then says nothing.
    std::function<void()> check_online;
  };

  /// Has so many files read at the same time from now on, in threads of its own: the index, the progress and what it
  /// asks of the box are then asked from several, and Finish has to be called at the end.
  void WorkWith(unsigned hands) { crew_ = std::make_unique<Crew>(hands); }
  /// Waits until all is done that was begun. Throws what it failed with.
  void Finish();

  /// All arguments outlive it.
  Reconciler(DocumentIndex& index, const Policy& policy, const Box& box, Progress& progress);

  /// The content of `path` may have changed. It is read even if its document looks current, unless `trust` says so.
  void Update(const std::string& path, bool trust);
  /// The attributes of `path` changed, and nothing else, unless `doubt`: then events were lost, or may have been.
  void UpdateAttributes(const std::string& path, bool doubt);
  /// What comes next is about these paths: the index is asked for all of them at once.
  void Expect(const std::vector<std::string>& paths);
  /// Moves the documents of `from` to `to`, if they do not belong where they are. Tree of both has to follow.
  void Move(const std::string& from, const std::string& to);
  /// Compares all at and below `path` and puts right what differs.
  void Tree(const std::string& path);

  /// Removes the documents of whatever is not at or below `path`, the share's folder: the share had another name, or
  /// lay elsewhere, and nobody said so.
  void RemoveOutside(const std::string& path);

  /// Changes of the index so far.
  std::uint64_t changes() const { return changes_; }

  /// Is called between files, when a commit would make a good part of the work durable.
  std::function<void()> on_milestone = [] {};

  /// Keeps in mind what Update reads, so that Tree does not read it again. Costs memory for each.
  bool remember_reads = false;

  /// Reads what failed and found no room on the list, too: something else reads it now. Else it is left alone while the
  /// list is full.
  bool retry_unlisted = false;

  /// The time by which milestones are apart.
  std::function<std::chrono::steady_clock::time_point()> steady_clock = std::chrono::steady_clock::now;

  /// The time, which says whether a file has just been changed.
  std::function<std::chrono::system_clock::time_point()> clock = std::chrono::system_clock::now;

 private:
  class Known;

  Found FindOnDisk(const std::string& path) const;
  Found FindForWalk(const std::string& path, const std::string& name) const;
  bool IsBehindMount(const std::string& path) const;
  bool IsWanted(const std::string& path, const Found& found) const;
  /// What is believed without reading a file whose document has its size and date.
  enum class Belief {
    kNothing,
    kUnchanged,   ///< its content is the document's, unless something changed that its attributes do not explain
    kAttributes,  ///< its content is the document's
  };
  enum class Settled { kAsItWas, kChanged, kGiven };
  void Update(const std::string& path, Belief belief);
  Settled Settle(const std::string& path, const Found& found, const Entry* known, Belief belief);
  bool IsExplained(const std::string& path, const Found& found, const Stamp& stamp, Belief belief) const;
  Settled Do(const std::string& path, std::function<void()> work);
  void EndFile(const std::string& path, Settled settled);
  void CompareInstead(const std::string& path);
  void FinishNear(const std::string& path);
  void Index(const std::string& path, const Found& found);
  std::optional<std::string> TryUpsert(const std::string& path, bool need_meta);
  void IndexWithoutContent(const std::string& path, const Found& found, const std::string& reason);
  bool HasFailed(const std::string& path, const Stamp& stamp, const Stamp& now) const;
  void NoteFailure(const std::string& path, const std::string& reason);
  void SetAttributes(const std::string& path, const Found& found, bool failed);
  void SetStamp(const std::string& path, const Found& found, bool failed);
  void Remove(const std::string& path);
  bool Remove(const std::string& path, const LookedUp& known);
  bool Keep(const std::string& path, const Found& found);
  std::vector<Entry> FindKnown(const std::string& path, const Found& found);
  void WalkFolder(const std::string& folder, Known& known, std::vector<std::string>& folders);
  void LookAtEntry(const std::string& folder, const std::string& name, Known& known, std::vector<std::string>& folders);
  void RemoveVanished(Known& known);
  void ForgiveVanished(const std::string& tree);
  void CheckInterrupted();
  void CountChange();
  void CheckMilestone();

  DocumentIndex& index_;
  const Policy& policy_;
  const Box& box_;
  Progress& progress_;
  std::unordered_map<std::string, Stamp> read_;  // in this pass: a young stamp need not have them read again
  std::unordered_set<std::string> moved_;        // to here: a rename changes the date of the last change, too
  std::atomic<std::uint64_t> changes_ = 0;
  std::uint64_t milestone_changes_ = 0;
  std::chrono::steady_clock::time_point milestone_time_;
  std::set<std::string> given_;  // the paths that the crew has got since it was waited for
  std::unique_ptr<Crew> crew_;   // the last: it ends before what its work needs
};

}  // namespace fileindexd
