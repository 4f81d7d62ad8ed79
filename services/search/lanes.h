// Work in order for each index, side by side for different ones.
#pragma once

#include <boost/asio/thread_pool.hpp>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

namespace nimoelasticd {

/// Runs tasks on a thread pool: those of one name one after the other in the order in which they were posted, those of
/// different names at once. A name that has no tasks takes no memory.
///
/// Threads: any. A task may post.
class Lanes {
 public:
  using Task = std::function<void()>;

  /// `pool` outlives this. Tasks must not throw.
  explicit Lanes(boost::asio::thread_pool& pool) : pool_(pool) {}

  void Post(const std::string& name, Task task);

  /// Tasks of the name that have not ended.
  size_t Count(const std::string& name) const;

 private:
  void RunFirst(const std::string& name);

  boost::asio::thread_pool& pool_;
  mutable std::mutex mutex_;  // guards tasks_
  std::unordered_map<std::string, std::deque<Task>> tasks_;
};

}  // namespace nimoelasticd
