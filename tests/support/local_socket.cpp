// Both ends of Unix stream sockets.
#include "tests/support/local_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace orbisk::test {
namespace {

// A stream socket with its address.
struct Local {
  explicit Local(const std::string& path) {
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
      throw std::invalid_argument("too long for a socket: " + path);
    }
    path.copy(address.sun_path, path.size());
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  }
  const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&address); }

  sockaddr_un address{};
  int fd = -1;
};

void CloseKeepingErrno(int fd) {
  const int error = errno;
  close(fd);
  errno = error;
}

}  // namespace

int ListenAt(const std::string& path, int backlog) {
  const Local local(path);
  unlink(path.c_str());
  if (bind(local.fd, local.Address(), sizeof(local.address)) != 0 || listen(local.fd, backlog) != 0) {
    CloseKeepingErrno(local.fd);
    throw std::system_error(errno, std::generic_category(), path);
  }
  return local.fd;
}

int ConnectTo(const std::string& path) {
  const Local local(path);
  if (connect(local.fd, local.Address(), sizeof(local.address)) != 0) {
    CloseKeepingErrno(local.fd);
    return -1;
  }
  return local.fd;
}

bool SomebodyListensAt(const std::string& path) {
  const int fd = ConnectTo(path);
  if (fd >= 0) {
    close(fd);
  }
  return fd >= 0;
}

}  // namespace orbisk::test
