// Whole messages over unix stream sockets: a length of 8 bytes in host byte order, then that many bytes.
#include "nimo/daemon_connection.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "platform/linux/last_error.h"

namespace nimodaemon {
namespace {

constexpr std::uint64_t kMaxMessageBytes = std::uint64_t{1} << 30;
constexpr std::uint64_t kReceiveStepBytes = std::uint64_t{1} << 20;

// Sends all of two pieces with as few calls as the kernel allows. False with errno set on failure.
bool SendAll(int fd, iovec (&pieces)[2]) {
  size_t first = 0;
  while (first < std::size(pieces)) {
    msghdr message = {};
    message.msg_iov = pieces + first;
    message.msg_iovlen = std::size(pieces) - first;
    const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) {
      continue;
    }
    if (sent < 0) {
      return false;
    }
    auto rest = static_cast<size_t>(sent);
    while (first < std::size(pieces) && rest >= pieces[first].iov_len) {
      rest -= pieces[first].iov_len;
      ++first;
    }
    if (first < std::size(pieces)) {
      pieces[first].iov_base = static_cast<char*>(pieces[first].iov_base) + rest;
      pieces[first].iov_len -= rest;
    }
  }
  return true;
}

bool ReceiveAll(int fd, void* buffer, size_t bytes) {
  for (size_t got = 0; got < bytes;) {
    const ssize_t count = recv(fd, static_cast<char*>(buffer) + got, bytes - got, MSG_WAITALL);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      errno = count == 0 ? ECONNRESET : errno;
      return false;
    }
    got += static_cast<size_t>(count);
  }
  return true;
}

// Takes memory as the bytes come, not as the other end announces them.
bool ReceiveText(int fd, std::uint64_t size, std::string& text) {
  while (text.size() < size) {
    const size_t old_size = text.size();
    const auto step = static_cast<size_t>(std::min(size - old_size, kReceiveStepBytes));
    text.resize(old_size + step);
    if (!ReceiveAll(fd, text.data() + old_size, step)) {
      return false;
    }
  }
  return true;
}

}  // namespace

SockConnection::~SockConnection() {
  SockConnection::Disconnect();
}

bool SockConnection::Send(const std::string& message) {
  if (fd_ == -1 || message.size() > kMaxMessageBytes) {
    NIMO_FAIL(fd_ == -1 ? ENOTCONN : EMSGSIZE);
    return false;
  }
  std::uint64_t size = message.size();
  iovec pieces[] = {{&size, sizeof(size)}, {const_cast<char*>(message.data()), message.size()}};
  if (!SendAll(fd_, pieces)) {
    NIMO_FAIL_ERRNO();
    return false;
  }
  return true;
}

bool SockConnection::Recv(std::string& message) {
  std::uint64_t size = 0;
  if (fd_ == -1) {
    NIMO_FAIL(ENOTCONN);
    return false;
  }
  if (!ReceiveAll(fd_, &size, sizeof(size))) {
    NIMO_FAIL_ERRNO();
    return false;
  }
  if (size > kMaxMessageBytes) {
    NIMO_FAIL(EMSGSIZE);
    return false;
  }
  std::string text;
  if (!ReceiveText(fd_, size, text)) {
    NIMO_FAIL_ERRNO();
    return false;
  }
  message = std::move(text);
  return true;
}

void SockConnection::Disconnect() {
  if (fd_ != -1) {
    close(fd_);
    fd_ = -1;
  }
}

DomainSockConnection::DomainSockConnection(const std::string& path) : path_(path) {}

bool DomainSockConnection::Connect(long timeout) {
  Disconnect();
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof(address.sun_path) || path_.find('\0') != std::string::npos) {
    NIMO_FAIL(ENAMETOOLONG);
    return false;
  }
  memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ == -1) {
    NIMO_FAIL_ERRNO();
    return false;
  }
  // A unix socket connects at once, or waits while the daemon's backlog is full; the send timeout bounds that wait.
  const timeval wait = {timeout, 0};
  setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof(wait));
  int result = 0;
  do {
    result = connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    NIMO_FAIL_ERRNO();
    Disconnect();
    return false;
  }
  const timeval forever = {};
  setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &forever, sizeof(forever));
  return true;
}

}  // namespace nimodaemon
