// Tidies indexes up when nobody needs them.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <map>
#include <string>

#include "services/search/dispatcher.h"

namespace nimoelasticd {

/// Some time after the last commit to an index, has it give back the room that deletions left, in short turns between
/// which others are served. When there is nothing to tidy up it sets no timer.
///
/// Threads: the event loop's, but for NoteCommit.
class Maintenance {
 public:
  /// `quiet` is how long an index must have been left alone. What is referred to outlives this.
  Maintenance(boost::asio::io_context& context, Dispatcher& dispatcher, std::chrono::milliseconds quiet);

  /// The index was changed. Any thread.
  void NoteCommit(const std::string& id);

 private:
  void Arm(const std::string& id, std::chrono::milliseconds delay);
  void Tidy(const std::string& id);

  boost::asio::io_context& context_;
  Dispatcher& dispatcher_;
  const std::chrono::milliseconds quiet_;
  std::map<std::string, boost::asio::steady_timer> timers_;
};

}  // namespace nimoelasticd
