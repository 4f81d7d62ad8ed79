// The command channel to the indexing daemon: a length in host byte order, then that many bytes, in both directions.
#include "orbisk/fileindex/communication.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/check.h"
#include "common/file_descriptor.h"
#include "orbisk/json.h"

namespace orbisk::fileindex {
namespace {

constexpr char kDaemonSocketPath[] = "/var/run/fileindexd.sock";
constexpr int kConnectAttempts = 5;
constexpr unsigned kConnectPauseSeconds = 1;
constexpr unsigned long kSliceBytes = 1024;
constexpr int kInterruptionsGoneOver = 10;

struct Free {
  void operator()(unsigned char* buffer) const { free(buffer); }
};

// Waits for a daemon that has no socket yet. Other failures are left to the first write, which fails for them.
void ConnectLeniently(int fd_socket) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, kDaemonSocketPath, sizeof(kDaemonSocketPath));
  for (int attempt = 1; 0 > connect(fd_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
       ++attempt) {
    if (ENOENT != errno || attempt == kConnectAttempts) {
      return;
    }
    sleep(kConnectPauseSeconds);
  }
}

// Reads the answer to its end, so that the daemon is done with the connection, and drops it.
void DropReply(int fd_socket) {
  std::uint64_t size = 0;
  BufferRead(fd_socket, sizeof(size), reinterpret_cast<unsigned char*>(&size));
  const std::unique_ptr<unsigned char, Free> reply(static_cast<unsigned char*>(malloc(std::max<size_t>(size, 1))));
  ORBISK_CHECK(!reply, 502, "read failed, reason=" + GetErrnoStr());
  BufferRead(fd_socket, size, reply.get());
}

}  // namespace

void SendCommandToDaemon(const std::string& type, const Json::Value& data) {
  // For the whole process and for good: the caller must not die of a daemon that has gone away.
  signal(SIGPIPE, SIG_IGN);

  int fd_socket = -1;
  ORBISK_CHECK(0 > (fd_socket = socket(PF_UNIX, SOCK_STREAM, 0)), 502, "socket failed, reason=" + GetErrnoStr());
  const FileDescriptor owner(fd_socket);
  fcntl(fd_socket, F_SETFD, FD_CLOEXEC);
  ConnectLeniently(fd_socket);

  timeval timeout = {1, 0};
  ORBISK_CHECK_TEXT(0 > setsockopt(fd_socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)),
                    "0 > setsockopt(fd_socket, SOL_SOCKET, SO_SNDTIMEO, (char *)&timeout, sizeof(timeout))", 502,
                    "setsockopt failed, reason=" + GetErrnoStr());

  Json::Value command;
  command["type"] = type;
  command["data"] = data;
  const std::string text = toString(command);
  const std::uint64_t size = text.size() + 1;  // with the NUL byte at its end
  BufferWrite(fd_socket, sizeof(size), reinterpret_cast<const unsigned char*>(&size));
  BufferWrite(fd_socket, size, reinterpret_cast<const unsigned char*>(text.c_str()));
  DropReply(fd_socket);
}

void BufferWrite(int fd, unsigned long size, const unsigned char* buf) {
  int retries = kInterruptionsGoneOver;
  unsigned long written = 0;
  while (written < size) {
    const ssize_t count = write(fd, buf + written, std::min(kSliceBytes, size - written));
    if (count > 0) {
      written += static_cast<unsigned long>(count);
      continue;
    }
    ORBISK_CHECK(EINTR != errno || 0 == retries, 502, "write failed, reason=" + GetErrnoStr());
    --retries;
  }
}

void BufferRead(int fd, unsigned long size, unsigned char* buf) {
  int retries = kInterruptionsGoneOver;
  unsigned long got = 0;
  while (got < size) {
    const ssize_t count = read(fd, buf + got, std::min(kSliceBytes, size - got));
    if (count >= 0) {
      // At the end of the stream 0 comes back for ever: the daemon always answers in full, so it is waited for.
      got += static_cast<unsigned long>(count);
      continue;
    }
    ORBISK_CHECK(EINTR != errno || 0 == retries, 502, "read failed, reason=" + GetErrnoStr());
    --retries;
  }
}

}  // namespace orbisk::fileindex
