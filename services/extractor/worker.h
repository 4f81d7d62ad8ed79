// The daemon's view of one worker process.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "services/base/unique_fd.h"
#include "services/extractor/frame.h"
#include "services/extractor/nursery_link.h"
#include "services/extractor/options.h"
#include "services/extractor/outcome.h"
#include "services/extractor/worker_reply.h"

namespace extractor {

/// A content to be read.
struct Job {
  service::UniqueFd file;
  std::string path;  ///< for the status
  std::string name;
  bool alone = false;              ///< to be read while no other content is
  std::function<void()> on_start;  ///< called before a worker gets it; again if that worker is found dead
  std::function<void(Outcome)> done;
};

/// One worker process: gives it one job at a time, ends it when it is silent for too long.
///
/// A job is done when the worker has answered, or, if it died, when its end is known (OnEnd). Once the worker is
/// finished it takes no more jobs and is only waited for.
///
/// Threads: that of the context.
class Worker : public std::enable_shared_from_this<Worker> {
 public:
  enum class State { kIdle, kWorking, kFinished };

  /// `on_free` is called each time when the worker is idle again or finished.
  Worker(boost::asio::io_context& context, const Options& options, NewWorker process, std::function<void()> on_free);

  /// Gives it a job. False, with the job still in `job` and the worker finished, when it is found dead.
  bool Start(Job& job);
  /// The process ended with `status`: finishes a job that it left.
  void OnEnd(int status);
  /// The process ended, and nobody knows how.
  void OnEndUnknown();
  /// Ends it, and drops its job unanswered.
  void Abandon();
  /// Waits for the end of an idle worker. Call it once, after construction.
  void WatchIdle();

  State state() const { return state_; }
  pid_t pid() const { return process_.pid; }
  const std::optional<Job>& job() const { return job_; }
  Clock::duration busy_for() const { return Clock::now() - started_; }

 private:
  void ArmDeadline();
  void ReadReply();
  void OnReply();
  void Finish();
  void Kill();
  void Deliver(Outcome outcome);

  const Options& options_;
  NewWorker process_;
  boost::asio::local::stream_protocol::socket channel_;
  boost::asio::steady_timer deadline_;
  std::function<void()> on_free_;
  State state_ = State::kIdle;
  std::optional<Job> job_;
  std::optional<Outcome> verdict_;  // why it was killed over its job
  Clock::time_point started_;
  size_t files_ = 0;
  FrameHeader header_{};
  std::string reply_;
};

}  // namespace extractor
