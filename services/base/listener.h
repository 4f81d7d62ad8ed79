// The socket that a daemon is asked over.
#pragma once

#include <sys/types.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <optional>
#include <string>

namespace service {

/// The number of the group called `name`; nothing if there is none.
std::optional<gid_t> FindGroup(const std::string& name);

/// Who may connect. Until the group is set, only the daemon's own account can.
struct SocketAccess {
  mode_t mode = 0600;
  std::optional<gid_t> group;
};

/// Listens on a Unix stream socket and hands out connections one by one, as they are asked for.
///
/// Threads: that of the event loop.
class Listener {
 public:
  using Socket = boost::asio::local::stream_protocol::socket;

  struct Handlers {
    /// Takes a connection; calls Accept if there may be one more.
    std::function<void(Socket)> on_client;
    /// The system refuses connections, for want of descriptors perhaps: may close some. Accept is called soon after.
    std::function<void()> on_failure = [] {};
  };

  /// Listens at `path` once Open is called. `context` and what the handlers refer to outlive this, and `context` is not
  /// run any more when this has gone.
  Listener(boost::asio::io_context& context, std::string path, Handlers handlers);
  /// As Close.
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// Makes the socket; one that a killed daemon left is replaced. Throws std::runtime_error if somebody answers there,
  /// or when the socket cannot be made. If the system refuses to give it to the group, a record says so, and the group
  /// has no access, whatever the mode says.
  void Open(const SocketAccess& access);

  /// Waits for one connection. Nothing happens if that is so already, or the socket is not open.
  void Accept();

  /// Lets nobody else in and removes the socket.
  void Close();

 private:
  void Bind();
  void Restrict(const SocketAccess& access);
  void OnFailure(const boost::system::error_code& error);

  const std::string path_;
  const Handlers handlers_;
  boost::asio::local::stream_protocol::acceptor acceptor_;
  boost::asio::steady_timer pause_;  // after a failure
  bool waiting_ = false;
  bool bound_ = false;
};

}  // namespace service
