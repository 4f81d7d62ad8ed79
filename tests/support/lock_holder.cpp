// Locks on files as another process holds and sees them.
#include "tests/support/lock_holder.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace orbisk::test {
namespace {

bool Lock(int fd, int operation) {
  return fd >= 0 && syscall(SYS_flock, fd, operation) == 0;
}

[[noreturn]] void Hold(const std::string& path, int ready) {
  const int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
  const bool locked = Lock(fd, LOCK_EX);
  const long written = syscall(SYS_write, ready, locked ? "y" : "n", 1);
  while (locked && written == 1) {
    pause();
  }
  _exit(1);
}

}  // namespace

LockHolder::LockHolder(const std::string& path) {
  std::array<int, 2> ready{};
  if (pipe2(ready.data(), O_CLOEXEC) != 0 || (pid_ = fork()) < 0) {
    throw std::runtime_error("no process to hold the lock on " + path);
  }
  if (pid_ == 0) {
    Hold(path, ready[1]);
  }
  char answer = 0;
  const long received = syscall(SYS_read, ready[0], &answer, 1);
  close(ready[0]);
  close(ready[1]);
  if (received != 1 || answer != 'y') {
    Release();
    throw std::runtime_error("the lock cannot be had: " + path);
  }
}

void LockHolder::Release() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
}

bool IsLocked(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const bool locked = !Lock(fd, LOCK_EX | LOCK_NB);
  close(fd);
  return locked;
}

}  // namespace orbisk::test
