// Tells when a share's queue gets registered with the change monitor after its worker was made.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <map>
#include <string>

namespace fileindexd {

/// Looks for registrations that are about to come, for a short time only.
///
/// Threads: that of the event loop.
class RegistrationWatch {
 public:
  /// `folder` has the registrations.
  RegistrationWatch(boost::asio::io_context& context, std::string folder);

  /// If nothing is registered for `queue`, a queue file, `on_watched` is called once when there is, and the monitor has
  /// had a second to take it up; never, if there is none within 30 s. Asked again, the earlier question is forgotten.
  void Await(const std::string& queue, std::function<void()> on_watched);

 private:
  struct Wait {
    boost::asio::steady_timer timer;
    std::function<void()> on_watched;
    int looks_left;
  };

  void LookLater(const std::string& queue);
  void Look(const std::string& queue);
  void End(const std::string& queue);

  boost::asio::io_context& context_;
  const std::string folder_;
  std::map<std::string, Wait> waits_;  // by queue
};

}  // namespace fileindexd
