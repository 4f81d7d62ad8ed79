// The daemon's body: registrations in, kernel events in, queue lines out.
#pragma once

#include <sys/types.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "services/monitor/mounts.h"
#include "services/monitor/options.h"
#include "services/monitor/queue_sink.h"
#include "services/monitor/recorder.h"
#include "services/monitor/registration.h"
#include "services/monitor/scope.h"
#include "services/monitor/watch_plan.h"
#include "services/monitor/watcher.h"

namespace nimotifyd {

/// Opens the kernel's interfaces. Each gives null, with errno set, where the kernel does not permit it.
struct WatcherMakers {
  using Maker = std::function<std::unique_ptr<Watcher>(const Options& options, const Recorder& recorder)>;
  Maker fanotify;
  Maker inotify;
};

/// The real ones.
WatcherMakers KernelWatchers();

/// Watches what is registered and writes what changes. The first event after quiet is written at once; while events
/// keep coming they are gathered for a moment. When nothing happens no timer runs.
///
/// Threads: all calls from the one that runs the context.
class Monitor {
 public:
  /// Watches through what `makers` make, the kernel unless a test says otherwise.
  Monitor(boost::asio::io_context& context, const Options& options, WatcherMakers makers = KernelWatchers());
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;
  ~Monitor();

  /// Reads the registrations, sets the watches and writes a queue-crashed line to every queue, because nobody knows
  /// what changed while no monitor ran. False if the kernel offers neither interface.
  bool Start();

  /// Reads the registrations again. When this returns, the watches of all of them stand.
  void Reload();

  /// Reports what has happened so far, writes it, and watches nothing any more. Takes at most about two seconds if
  /// queue files cannot be written.
  void Stop();

  /// What is going on, as one line of JSON.
  std::string Status() const;

 private:
  // A kernel interface with its place in the event loop. While events are gathered the descriptor is taken out of the
  // loop, so that writers do not pay for wake-ups nobody needs.
  struct Source {
    Source(boost::asio::io_context& context, std::unique_ptr<Watcher> kernel, std::string kind)
        : watcher(std::move(kernel)), name(std::move(kind)), descriptor(context), gather(context) {}
    std::unique_ptr<Watcher> watcher;
    std::string name;
    boost::asio::posix::stream_descriptor descriptor;
    boost::asio::steady_timer gather;
    bool awaited = false;  // the descriptor is in the event loop, and nothing else is going to call Pump
  };
  struct ActivePoint {
    PlannedPoint planned;
    Source* source;
  };

  // A file at a registered path, as it was found. One so young may have changed again with the same dates.
  struct FileState {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t modified = 0;  // nanoseconds since 1970, as below
    int64_t changed = 0;
    bool young = false;
    bool Same(const FileState& other) const {
      return device == other.device && inode == other.inode && size == other.size && modified == other.modified &&
             changed == other.changed;
    }
  };

  bool CreateSources();
  Source* AddSource(std::unique_ptr<Watcher> watcher, const char* name);
  Source* InotifySource();
  void AwaitEvents(Source& source);
  void AwaitMounts();
  void Pump(Source& source);
  void PumpSoon(Source& source);
  void PumpAllSoon();
  void PostPump(Source& source);
  void Handle(const DrainReport& report);
  void Gather(Source& source, Clock::duration pause);
  void PumpUntilEmpty();

  void LoadScopes(std::vector<Registration> registrations);
  void RefreshPoints(bool announce);
  std::optional<std::vector<std::string>> AddedFolders(const std::vector<Registration>& registrations) const;
  void AddPoints(const std::vector<std::string>& folders);
  bool EstablishMissing(const std::map<std::string, PlannedPoint>& plan, bool announce);
  bool FollowPlan(const std::map<std::string, PlannedPoint>& plan, bool announce);
  void Withdraw(const std::string& path, const ActivePoint& point);
  bool Establish(const std::string& path, const PlannedPoint& point);
  void ReportFolder(const std::string& path);
  void FollowFiles(bool announce);
  static std::optional<FileState> LookAtFile(const std::string& path);
  void CrashSinksAt(const std::string& path, const char* reason);
  void CrashAll(const char* reason);
  void UpdatePresence();

  void Flush(Clock::time_point now);
  void ArmTick();
  void OnTick();

  boost::asio::io_context& context_;
  Options options_;
  WatcherMakers makers_;
  MountTable mounts_;
  boost::asio::posix::stream_descriptor mounts_changed_;
  boost::asio::steady_timer tick_;
  std::vector<std::unique_ptr<Source>> sources_;

  std::vector<Registration> registrations_;
  std::unordered_map<std::string, std::unique_ptr<QueueSink>> sinks_;  // by queue path
  std::unique_ptr<Scopes> scopes_;
  std::unique_ptr<Recorder> recorder_;
  std::map<std::string, ActivePoint> points_;
  std::map<std::string, FileState> files_;  // at registered paths, where there is no folder

  uint64_t overflows_ = 0;
  bool stopped_ = false;
};

}  // namespace nimotifyd
