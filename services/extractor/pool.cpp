// Matches jobs and workers.
#include "services/extractor/pool.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "services/base/log.h"

namespace extractor {

using service::Record;

Pool::Pool(boost::asio::io_context& context, const Options& options)
    : context_(context),
      options_(options),
      nursery_(
          context, options.memory_bytes, [this](const WorkerEnd& end) { OnEnd(end); }, [this] { OnNurseryGone(); }) {}

void Pool::Submit(Job job) {
  waiting_.push_back(std::move(job));
  Dispatch();
}

void Pool::Stop() {
  waiting_.clear();
  nursery_.Stop();
  // What still waits in the context holds them, but must not hold what their jobs belong to.
  for (const std::shared_ptr<Worker>& worker : workers_) {
    worker->Abandon();
  }
  workers_.clear();
}

void Pool::Dispatch() {
  // Finishing a job may submit the next one.
  if (dispatching_) {
    return;
  }
  dispatching_ = true;
  while (!waiting_.empty() && MayStart() && (GiveToIdle() || Hire())) {
  }
  dispatching_ = false;
}

bool Pool::MayStart() const {
  return std::none_of(workers_.begin(), workers_.end(), [this](const std::shared_ptr<Worker>& worker) {
    return worker->job() && (worker->job()->alone || waiting_.front().alone);
  });
}

// False when nobody is idle.
bool Pool::GiveToIdle() {
  for (const std::shared_ptr<Worker>& worker : workers_) {
    if (worker->state() != Worker::State::kIdle) {
      continue;
    }
    waiting_.front().on_start();
    if (worker->Start(waiting_.front())) {
      waiting_.pop_front();
      return true;
    }
  }
  return false;
}

// Starts a worker, or gives the first job up because there can be none. False when there are enough.
bool Pool::Hire() {
  // Those that are finished count until they are gone, so that the memory of all has a bound.
  if (workers_.size() >= options_.workers) {
    return false;
  }
  try {
    NewWorker process = [this] {
      try {
        return nursery_.Spawn();
      } catch (const NurseryRefusal&) {
        throw;
      } catch (const std::exception&) {
        nursery_.Stop();
        OnNurseryGone();
        return nursery_.Spawn();
      }
    }();
    workers_.push_back(std::make_shared<Worker>(context_, options_, std::move(process), [this] { Dispatch(); }));
    workers_.back()->WatchIdle();
  } catch (const std::exception& error) {
    Record(LOG_ERR, "no_worker").Add("reason", error.what());
    Job job = std::move(waiting_.front());
    waiting_.pop_front();
    Outcome outcome;
    outcome.kind = Outcome::Kind::kNoWorker;
    outcome.message = error.what();
    job.done(std::move(outcome));
  }
  return true;
}

void Pool::OnEnd(const WorkerEnd& end) {
  const auto found = std::find_if(workers_.begin(), workers_.end(),
                                  [&](const std::shared_ptr<Worker>& worker) { return worker->pid() == end.pid; });
  if (found != workers_.end()) {
    const std::shared_ptr<Worker> worker = std::move(*found);
    workers_.erase(found);
    worker->OnEnd(end.status);
  }
  Dispatch();
}

void Pool::OnNurseryGone() {
  Record(LOG_WARNING, "nursery_gone").Add("workers", static_cast<long long>(workers_.size()));
  const std::vector<std::shared_ptr<Worker>> gone = std::exchange(workers_, {});
  for (const std::shared_ptr<Worker>& worker : gone) {
    worker->OnEndUnknown();
  }
  Dispatch();
}

}  // namespace extractor
