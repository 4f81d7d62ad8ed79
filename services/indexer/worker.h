// Keeps the index of one share current, in a thread of its own.
#pragma once

#include <json/json.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "services/indexer/broken_contents.h"
#include "services/indexer/mark.h"
#include "services/indexer/pass.h"
#include "services/indexer/policy.h"
#include "services/indexer/progress.h"
#include "services/indexer/reconciler.h"
#include "services/indexer/recovery_pace.h"
#include "services/indexer/roots.h"
#include "services/indexer/settle.h"
#include "services/indexer/share_index.h"

namespace fileindexd {

/// A flag of a share's status: all of it is to be compared.
constexpr int kNeedsReindex = 1;

/// What all workers go by.
struct WorkerSettings {
  std::string folders_file = "/var/packages/Orbisk/etc/fileindex.folders";
  std::string status_file = "/var/packages/Orbisk/etc/fileindex.status";
  std::string registrations = "/var/lib/nimotifyd/queues.d";
  std::chrono::milliseconds settle{200};
  std::chrono::milliseconds settle_limit{2'000};
  std::chrono::milliseconds retry_limit{60'000};   ///< between two tries of what fails, at most
  std::chrono::milliseconds missing_index{5'000};  ///< how long whoever removed an index may take to say why
  /// Between two comparisons of a whole share whose events get lost again and again, at least and at most.
  std::chrono::milliseconds recovery_pause{1'000};
  std::chrono::milliseconds recovery_limit{600'000};
  int nice = 10;
  unsigned hands = 1;  ///< files that one share has read at once, at most
};

/// One share, as the box knows it.
struct ShareInfo {
  std::string name;
  std::string folder;  ///< full path
  std::string queue;   ///< its queue file
  std::string index;   ///< the folder of its index
  bool operator==(const ShareInfo&) const = default;

  /// Asks the box. Throws orbisk::Error.
  static ShareInfo Of(const std::string& name);
};

/// Waits for the share's queue file, and applies what comes: one pass after another. A pass that fails is tried again
/// after a while, from the side file.
///
/// Threads: that of its owner, but for Report.
class Worker {
 public:
  /// Starts working, beginning with what is in the queue already and what the share's mark leaves to be compared.
  /// `settings`, `extractions`, `roots` outlive it. `on_end` is called in the worker's thread, as the last thing.
  /// Throws std::system_error if there can be no thread.
  Worker(ShareInfo share, const WorkerSettings& settings, Extractions& extractions, Roots& roots, bool paused,
         std::function<void()> on_end);
  /// Stops it and waits for the end.
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  const ShareInfo& share() const { return share_; }

  /// The queue file was written to.
  void NoteQueue();
  /// What it works by may have changed, or what it failed for: it looks again at once.
  void NoteConfiguration();
  /// The share's flags changed. While it waits to try again what failed, that can wait as well: a commit that fails for
  /// want of room sets a flag each time.
  void NoteFlag();
  /// File systems came, went, or changed: a share that could not be reached, or was locked or read-only, is looked at.
  void NoteMounts();
  /// The extractor was started: another one may read what failed.
  void NoteExtractor();
  /// Changes may not have been recorded, or the index was made anew: the whole share has to be compared, by a later
  /// daemon if this one ends. A pass in work is broken off.
  void CompareAll();
  /// While paused it leaves the queue alone; a pass in work is broken off, and done again afterwards.
  void SetPaused(bool paused);
  /// Asks it to end soon.
  void Stop();
  /// What Progress says, "share", and "backlog", how many bytes of events wait or are in work. Any thread.
  Json::Value Report(size_t most_failures = Progress::kUsualFailures) const;

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  bool WaitForWork();
  void TryPass();
  bool DoPass();
  void NoteOffline();
  void Apply(bool has_batch, bool again, const std::string& index);
  void ReadPolicy();
  bool PolicyIsCurrent();
  void WatchWhatMoved();
  void AddChanges(const Policy& before);
  void KeepChanges();
  void FindWork(const std::string& index);
  void PlanRecovery(Pass& pass);
  void EndRecovery(Clock::time_point begun);
  std::vector<std::string> Unfinished() const;
  void TakeFlag();
  void ForgetMark();
  void SyncDroppedMark();
  bool StoreMark(Mark mark);
  void LoadFailures();
  void KeepFailures();
  void MeetExtractor();
  void FindFailuresToRetry();
  void EndRetry(bool changed, const std::string& tried_by);
  bool Probe();
  void CheckRoot() const;
  void CheckOnline() const;
  bool IsStillFull();
  void OnError(int code, const std::string& reason);
  void OnMissingIndex(const std::string& problem);
  void OnNoRoom(const std::string& problem);
  bool RebuildIndex(bool delete_first);
  void RetryLater(Progress::State state, const std::string& problem,
                  std::chrono::milliseconds limit = std::chrono::milliseconds::max());
  Reconciler::Box AskedOfTheBox();

  const ShareInfo share_;
  const WorkerSettings& settings_;
  const std::function<void()> on_end_;

  mutable std::mutex mutex_;  // guards the block below
  std::condition_variable wake_;
  Settle settle_;
  std::optional<Clock::time_point> retry_at_;
  std::optional<Clock::time_point> recovery_at_;  // one that was put off
  bool look_again_ = true;                        // the start, or NoteConfiguration
  bool flagged_ = false;                          // NoteFlag
  bool offline_ = false;                          // the last pass found the share away, locked or read-only
  bool mounts_changed_ = false;                   // NoteMounts since that pass began
  bool extractor_came_ = false;                   // NoteExtractor since then
  bool paused_;
  bool stop_ = false;
  bool compare_ = false;  // CompareAll was called: no mark is stored until the comparison begins

  std::atomic<bool> interrupt_{false};      // stopped, paused, or the pass is of no use
  std::atomic<bool> configuration_{false};  // may have changed since the pass began

  // The worker's thread alone.
  ShareIndex index_;
  Roots& roots_;
  Policy policy_;
  Root root_;                                 // what the pass found
  std::vector<std::string> changed_folders_;  // of the configuration, not compared yet
  RecoveryPace pace_;
  std::optional<Mark> mark_;  // as it is stored
  std::optional<Clock::time_point> missing_since_;
  std::string told_problem_;                // in the log as a warning
  std::optional<std::uint64_t> full_with_;  // bytes that were free when there was no room
  int tries_left_out_ = 0;
  std::chrono::milliseconds back_off_{0};
  BrokenContents broken_contents_;
  std::string reader_;              // the extractor's way of reading; "" while nobody knows
  std::vector<std::string> retry_;  // failures of another one
  bool has_policy_ = false;
  bool folders_moved_ = false;     // perhaps to where the monitor does not look
  bool tries_again_ = false;       // what failed, and nothing else asks for the pass
  bool recovery_pending_ = false;  // events were lost: the share has to be compared, sooner or later
  bool recovering_ = false;        // in this pass
  bool whole_share_ = false;       // has to be compared
  bool has_mark_ = false;          // has been looked for
  bool probed_ = false;            // the index has answered
  bool had_index_ = false;         // since the share is there
  bool schema_known_ = false;      // it is the present one, or was made anew
  bool told_no_space_ = false;
  bool failures_loaded_ = false;
  bool met_extractor_ = false;      // or it was not there to be met
  bool another_extractor_ = false;  // NoteExtractor before this pass
  bool retry_unlisted_ = false;     // failures of another one, too many for the list

  Progress progress_;
  std::thread thread_;
};

}  // namespace fileindexd
