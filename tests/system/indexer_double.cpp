// The indexing daemon as its clients see it.
#include "tests/system/indexer_double.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>

namespace orbisk::test {
namespace {

constexpr char kSocket[] = "/var/run/fileindexd.sock";
constexpr std::uint64_t kLongestCommand = 4096;

bool ReadAll(int fd, void* buffer, size_t bytes) {
  return recv(fd, buffer, bytes, MSG_WAITALL) == static_cast<ssize_t>(bytes);
}

std::string ReadCommand(int connection) {
  std::uint64_t bytes = 0;
  if (!ReadAll(connection, &bytes, sizeof(bytes)) || bytes > kLongestCommand) {
    return "no command";
  }
  std::string command(bytes, '\0');
  return ReadAll(connection, command.data(), command.size()) ? command : "half a command";
}

void SendAnswer(int connection) {
  constexpr char kAnswer[] = "{}";
  const std::uint64_t bytes = sizeof(kAnswer);
  send(connection, &bytes, sizeof(bytes), MSG_NOSIGNAL);
  send(connection, kAnswer, sizeof(kAnswer), MSG_NOSIGNAL);
}

}  // namespace

IndexerDouble::IndexerDouble() : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, kSocket, sizeof(kSocket));
  unlink(kSocket);
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 || listen(listener_, 8) != 0) {
    const int error = errno;
    close(listener_);
    throw std::system_error(error, std::generic_category(), kSocket);
  }
  thread_ = std::thread([this] { Run(); });
}

IndexerDouble::~IndexerDouble() {
  shutdown(listener_, SHUT_RDWR);  // ends the wait for connections
  thread_.join();
  close(listener_);
  unlink(kSocket);
}

std::vector<std::string> IndexerDouble::commands() const {
  const std::lock_guard lock(mutex_);
  return commands_;
}

void IndexerDouble::Run() {
  while (true) {
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) {
      return;
    }
    const std::string command = ReadCommand(connection);
    {
      const std::lock_guard lock(mutex_);
      commands_.push_back(command);
    }
    SendAnswer(connection);
    close(connection);
  }
}

}  // namespace orbisk::test
