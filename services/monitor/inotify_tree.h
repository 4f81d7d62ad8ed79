// The folders watched with inotify: one watch each.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "services/base/unique_fd.h"
#include "services/monitor/recorder.h"
#include "services/monitor/said_once.h"
#include "services/monitor/watch_budget.h"
#include "services/monitor/watcher.h"

namespace nimotifyd {

/// One folder.
struct InotifyFolder {
  uint64_t id = 0;  ///< never given twice
  InotifyFolder* parent = nullptr;
  std::string name;  ///< of a watch point: its path
  uint64_t mount = 0;
  int watch = -1;
  bool polled = false;  ///< got no watch: looked through now and then, with everything below it
  uint64_t digest = 0;  ///< of what is below a polled folder
  std::map<std::string, std::unique_ptr<InotifyFolder>, std::less<>> children;
  uint64_t views_epoch = 0;
  FolderViews views;
};

/// The tree of watched folders. A watch is set before its folder is listed, so a subfolder is either listed or
/// reported. Folders beyond the limit of watches get none and are polled.
///
/// Threads: one.
class InotifyTree {
 public:
  /// `fd`: the inotify descriptor, not owned.
  InotifyTree(int fd, const WatchBudget& budget, const Recorder& recorder);

  void SetRecorder(const Recorder& recorder);

  /// Watches a watch point and everything below it in the same file system, or polls it if there are no watches left.
  /// Null if it cannot be opened or watched at all, with errno; nothing is added then.
  InotifyFolder* AddRoot(const WatchPoint& point);
  /// The same for a root that is known, all over again. One that cannot be opened or watched now is polled, because
  /// whoever registered it believes it watched.
  void RenewRoot(const WatchPoint& point);
  void RemoveRoot(const std::string& path);
  std::vector<WatchPoint> roots() const;

  /// Watches the folder `name` below `parent`, with everything below it. What was known there is forgotten first.
  /// Null if nobody wants its changes, or it is gone.
  InotifyFolder* Add(InotifyFolder& parent, std::string_view name);
  void Remove(InotifyFolder& parent, std::string_view name);
  /// Moves a known folder; false if it is not known, or if what is skipped below it differs at its new place.
  bool Move(InotifyFolder& from, std::string_view old_name, InotifyFolder& to, std::string_view name);

  /// Forgets the watch: the kernel has removed it.
  void Dropped(int watch);
  /// The folders, by id, that a watch stands for: more than one where a folder can be reached by several paths.
  std::vector<uint64_t> Find(int watch) const;
  InotifyFolder* FindById(uint64_t id) const;

  /// Guards: that the step's folder goes matters although it may not be watched, and so does what happens to the name
  /// in it.
  void ClearGuards();
  void AddGuard(const WayStep& step);
  bool IsGuard(int watch) const { return guards_.count(watch) != 0; }
  bool Guards(int watch, std::string_view name) const;

  /// Opens (O_PATH) a folder, however long its path is. No link below the root is followed: the tree may be behind the
  /// disk, and a link that has taken a folder's place leads to what nobody registered. Invalid, with errno, on failure.
  service::UniqueFd Open(const InotifyFolder& folder) const;

  const FolderViews& ViewsOf(InotifyFolder& folder);
  std::string PathOf(const InotifyFolder& folder) const;

  /// Looks through the polled folders; the ids of those that changed are returned. A folder that got a watch is
  /// returned as well and no longer polled.
  std::vector<uint64_t> Poll();
  bool has_polled() const { return !polled_.empty(); }
  size_t polled() const { return polled_.size(); }
  /// At most `most` of the polled folders.
  std::vector<std::string> PolledPaths(size_t most) const;

  /// After the kernel has refused a watch: gives watches back until a reserve is free and polls their folders, whose
  /// ids are returned: they are to be looked through, because what was not read yet of their events is lost. Folders
  /// below them are forgotten, so no reference to a folder may be held.
  std::vector<uint64_t> GiveBack();
  /// Before all watches are set anew: the limit may be as high as configured again.
  void ResetLimit() { budget_.Reset(); }
  /// Folders that lost their watch to another path of the same folder, seen since the last call: look through again.
  std::vector<uint64_t> TakeContested() { return std::exchange(contested_, {}); }
  /// Tries again to watch the folders that were not where their events said; they have been moved since. Those that are
  /// watched now are returned, the others forgotten.
  std::vector<uint64_t> RetryMissed();
  size_t watches() const { return by_watch_.size() + guards_.size(); }

 private:
  InotifyFolder& NewRoot(const WatchPoint& point);
  void WatchTrees(std::vector<uint64_t> left);
  bool WatchOne(InotifyFolder& folder, std::vector<uint64_t>& found);
  bool SetWatch(InotifyFolder& folder, int fd);
  void LowerLimit();
  void DropWatch(InotifyFolder& folder);
  void ShareWatch(int watch, InotifyFolder& folder, int fd);
  void ListInto(InotifyFolder& folder, int fd, std::vector<uint64_t>& found);
  void StartPolling(InotifyFolder& folder);
  bool PollOne(InotifyFolder& folder);
  void SayRefused(const InotifyFolder& folder, int error);
  static size_t DepthOf(const InotifyFolder& folder);
  void Forget(InotifyFolder& folder);
  bool Wanted(const InotifyFolder& folder, std::string_view name);
  InotifyFolder& NewFolder(InotifyFolder& parent, std::string_view name);

  int fd_;
  WatchBudget budget_;
  bool over_limit_ = false;  // watches are to be given back
  const Recorder* recorder_;
  uint64_t last_id_ = 0;
  uint64_t epoch_ = 1;
  std::map<std::string, std::unique_ptr<InotifyFolder>> roots_;
  std::unordered_map<int, std::vector<InotifyFolder*>> by_watch_;
  std::unordered_map<uint64_t, InotifyFolder*> by_id_;
  std::unordered_set<InotifyFolder*> polled_;
  std::unordered_map<int, std::unordered_set<std::string>> guards_;
  std::vector<uint64_t> contested_;
  std::vector<uint64_t> missed_;
  SaidOnce said_polled_;
  SaidOnce said_refused_;
};

}  // namespace nimotifyd
