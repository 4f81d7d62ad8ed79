// Talking to the box's daemons in whole messages over unix stream sockets.
#pragma once

#include <string>

#include "nimo/export.h"

namespace nimodaemon {

/// One end of a connection that carries whole messages. How a message is framed is the box's business; client and
/// daemon of one box agree. A message is at most 1 GiB.
///
/// Threads: one object is used by one thread at a time.
class NIMO_EXPORT SockConnection {
 public:
  SockConnection(const SockConnection&) = delete;
  SockConnection& operator=(const SockConnection&) = delete;
  /// Disconnects.
  virtual ~SockConnection();

  /// Sends one whole message. False when it is not connected, the message is too long, or the other end is gone; no
  /// signal is raised.
  bool Send(const std::string& message);

  /// Waits for one whole message and sets `message` to it. False, with `message` as it was, when it is not connected,
  /// the other end is gone, or announces a message that is too long.
  bool Recv(std::string& message);

  /// Closes the descriptor if there is one.
  void Disconnect();

 protected:
  SockConnection() = default;

  int fd_ = -1;
};

/// The client's end of a connection to the unix stream socket at a path.
class NIMO_EXPORT DomainSockConnection : public SockConnection {
 public:
  /// Connects to nothing yet.
  explicit DomainSockConnection(const std::string& path);

  /// Connects, waiting at most `timeout` (on stock Linux in seconds) for a daemon that is too busy to accept. False,
  /// with no descriptor left open, on failure.
  bool Connect(long timeout);

 private:
  std::string path_;
};

}  // namespace nimodaemon
