// The socket on which registrars poke the monitor.
#pragma once

#include <boost/asio/io_context.hpp>
#include <string>

#include "services/base/listener.h"
#include "services/monitor/monitor.h"

namespace nimotifyd {

/// Answers one request per connection, a line: "reload" is answered "ok" when the watches of all registrations stand,
/// "status" with a line of JSON, anything else "unknown".
class ControlSocket {
 public:
  ControlSocket(boost::asio::io_context& context, Monitor& monitor, std::string path);

  /// Listens, for root alone. Throws std::runtime_error if another monitor answers at the path, or it cannot be bound.
  void Open();

 private:
  Monitor& monitor_;
  service::Listener listener_;
};

}  // namespace nimotifyd
