// A queue for each name that has work.
#include "services/search/lanes.h"

#include <boost/asio/post.hpp>
#include <utility>

namespace nimoelasticd {

void Lanes::Post(const std::string& name, Task task) {
  const std::lock_guard lock(mutex_);
  std::deque<Task>& queue = tasks_[name];
  queue.push_back(std::move(task));
  if (queue.size() == 1) {
    boost::asio::post(pool_, [this, name] { RunFirst(name); });
  }
}

size_t Lanes::Count(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = tasks_.find(name);
  return found != tasks_.end() ? found->second.size() : 0;
}

void Lanes::RunFirst(const std::string& name) {
  Task task;
  {
    const std::lock_guard lock(mutex_);
    task = std::move(tasks_.at(name).front());
  }
  task();
  task = nullptr;
  const std::lock_guard lock(mutex_);
  const auto found = tasks_.find(name);
  // It stays in the queue while it runs: an empty queue means that nothing runs.
  found->second.pop_front();
  if (found->second.empty()) {
    tasks_.erase(found);
  } else {
    // To the pool's end, so that a busy name leaves room for the others.
    boost::asio::post(pool_, [this, name] { RunFirst(name); });
  }
}

}  // namespace nimoelasticd
