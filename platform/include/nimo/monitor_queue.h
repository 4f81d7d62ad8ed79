// The change monitor's registration: which folders it watches and which queue file their changes go to.
#pragma once

#include <json/json.h>

#include <string>

namespace NIMO::NIMOTIFYD {

/// Who registers a queue. Queues of different types never meet, even with one path and one application name.
enum MONITOR_QUEUE_TYPE {
  MONITOR_QUEUE_TYPE_APPLICATION = 0,  ///< an application package
};

/// What the change monitor must watch for one queue file:
///
///     {"queue": "/volume1/@fileindex/photo/queue",
///      "config": [{"path": "/volume1/photo", "mask": 65478, "ignore": ["@eaDir"]}]}
///
/// "queue" is the absolute path of the file that change lines are appended to. Each entry of "config" is a folder that
/// is watched with everything below it: "path" is absolute, "mask" selects the event bits that are written, "ignore"
/// (may be missing) lists names that are skipped at any depth together with what is below them. Where one entry's
/// folder lies inside another's, the inner entry decides. A null or missing "config" watches nothing.
///
/// A path holds no empty, "." or ".." component; a slash may end a folder's, not the queue's. Strings are bytes: names
/// need not be UTF-8.
///
/// Threads: the static functions may be called from several threads and processes at once; of two simultaneous
/// registrations of one queue, one is left complete.
class [[gnu::visibility("default")]] MonitorQueue {
 public:
  /// Takes the description as it is. Never throws for what it holds: a malformed one is refused by Upsert.
  explicit MonitorQueue(const Json::Value& description);

  /// Registers `queue` for application `app`, replacing what was registered for the same queue path, application and
  /// type as a whole. The registration is on disk, synced, before this returns, and survives restarts of the monitor.
  /// If the monitor runs, this waits (at most 5 s) until its watches stand; if it does not, it will find the
  /// registration when it starts.
  ///
  /// True also if a monitor that runs does not answer in time: the registration counts from its next look on.
  ///
  /// False if the description or `app` (empty, or holding a NUL) is malformed: nothing is changed then. False as well
  /// if the registration cannot be written and synced: the former one stands, or, if only the last sync failed, the new
  /// one does and may be lost in a crash of the machine. The monitor is not told of it; calling again is safe.
  static bool Upsert(const MonitorQueue& queue, const std::string& app, MONITOR_QUEUE_TYPE type);

  /// Removes a registration; the queue file stays. True also when there was none. False if it cannot be removed, or
  /// if `queue_path` or `app` is malformed.
  static bool Delete(const std::string& queue_path, const std::string& app, MONITOR_QUEUE_TYPE type);

 private:
  Json::Value description_;
};

}  // namespace NIMO::NIMOTIFYD
