// Watches folder by folder with inotify, where fanotify is not to be had.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "services/base/unique_fd.h"
#include "services/monitor/inotify_tree.h"
#include "services/monitor/open_writers.h"
#include "services/monitor/watcher.h"

namespace nimotifyd {

/// The two halves of a rename are brought together by their cookie; until a half's other one has come, or a short wait
/// is over, nothing behind it is reported. A new folder is watched before its create is reported, so whatever is in it
/// is either reported or found by whoever reads that line.
class InotifyWatcher : public Watcher {
 public:
  /// Null with errno if the kernel gives no inotify descriptor.
  static std::unique_ptr<InotifyWatcher> Create(const Options& options, const Recorder& recorder);

  int descriptor() const override { return fd_.get(); }
  void SetRecorder(const Recorder& recorder) override;
  WatchOutcome Watch(const WatchPoint& point) override;
  void Unwatch(const std::string& path) override;
  void Guard(const std::vector<WayStep>& steps) override;
  void GuardAlso(const std::vector<WayStep>& steps) override;
  DrainReport Drain(Clock::time_point now) override;
  std::optional<Clock::time_point> deadline() override;
  DrainReport OnDeadline(Clock::time_point now) override;

  size_t watches() const { return tree_.watches(); }
  PolledFolders polled() const override;

 private:
  struct Event {
    int watch;
    uint32_t mask;
    uint32_t cookie;
    std::string name;
    Clock::time_point read_at;
    bool done = false;
  };
  using Writers = OpenWriters<std::string, uint64_t, std::hash<std::string>>;

  InotifyWatcher(const Options& options, const Recorder& recorder, service::UniqueFd fd);

  void ReadAll(Clock::time_point now);
  bool OnEvent(Event& event, Clock::time_point now, DrainReport& report);
  void OnNamed(InotifyFolder& folder, const Event& event, Clock::time_point now);
  void OnContent(InotifyFolder& folder, const Event& event, Clock::time_point now);
  bool TouchesRoot(const Event& event) const;
  bool OnMovedFrom(const Event& event, Clock::time_point now, DrainReport& report);
  void OnMoved(const std::vector<uint64_t>& sources, const Event& out, std::vector<uint64_t> targets, const Event& in);
  void OnRename(InotifyFolder& from, const Event& out, InotifyFolder& to, const Event& in);
  bool MoveFolder(InotifyFolder& from, const std::string& old_name, InotifyFolder& to, const std::string& name);
  void LookAgain(uint64_t folder_id, const std::string& name);
  void Appeared(InotifyFolder& folder, const Event& event);
  void WatchLate(InotifyFolder& folder, const std::string& name);
  void Vanished(InotifyFolder& folder, const Event& event);
  void OnLoss(Clock::time_point now, DrainReport& report);
  void Rebuild(Clock::time_point now, DrainReport& report);
  void Reconcile();
  std::vector<WatchPoint> WatchAnew();
  bool KeepReserve();
  void ReportAnew(const std::vector<uint64_t>& ids);
  void AddGuards(const std::vector<WayStep>& steps);
  static std::string KeyOf(const InotifyFolder& folder, const std::string& name);

  const Recorder* recorder_;
  service::UniqueFd fd_;
  InotifyTree tree_;
  Writers writers_;
  std::chrono::milliseconds poll_period_;

  std::deque<Event> events_;
  uint64_t first_number_ = 0;                        // of events_.front()
  std::unordered_map<uint32_t, uint64_t> moved_to_;  // cookie -> number of the event
  std::unordered_set<std::string> renames_;          // since the kernel's queue was empty last
  bool doubtful_ = false;                            // the tree turned out not to be what is on disk
  std::optional<Clock::time_point> next_poll_;
  std::optional<Clock::time_point> next_rebuild_;
  Clock::time_point last_rebuild_{};
  std::chrono::milliseconds rebuild_pause_{0};
};

}  // namespace nimotifyd
