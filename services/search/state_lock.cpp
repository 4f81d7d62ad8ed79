// flock on a file that tells who holds it.
#include "services/search/state_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace nimoelasticd {

StateLock::StateLock(const std::string& folder) {
  std::filesystem::create_directories(folder);
  const std::string path = folder + "/lock";
  file_ = UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file_.valid()) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
    char holder[32] = {};
    const ssize_t length = pread(file_.get(), holder, sizeof(holder) - 1, 0);
    throw std::runtime_error(path + " is held by process " + (length > 0 ? holder : "unknown"));
  }
  const std::string pid = std::to_string(getpid());
  if (ftruncate(file_.get(), 0) != 0 ||
      pwrite(file_.get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    throw std::system_error(errno, std::generic_category(), path);
  }
}

}  // namespace nimoelasticd
