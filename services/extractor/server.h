// The socket that clients ask over.
#pragma once

#include <boost/asio/io_context.hpp>
#include <memory>

#include "services/base/listener.h"
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

  /// Listens, for root and the group of the options. Throws std::runtime_error if it cannot.
  void Open();

 private:
  void OnClient(service::Listener::Socket socket);

  boost::asio::io_context& context_;
  const Options& options_;
  Service& service_;
  service::Listener listener_;
  size_t connections_ = 0;
  // Sessions may live until the context goes, which is after this object.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace extractor
