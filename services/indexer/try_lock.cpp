// flock(2).
#include "services/indexer/try_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace fileindexd {

// With fs.protected_regular the kernel refuses O_CREAT for a file in /tmp that belongs to somebody else.
service::UniqueFd TryLock(const std::string& path) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  int fd = open(path.c_str(), kFlags | O_CREAT, 0644);
  if (fd < 0 && errno == EACCES) {
    fd = open(path.c_str(), kFlags);
  }
  service::UniqueFd lock(fd);
  if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0) {
    lock = service::UniqueFd();
  }
  return lock;
}

}  // namespace fileindexd
