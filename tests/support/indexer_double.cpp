// The indexing daemon as its clients see it.
#include "tests/support/indexer_double.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "tests/support/local_socket.h"

namespace orbisk::test {
namespace {

constexpr char kSocket[] = "/var/run/fileindexd.sock";
constexpr std::uint64_t kLongestCommand = 4096;

bool ReadAll(int fd, void* buffer, size_t bytes) {
  return recv(fd, buffer, bytes, MSG_WAITALL) == static_cast<ssize_t>(bytes);
}

std::string ReadCommand(int connection) {
  std::uint64_t bytes = 0;
  if (!ReadAll(connection, &bytes, sizeof(bytes)) || bytes == 0 || bytes > kLongestCommand) {
    return "[no command]";
  }
  std::string command(bytes, '\0');
  if (!ReadAll(connection, command.data(), command.size())) {
    return "[half a command]";
  }
  if (command.back() != '\0') {
    return "[no NUL byte: " + command + "]";
  }
  command.pop_back();
  return command;
}

void SendAnswer(int connection) {
  constexpr char kAnswer[] = "{}";
  const std::uint64_t bytes = sizeof(kAnswer);
  send(connection, &bytes, sizeof(bytes), MSG_NOSIGNAL);
  send(connection, kAnswer, sizeof(kAnswer), MSG_NOSIGNAL);
}

}  // namespace

IndexerDouble::IndexerDouble() : listener_(ListenAt(kSocket)), thread_([this] { Run(); }) {}

IndexerDouble::~IndexerDouble() {
  shutdown(listener_, SHUT_RDWR);  // ends the wait for connections
  thread_.join();
  close(listener_);
  unlink(kSocket);
}

void IndexerDouble::OnCommand(std::function<void()> action) {
  const std::lock_guard lock(mutex_);
  action_ = std::move(action);
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
    std::function<void()> action;
    {
      const std::lock_guard lock(mutex_);
      commands_.push_back(command);
      action = action_;
    }
    if (action) {
      action();
    }
    SendAnswer(connection);
    close(connection);
  }
}

}  // namespace orbisk::test
