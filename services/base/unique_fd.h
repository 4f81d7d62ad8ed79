// A descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <utility>

namespace service {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Close();
      fd_ = other.Release();
    }
    return *this;
  }
  ~UniqueFd() { Close(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  /// Gives the descriptor away; the caller closes it.
  int Release() { return std::exchange(fd_, -1); }
  void Close() {
    if (fd_ >= 0) {
      close(Release());
    }
  }

 private:
  int fd_ = -1;
};

}  // namespace service
