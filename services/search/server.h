// The socket and its connections.
#pragma once

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <list>
#include <string>
#include <unordered_map>

#include "services/base/listener.h"
#include "services/search/dispatcher.h"
#include "services/search/memory_gauge.h"
#include "services/search/session.h"

namespace nimoelasticd {

struct ServerOptions {
  std::string socket = "/var/run/nimoelasticd.sock";
  std::string group = "Orbisk";                 ///< may use the socket too, if there is such a group
  size_t max_connections = 1024;                ///< at once; at least 2
  size_t max_memory_bytes = size_t{512} << 20;  ///< of requests and answers
  std::chrono::milliseconds patience{30'000};   ///< with clients that neither send nor take anything
};

/// Accepts connections and gives each a Session. When there are too many, the one that has been sending its request for
/// the longest time is cut off: those who send at once are served, however many others are silent.
///
/// Threads: the event loop's.
class Server {
 public:
  /// What is referred to outlives this, and `context` runs on one thread.
  Server(boost::asio::io_context& context, Dispatcher& dispatcher, ServerOptions options);

  /// Listens (mode 0660, root and the group). Throws std::runtime_error if it cannot.
  void Open();
  /// Closes the socket and cuts off whoever is not being worked for.
  void Close();

 private:
  void OnClient(service::Listener::Socket socket);
  void OnChange(Session& session, Session::Phase phase);
  void MakeRoom();

  Dispatcher& dispatcher_;
  const ServerOptions options_;
  MemoryGauge memory_;
  service::Listener listener_;
  std::list<Session*> readers_;                                         // longest first
  std::unordered_map<Session*, std::list<Session*>::iterator> places_;  // in readers_
  size_t connections_ = 0;
};

}  // namespace nimoelasticd
