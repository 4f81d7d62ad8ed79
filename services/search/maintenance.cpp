// A timer for each index that was changed lately.
#include "services/search/maintenance.h"

#include <boost/asio/post.hpp>
#include <utility>

namespace nimoelasticd {
namespace {

// A request that comes in the middle waits no longer than this.
constexpr std::chrono::milliseconds kTurn{100};
constexpr std::chrono::milliseconds kBetweenTurns{400};

}  // namespace

Maintenance::Maintenance(boost::asio::io_context& context, Dispatcher& dispatcher, std::chrono::milliseconds quiet)
    : context_(context), dispatcher_(dispatcher), quiet_(quiet) {}

void Maintenance::NoteCommit(const std::string& id) {
  boost::asio::post(context_, [this, id] { Arm(id, quiet_); });
}

void Maintenance::Arm(const std::string& id, std::chrono::milliseconds delay) {
  boost::asio::steady_timer& timer = timers_.try_emplace(id, context_).first->second;
  timer.expires_after(delay);
  timer.async_wait([this, id](const boost::system::error_code& error) {
    if (!error) {
      timers_.erase(id);
      Tidy(id);
    }
  });
}

void Maintenance::Tidy(const std::string& id) {
  dispatcher_.Compact(id, kTurn, [this, id](bool more) {
    if (more) {
      boost::asio::post(context_, [this, id] {
        if (timers_.count(id) == 0) {  // else it was changed meanwhile
          Arm(id, kBetweenTurns);
        }
      });
    }
  });
}

}  // namespace nimoelasticd
