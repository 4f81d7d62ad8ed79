// The queue of jobs.
#include "services/indexer/crew.h"

#include <pthread.h>

#include <system_error>
#include <utility>

namespace fileindexd {

Crew::~Crew() {
  {
    const std::lock_guard lock(mutex_);
    jobs_.clear();
    stop_ = true;
  }
  given_.notify_all();
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

void Crew::Give(std::function<void()> job) {
  std::unique_lock lock(mutex_);
  done_.wait(lock, [this] { return jobs_.size() < hands_ || failure_ != nullptr; });
  ThrowFailure();
  if (threads_.size() < hands_ && threads_.size() < busy_ + jobs_.size() + 1) {
    AddThread();
  }
  if (threads_.empty()) {
    lock.unlock();
    job();
    return;
  }
  jobs_.push_back(std::move(job));
  given_.notify_one();
}

// Without any the giver does its jobs itself.
void Crew::AddThread() {
  try {
    threads_.emplace_back([this] { Run(); });
  } catch (const std::system_error&) {
    // There is no room for one now; it is tried again with the next job.
  }
}

void Crew::Wait() {
  std::unique_lock lock(mutex_);
  done_.wait(lock, [this] { return jobs_.empty() && busy_ == 0; });
  ThrowFailure();
}

void Crew::ThrowFailure() {
  if (failure_ != nullptr) {
    std::rethrow_exception(std::exchange(failure_, nullptr));
  }
}

void Crew::Run() {
  pthread_setname_np(pthread_self(), "i-crew");
  std::unique_lock lock(mutex_);
  while (true) {
    given_.wait(lock, [this] { return stop_ || !jobs_.empty(); });
    if (jobs_.empty()) {
      return;
    }
    {
      const std::function<void()> job = std::move(jobs_.front());
      jobs_.pop_front();
      ++busy_;
      lock.unlock();
      std::exception_ptr failure;
      try {
        job();
      } catch (...) {
        failure = std::current_exception();
      }
      lock.lock();
      if (failure != nullptr) {
        jobs_.clear();
        failure_ = failure_ != nullptr ? failure_ : failure;
      }
    }
    --busy_;
    done_.notify_all();
  }
}

}  // namespace fileindexd
