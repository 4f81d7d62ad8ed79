// The indexing daemon as its clients see it.
#include "tests/support/indexer_double.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <utility>

#include "tests/support/local_socket.h"

namespace orbisk::test {
namespace {

constexpr char kSocket[] = "/var/run/fileindexd.sock";
constexpr std::uint64_t kLongestCommand = 4096;

// Whether a client, or the end of the socket, waits to be seen within `milliseconds`; -1 is for ever.
bool IsAwaited(int listener, int milliseconds) {
  pollfd entry{listener, POLLIN, 0};
  return poll(&entry, 1, milliseconds) > 0;
}

bool ReadAll(int fd, void* buffer, size_t bytes) {
  return recv(fd, buffer, bytes, MSG_WAITALL) == static_cast<ssize_t>(bytes);
}

// What came instead of a command is in `text` then.
bool ReadCommand(int connection, std::string& text) {
  std::uint64_t bytes = 0;
  text = "no command";
  if (!ReadAll(connection, &bytes, sizeof(bytes)) || bytes == 0 || bytes > kLongestCommand) {
    return false;
  }
  text.assign(bytes, '\0');
  const bool is_whole = ReadAll(connection, text.data(), text.size()) && text.back() == '\0';
  text.pop_back();
  return is_whole;
}

bool SendAnswer(int connection) {
  static constexpr char kAnswer[] = "{}";
  const std::uint64_t bytes = sizeof(kAnswer);
  return send(connection, &bytes, sizeof(bytes), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(bytes)) &&
         send(connection, kAnswer, sizeof(kAnswer), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(kAnswer));
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

void IndexerDouble::ForgiveClients() {
  forgives_ = true;
}

// A client is waiting or being served at any time, so that it is not overlooked between the two.
void IndexerDouble::Settle() const {
  while (IsAwaited(listener_, 0) || serves_) {
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
}

void IndexerDouble::Run() {
  while (true) {
    if (!IsAwaited(listener_, -1)) {
      continue;
    }
    serves_ = true;
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) {
      return;
    }
    Serve(connection);
    close(connection);
    serves_ = false;
  }
}

void IndexerDouble::Serve(int connection) {
  std::string text;
  if (!ReadCommand(connection, text)) {
    Complain("[" + text + "]");
    return;
  }
  Record(text);
  if (!SendAnswer(connection)) {
    Complain("[nobody took the answer to " + text + "]");
  }
}

void IndexerDouble::Record(const std::string& text) {
  std::function<void()> action;
  {
    const std::lock_guard lock(mutex_);
    commands_.push_back(text);
    action = action_;
  }
  if (action) {
    action();
  }
}

void IndexerDouble::Complain(const std::string& text) {
  if (!forgives_) {
    Record(text);
  }
}

}  // namespace orbisk::test
