// The socket that clients ask over.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <memory>

#include "services/extractor/options.h"
#include "services/extractor/service.h"

namespace extractor {

/// Takes connections, each with any number of requests one after another. A client that does not send a whole request,
/// or does not take the answer, within `options.patience` loses its connection. At most `options.connections` are
/// served at a time.
///
/// Threads: that of the context.
class Server {
 public:
  /// `options` and `service` must outlive the context's run.
  Server(boost::asio::io_context& context, const Options& options, Service& service);
  /// Removes the socket.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Listens, for root and the group of the options. A socket that is left over is replaced, so the caller must know
  /// that no other daemon runs. Throws std::exception.
  void Open();

 private:
  void Accept();
  void Restrict();

  boost::asio::io_context& context_;
  const Options& options_;
  Service& service_;
  boost::asio::local::stream_protocol::acceptor acceptor_;
  bool bound_ = false;
  bool accepting_ = false;
  size_t connections_ = 0;
  // Sessions may live until the context goes, which is after this object.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace extractor
