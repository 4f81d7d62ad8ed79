// The daemon's end of the nursery.
#pragma once

#include <sys/types.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <functional>
#include <stdexcept>

#include "services/base/unique_fd.h"
#include "services/extractor/nursery.h"

namespace extractor {

/// A worker that has just been forked.
struct NewWorker {
  pid_t pid = 0;
  service::UniqueFd process;  ///< its process descriptor, by which it is killed without mistaking it for another
  service::UniqueFd channel;  ///< stream socket
};

/// The nursery lives and says why it has no worker to give.
struct NurseryRefusal : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Starts a nursery, asks it for workers and hears from it how they ended.
///
/// Threads: that of the context.
class NurseryLink {
 public:
  using OnEnd = std::function<void(const WorkerEnd&)>;
  using OnGone = std::function<void()>;

  /// `on_end` is called for each worker that ended, `on_gone` when the nursery itself did, and all workers with it.
  NurseryLink(boost::asio::io_context& context, size_t memory_bytes, OnEnd on_end, OnGone on_gone);
  ~NurseryLink();
  NurseryLink(const NurseryLink&) = delete;
  NurseryLink& operator=(const NurseryLink&) = delete;

  /// Starts the nursery if it does not run, and waits until it has loaded what readers need. Throws std::exception with
  /// the reason when it does not come up; the next call tries again.
  void Start();

  /// Has a worker forked; starts the nursery if need be. Waits for it, which takes about a millisecond. Throws
  /// NurseryRefusal when there can be none, another std::exception when the nursery does not answer.
  NewWorker Spawn();

  /// Ends the nursery and with it all workers, and waits for that.
  void Stop();

 private:
  void Listen();
  void Launch(service::UniqueFd control, service::UniqueFd ends);
  void AwaitReady();

  size_t memory_bytes_;
  OnEnd on_end_;
  OnGone on_gone_;
  pid_t pid_ = -1;
  service::UniqueFd control_;
  boost::asio::posix::stream_descriptor ends_;
  WorkerEnd end_;
};

}  // namespace extractor
