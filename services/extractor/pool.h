// The workers, and the contents that wait for one.
#pragma once

#include <boost/asio/io_context.hpp>
#include <deque>
#include <memory>
#include <vector>

#include "services/extractor/nursery_link.h"
#include "services/extractor/options.h"
#include "services/extractor/worker.h"

namespace extractor {

/// Gives jobs to workers in the order in which they came, at most `options.workers` at a time; one that is to be read
/// alone waits for those before it, and those behind wait for it. Workers are started when they are first needed, kept
/// while they behave, and replaced when not.
///
/// Threads: that of the context.
class Pool {
 public:
  /// `options` must outlive it.
  Pool(boost::asio::io_context& context, const Options& options);
  ~Pool() { Stop(); }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  /// Makes sure that workers can be had. Throws std::exception with the reason.
  void Start() { nursery_.Start(); }
  /// Has `job.done` called, in any case and possibly before this returns, once.
  void Submit(Job job);
  /// Ends all workers. No job is done any more.
  void Stop();

  const std::vector<std::shared_ptr<Worker>>& workers() const { return workers_; }
  size_t waiting() const { return waiting_.size(); }

 private:
  void Dispatch();
  bool MayStart() const;
  bool GiveToIdle();
  bool Hire();
  void OnEnd(const WorkerEnd& end);
  void OnNurseryGone();

  boost::asio::io_context& context_;
  const Options& options_;
  NurseryLink nursery_;
  std::vector<std::shared_ptr<Worker>> workers_;
  std::deque<Job> waiting_;
  bool dispatching_ = false;
};

}  // namespace extractor
