// The indexing daemon as seen from its socket.
#include "tests/unit/fileindex/daemon_double.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "tests/unit/fileindex/config_box.h"

namespace orbisk::fileindex::test {
namespace {

bool ReadAll(int fd, void* buffer, size_t size) {
  return recv(fd, buffer, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

}  // namespace

DaemonDouble::DaemonDouble() : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  unlink(kDaemonSocket);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, kDaemonSocket, sizeof(kDaemonSocket));
  EXPECT_EQ(0, bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  EXPECT_EQ(0, listen(listener_, 8));
  thread_ = std::thread([this] { Run(); });
}

DaemonDouble::~DaemonDouble() {
  shutdown(listener_, SHUT_RDWR);  // ends the wait for connections
  thread_.join();
  close(listener_);
  unlink(kDaemonSocket);
}

void DaemonDouble::OnCommand(std::function<void()> action) {
  const std::lock_guard lock(mutex_);
  action_ = std::move(action);
}

std::vector<std::string> DaemonDouble::commands() const {
  const std::lock_guard lock(mutex_);
  return commands_;
}

void DaemonDouble::Run() {
  while (true) {
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) {
      return;
    }
    Serve(connection);
    close(connection);
  }
}

void DaemonDouble::Serve(int connection) {
  std::uint64_t size = 0;
  if (!ReadAll(connection, &size, sizeof(size)) || size == 0 || size > 4096) {
    ADD_FAILURE() << "no command came, size=" << size;
    return;
  }
  std::string text(size, '\0');
  const bool is_whole = ReadAll(connection, text.data(), text.size()) && text.back() == '\0';
  EXPECT_TRUE(is_whole) << text;
  text.pop_back();
  std::function<void()> action;
  {
    const std::lock_guard lock(mutex_);
    commands_.push_back(text);
    action = action_;
  }
  if (action) {
    action();
  }
  static constexpr char kAnswer[] = "{}";
  const std::uint64_t answer_size = sizeof(kAnswer);
  EXPECT_EQ(static_cast<ssize_t>(sizeof(answer_size)),
            send(connection, &answer_size, sizeof(answer_size), MSG_NOSIGNAL));
  EXPECT_EQ(static_cast<ssize_t>(sizeof(kAnswer)), send(connection, kAnswer, sizeof(kAnswer), MSG_NOSIGNAL));
}

}  // namespace orbisk::fileindex::test
