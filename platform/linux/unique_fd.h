// A descriptor and a directory stream that close themselves.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

namespace nimo {

/// Owns a descriptor. Closing at destruction leaves errno alone, so that a failure's errno reaches its report.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }

  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }
  /// Closes and tells whether the file system took all that was written; errno says why not.
  bool Close() { return close(std::exchange(fd_, -1)) == 0; }

 private:
  void Reset() {
    if (fd_ >= 0) {
      const int saved_errno = errno;
      close(fd_);
      errno = saved_errno;
    }
  }

  int fd_;
};

struct CloseDirStream {
  void operator()(DIR* stream) const {
    const int saved_errno = errno;
    closedir(stream);
    errno = saved_errno;
  }
};

/// Owns a directory stream; dirfd(3) is its descriptor.
using UniqueDir = std::unique_ptr<DIR, CloseDirStream>;

}  // namespace nimo
