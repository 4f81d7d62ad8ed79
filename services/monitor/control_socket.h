// The socket on which registrars poke the monitor.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <memory>
#include <string>

#include "services/monitor/monitor.h"

namespace nimotifyd {

/// Answers one request per connection, a line: "reload" is answered "ok" when the watches of all registrations stand,
/// "status" with a line of JSON, anything else "unknown".
class ControlSocket {
 public:
  ControlSocket(boost::asio::io_context& context, Monitor& monitor, std::string path);
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  /// Listens, for root alone. False with a record if another monitor answers at the path, or it cannot be bound.
  bool Open();

 private:
  void Accept();

  boost::asio::io_context& context_;
  Monitor& monitor_;
  std::string path_;
  boost::asio::local::stream_protocol::acceptor acceptor_;
  bool bound_ = false;
};

}  // namespace nimotifyd
