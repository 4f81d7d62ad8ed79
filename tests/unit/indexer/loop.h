// An event loop that runs until something has happened.
#pragma once

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <functional>

namespace fileindexd {

class Loop {
 public:
  boost::asio::io_context& context() { return context_; }

  /// False if it has not happened after 10 s.
  bool RunUntil(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    const auto work = boost::asio::make_work_guard(context_);
    context_.restart();
    while (!holds()) {
      if (std::chrono::steady_clock::now() > end) {
        return false;
      }
      context_.run_one_until(std::min(end, std::chrono::steady_clock::now() + std::chrono::milliseconds(10)));
    }
    return true;
  }

  /// Does all that is ready to be done.
  void RunWhatIsReady() {
    context_.restart();
    context_.poll();
  }

 private:
  boost::asio::io_context context_{1};
};

}  // namespace fileindexd
