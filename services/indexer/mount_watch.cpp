// proc(5), /proc/PID/mountinfo: an exceptional condition after every change.
#include "services/indexer/mount_watch.h"

#include <fcntl.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "services/base/log.h"

namespace fileindexd {

MountWatch::MountWatch(boost::asio::io_context& context, std::function<void()> on_change)
    : on_change_(std::move(on_change)), table_(context) {
  const int fd = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    service::Record(LOG_WARNING, "mounts_unknown").Add("reason", std::generic_category().message(errno));
    return;
  }
  table_.assign(fd);
  Wait();
}

void MountWatch::Wait() {
  table_.async_wait(boost::asio::posix::stream_descriptor::wait_error, [this](const boost::system::error_code& error) {
    if (!error) {
      on_change_();
      Wait();
    }
  });
}

}  // namespace fileindexd
