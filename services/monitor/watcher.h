// The kernel's change reports, whichever interface they come through.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "services/monitor/options.h"
#include "services/monitor/recorder.h"
#include "services/monitor/way.h"

namespace nimotifyd {

/// A folder that is watched with everything below it that lies in the same file system: a registered folder, or a
/// mount point below one.
struct WatchPoint {
  std::string path;
  uint64_t mount = 0;  ///< id of the mount that the path leads to
};

enum class WatchOutcome {
  kWatched,
  kUnsupported,  ///< not permitted, or the file system cannot be watched this way
  kMissing,      ///< the folder is not there
};

struct DrainReport {
  bool activity = false;    ///< other programs changed something: more may follow at once
  bool unfinished = false;  ///< call again as soon as the lines so far are written
  bool lost = false;        ///< the kernel dropped events
  /// A registered folder, or one on the way to it, was created, moved or removed; or what is registered is a file, and
  /// that changed.
  bool roots_touched = false;
  std::optional<Clock::time_point> again{};  ///< call again at this time, even if no event comes
};

/// The folders that are looked through now and then because they could not get a watch, each with everything below it.
struct PolledFolders {
  size_t count = 0;
  std::vector<std::string> paths{};  ///< of the first thousand at most
};

/// One kernel interface. Reports go to the recorder, in the order that leaves the right state when they are folded.
///
/// Threads: one.
class Watcher {
 public:
  Watcher() = default;
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;
  virtual ~Watcher() = default;

  /// The descriptor that becomes readable when events are there.
  virtual int descriptor() const = 0;

  /// Replaces the recorder; events read before have gone to the former one. It must outlive this object.
  virtual void SetRecorder(const Recorder& recorder) = 0;

  /// From the return on no change below the folder is missed.
  virtual WatchOutcome Watch(const WatchPoint& point) = 0;
  virtual void Unwatch(const std::string& path) = 0;

  /// `steps`: what leads to the registered folders. From the return on a change of any step, and of the content of one
  /// that is a file, sets roots_touched. Whoever reads the steps looks again afterwards: they may have changed before.
  virtual void Guard(const std::vector<WayStep>& steps) = 0;
  /// The same of further steps: those of before stay guarded, without a gap.
  virtual void GuardAlso(const std::vector<WayStep>& steps) = 0;

  /// Reads and reports what the kernel has.
  virtual DrainReport Drain(Clock::time_point now) = 0;

  virtual PolledFolders polled() const { return {}; }

  /// When OnDeadline wants to be called.
  virtual std::optional<Clock::time_point> deadline() = 0;
  virtual DrainReport OnDeadline(Clock::time_point now) = 0;
};

}  // namespace nimotifyd
