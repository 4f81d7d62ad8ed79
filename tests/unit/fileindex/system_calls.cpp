// Replaces functions of the C library in the test program.
#include "tests/unit/fileindex/system_calls.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <memory>

namespace orbisk::fileindex::test {
namespace {

struct Watch {
  std::function<void(const SystemCall&)> see;
  bool seeing = false;
};

struct Failure {
  size_t calls_to_go = 0;
  int error = 0;
  std::string failed;
};

thread_local std::unique_ptr<Watch> watch;
thread_local std::unique_ptr<Failure> failure;

bool IsWatched() {
  return watch != nullptr && !watch->seeing;
}

std::string PathOf(int fd) {
  char target[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t size = readlink(link.c_str(), target, sizeof(target));
  return size < 0 ? "" : std::string(target, static_cast<size_t>(size));
}

// Whether the call has to fail; errno is set then.
bool Fails(const SystemCall& call) {
  if (!IsWatched()) {
    return false;
  }
  if (failure != nullptr && failure->calls_to_go > 0 && --failure->calls_to_go == 0) {
    failure->failed = call.function + " " + call.path;
    errno = failure->error;
    return true;
  }
  const int saved_errno = errno;
  watch->seeing = true;
  watch->see(call);
  watch->seeing = false;
  errno = saved_errno;
  return false;
}

bool Fails(const char* function, const char* path) {
  return Fails({function, path != nullptr ? path : "", 0, {}});
}

bool Fails(const char* function, int fd, int operation = 0, std::string_view data = {}) {
  if (!IsWatched()) {
    return false;  // what the descriptor leads to is not asked for nothing
  }
  const int saved_errno = errno;
  const std::string path = PathOf(fd);
  errno = saved_errno;
  return Fails({function, path, operation, data});
}

}  // namespace

SystemCalls::SystemCalls(std::function<void(const SystemCall&)> see) {
  watch = std::make_unique<Watch>(Watch{std::move(see)});
}

SystemCalls::~SystemCalls() {
  watch = nullptr;
}

SystemFailure::SystemFailure(size_t nth, int error) {
  failure = std::make_unique<Failure>(Failure{nth, error, ""});
}

SystemFailure::~SystemFailure() {
  failure = nullptr;
}

std::string SystemFailure::failed() const {
  return failure->failed;
}

}  // namespace orbisk::fileindex::test

using orbisk::fileindex::test::Fails;

extern "C" {

int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return Fails("open", path) ? -1 : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int mkostemp(char* path, int flags) {
  return Fails("mkostemp", path) ? -1 : mkostemps(path, 0, flags);
}

ssize_t read(int fd, void* buffer, size_t size) {
  return Fails("read", fd) ? -1 : syscall(SYS_read, fd, buffer, size);
}

ssize_t write(int fd, const void* buffer, size_t size) {
  return Fails("write", fd, 0, {static_cast<const char*>(buffer), size}) ? -1 : syscall(SYS_write, fd, buffer, size);
}

int fsync(int fd) {
  return Fails("fsync", fd) ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}

int fchmod(int fd, mode_t mode) noexcept {
  return Fails("fchmod", fd) ? -1 : static_cast<int>(syscall(SYS_fchmod, fd, mode));
}

int chmod(const char* path, mode_t mode) noexcept {
  return Fails("chmod", path) ? -1 : static_cast<int>(syscall(SYS_fchmodat, AT_FDCWD, path, mode));
}

int rename(const char* from, const char* to) noexcept {
  return Fails("rename", to) ? -1 : static_cast<int>(syscall(SYS_renameat, AT_FDCWD, from, AT_FDCWD, to));
}

int unlink(const char* path) noexcept {
  return Fails("unlink", path) ? -1 : static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

int flock(int fd, int operation) noexcept {
  return Fails("flock", fd, operation) ? -1 : static_cast<int>(syscall(SYS_flock, fd, operation));
}

int socket(int domain, int type, int protocol) noexcept {
  return Fails("socket", "") ? -1 : static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  return Fails("connect", "") ? -1 : static_cast<int>(syscall(SYS_connect, fd, address, size));
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  return Fails("setsockopt", "") ? -1 : static_cast<int>(syscall(SYS_setsockopt, fd, level, name, value, size));
}
}
