// Watches whole file systems with fanotify.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "services/base/unique_fd.h"
#include "services/monitor/fanotify_stream.h"
#include "services/monitor/folder_cache.h"
#include "services/monitor/folder_locator.h"
#include "services/monitor/ledger.h"
#include "services/monitor/open_writers.h"
#include "services/monitor/watcher.h"

namespace nimotifyd {

/// One mark on each file system with a watched folder. The kernel then reports every change in the file system by the
/// folder's handle and the object's name; the folder's path is put together from the handle's place in a cache.
///
/// Needs CAP_SYS_ADMIN and CAP_DAC_READ_SEARCH in the initial user namespace, and Linux 5.17.
class FanotifyWatcher : public Watcher {
 public:
  /// Null with errno if the kernel does not permit it.
  static std::unique_ptr<FanotifyWatcher> Create(const Options& options, const Recorder& recorder);

  int descriptor() const override { return fd_.get(); }
  void SetRecorder(const Recorder& recorder) override;
  WatchOutcome Watch(const WatchPoint& point) override;
  void Unwatch(const std::string& path) override;
  void Guard(const std::vector<WayStep>& steps) override;
  void GuardAlso(const std::vector<WayStep>& steps) override;
  DrainReport Drain(Clock::time_point now) override;
  std::optional<Clock::time_point> deadline() override { return writers_.next_due(); }
  DrainReport OnDeadline(Clock::time_point now) override;

  uint64_t lookups() const { return locator_.lookups(); }
  size_t known_folders() const { return cache_.size(); }

 private:
  struct Point {
    std::string path;
    uint64_t mount;
    Handle handle;
  };
  struct ViewSlot {
    const FolderCache::Folder* folder = nullptr;
    uint64_t generation = 0;
    std::shared_ptr<const FolderViews> views;
  };
  using Views = std::shared_ptr<const FolderViews>;
  using Links = std::unordered_map<Handle, uint64_t, HandleHash>;  // number of names

  FanotifyWatcher(const Options& options, const Recorder& recorder, service::UniqueFd fd);

  bool MarkFileSystem(const std::string& path, uint64_t file_system);
  void OfferPaths(uint64_t file_system, const std::string& another);
  void UnmarkFileSystem(const std::string& path, uint64_t file_system);
  void GuardStep(const Handle& folder, const WayStep& step);
  bool TouchesRoot(const KernelEvent& event, const Handle& folder) const;

  void OnEvent(const KernelEvent& event, Clock::time_point now, DrainReport& report);
  void OnChange(const KernelEvent& event, const Handle& folder, Clock::time_point now);
  void ReportChange(const KernelEvent& event, const Handle& folder, const FolderViews& views, Clock::time_point now);
  void Learn(const KernelEvent& event, const Handle& folder, std::string_view name, const Ledger::State& state,
             bool enter);
  void OnContent(const KernelEvent& event, const Handle& folder, const FolderViews& views, Clock::time_point now);
  void OnRename(const KernelEvent& event, const Handle& new_folder);
  bool ReportRename(const KernelEvent& event, const Handle& old_folder, const FolderViews& from,
                    const Handle& new_folder, const FolderViews& to);
  bool MoveFolder(const KernelEvent& event, FolderCache::Folder* from, FolderCache::Folder* to, bool watched);
  void OnLoss(DrainReport& report);

  Views ViewsOf(const FolderCache::Folder* folder);
  Views ComputeViews(const FolderCache::Folder* folder) const;

  bool CompareWithDisk();
  bool IsThere(const Ledger::Name& name, const Ledger::State& state, Links& found);
  bool IsGone(const Ledger::Name& name);
  bool AllAccountedFor(const Links& found);
  void ReportMovedFolders();
  void Correct(const Ledger::Name& name, const Ledger::State& state);
  std::optional<Handle> ObjectNow(const Ledger::Name& name, const FolderViews& views);

  const Recorder* recorder_;
  service::UniqueFd fd_;
  int32_t own_pid_;
  FanotifyStream stream_;
  FolderCache cache_;
  FolderLocator locator_;
  Ledger ledger_;
  std::unordered_set<Handle, HandleHash> moved_folders_;  // since the kernel's queue was empty last
  std::unordered_set<Handle, HandleHash> seen_;           // objects that the ledger's names were about
  bool confused_ = false;                                 // one of them is not where events say
  OpenWriters<Handle, Handle, HandleHash> writers_;

  std::vector<Point> points_;
  std::unordered_map<Handle, std::vector<size_t>, HandleHash> points_by_handle_;
  std::unordered_map<uint64_t, int> marks_;                                          // watch points by file system
  std::unordered_map<Handle, std::unordered_set<std::string>, HandleHash> guarded_;  // folder -> names in it
  bool guards_files_ = false;                                                        // one of the names is a file's
  std::vector<ViewSlot> slots_;
  Views outside_;
};

}  // namespace nimotifyd
