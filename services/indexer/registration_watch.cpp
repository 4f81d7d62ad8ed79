// A timer: the folder may be made only with the registration.
#include "services/indexer/registration_watch.h"

#include <chrono>
#include <utility>

#include "services/indexer/registration.h"

namespace fileindexd {
namespace {

constexpr std::chrono::milliseconds kBetweenLooks{500};
constexpr int kLooks = 60;
constexpr std::chrono::seconds kUntilWatched{1};  // it is stored before the monitor is told

}  // namespace

RegistrationWatch::RegistrationWatch(boost::asio::io_context& context, std::string folder)
    : context_(context), folder_(std::move(folder)) {}

void RegistrationWatch::Await(const std::string& queue, std::function<void()> on_watched) {
  waits_.erase(queue);
  if (!HasRegistration(folder_, queue)) {
    waits_.emplace(queue, Wait{boost::asio::steady_timer(context_), std::move(on_watched), kLooks});
    LookLater(queue);
  }
}

void RegistrationWatch::LookLater(const std::string& queue) {
  Wait& wait = waits_.at(queue);
  wait.timer.expires_after(kBetweenLooks);
  wait.timer.async_wait([this, queue](const boost::system::error_code& error) {
    if (!error) {
      Look(queue);
    }
  });
}

// A timer that ended in the same moment as its question was forgotten comes here all the same.
void RegistrationWatch::Look(const std::string& queue) {
  const auto wait = waits_.find(queue);
  if (wait == waits_.end()) {
    return;
  }
  if (!HasRegistration(folder_, queue)) {
    --wait->second.looks_left > 0 ? LookLater(queue) : static_cast<void>(waits_.erase(wait));
    return;
  }
  wait->second.timer.expires_after(kUntilWatched);
  wait->second.timer.async_wait([this, queue](const boost::system::error_code& error) {
    if (!error) {
      End(queue);
    }
  });
}

void RegistrationWatch::End(const std::string& queue) {
  if (const auto wait = waits_.extract(queue)) {
    wait.mapped().on_watched();
  }
}

}  // namespace fileindexd
