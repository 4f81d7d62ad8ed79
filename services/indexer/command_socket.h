// The daemon's socket: a length and so many bytes, in both directions.
#pragma once

#include <json/json.h>

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "services/base/listener.h"

namespace fileindexd {

/// Answers the messages of any number of clients, up to a bound, with what `handle` makes of each. A client that sends
/// what is no message is cut off, and so is one that neither sends a whole message nor takes its answer in time,
/// so that the silent leave room; others do not notice.
///
/// Threads: that of the event loop.
class CommandSocket {
 public:
  /// Answers one message; `answer` is called once, perhaps later.
  using Handle = std::function<void(const Json::Value& message, std::function<void(const Json::Value& answer)> answer)>;

  static constexpr std::chrono::seconds kPatience{30};

  /// All arguments outlive it. Listens from Open on. A whole message may take `patience`, and so may its answer.
  CommandSocket(boost::asio::io_context& context, std::string path, Handle handle,
                std::chrono::milliseconds patience = kPatience);
  ~CommandSocket();
  CommandSocket(const CommandSocket&) = delete;
  CommandSocket& operator=(const CommandSocket&) = delete;

  /// Throws std::runtime_error as service::Listener does. `group` may use the socket besides root, if there is one.
  void Open(const std::string& group);
  /// Lets nobody else in and removes the socket. Who is connected is served as before.
  void Close();

 private:
  class Session;
  struct Gate;

  void Serve(service::Listener::Socket socket);
  void OnEnd();

  Handle handle_;
  const std::chrono::milliseconds patience_;  // for a whole message, and for an answer to be taken
  std::shared_ptr<Gate> gate_;
  int clients_ = 0;
  service::Listener listener_;
};

}  // namespace fileindexd
