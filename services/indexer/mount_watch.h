// Tells when file systems are mounted, unmounted, or made writable: no file of the configuration changes with them.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <functional>

namespace fileindexd {

/// Calls `on_change` after each change of this process' mount table. Where that cannot be opened, it never does.
///
/// Threads: that of the event loop.
class MountWatch {
 public:
  MountWatch(boost::asio::io_context& context, std::function<void()> on_change);
  MountWatch(const MountWatch&) = delete;
  MountWatch& operator=(const MountWatch&) = delete;

 private:
  void Wait();

  const std::function<void()> on_change_;
  boost::asio::posix::stream_descriptor table_;
};

}  // namespace fileindexd
