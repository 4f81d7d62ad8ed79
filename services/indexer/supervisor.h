// Which shares have a worker, and the commands that change it.
#pragma once

#include <json/json.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/system_timer.hpp>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "services/indexer/file_watch.h"
#include "services/indexer/mount_watch.h"
#include "services/indexer/registration_watch.h"
#include "services/indexer/worker.h"

namespace fileindexd {

struct SupervisorSettings {
  WorkerSettings worker;
  std::string share_registry = "/etc/nimo/shares.json";  ///< watched, never read here
  std::string roots_file = "/var/packages/Orbisk/etc/fileindex.roots";
  int extractions = 1;  ///< at once
};

/// Keeps one worker for each share that has indexed folders, that exists, and whose worker nobody has deleted.
///
/// Threads: that of the event loop.
class Supervisor {
 public:
  using Answer = std::function<void(const Json::Value& answer)>;

  /// `context` and `settings` outlive it; the context is not run any more when it goes.
  Supervisor(boost::asio::io_context& context, const SupervisorSettings& settings);

  /// Reads the configuration and starts the workers. A configuration that cannot be read means none until it can.
  void Start();
  /// Asks all workers to end, and makes none any more. Going, it waits for them.
  void Stop();
  /// Whether somebody waits for the end of a worker. Each end is told by the event loop.
  bool IsAwaited() const;
  /// Answers who waits for the end of a worker now, because the daemon is about to end, and all workers with it.
  void AnswerAll();

  /// Reads configuration and pause again.
  void Reload();

  /// Does what a message of the daemon's socket says: an object with "type" and "data". `answer` is called once,
  /// perhaps later: what deletes a worker is answered when the worker has ended, or after 10 s.
  void Handle(const Json::Value& message, Answer answer);

 private:
  struct Slot {
    std::unique_ptr<Worker> worker;
    FileWatch::Id watch = 0;
    bool leaving = false;
    std::vector<std::function<void()>> on_gone;
  };

  void Configure();
  std::set<std::string> WantedShares();
  void CreateWorker(const std::string& share);
  void AwaitMonitor(const std::string& share);
  void OnExtractor();
  void ConfigureLater();
  void Leave(Slot& slot);
  void OnEnd(const std::string& share);
  void DeleteWorker(const std::string& share, Answer answer);
  void ForgetMark(const std::string& share);
  void ReadStatus();
  void ReadPause();
  Json::Value Status(const Json::Value& asked) const;

  boost::asio::io_context& context_;
  const SupervisorSettings& settings_;
  Extractions extractions_;
  Roots roots_;
  FileWatch watch_;
  MountWatch mounts_;
  RegistrationWatch registrations_;
  boost::asio::system_timer pause_end_;
  boost::asio::steady_timer later_;           // to configure once more
  boost::asio::steady_timer extractor_came_;  // some time ago
  bool stopping_ = false;
  bool paused_ = false;
  long pause_until_ = 0;                         // while paused: seconds since 1970, 0 for no end
  std::set<std::string> deleted_;                // shares whose worker was deleted by command
  std::map<std::string, std::string> problems_;  // of shares without a worker
  std::map<std::string, Slot> slots_;
};

}  // namespace fileindexd
