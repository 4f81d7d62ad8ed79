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

void DaemonDouble::ForgiveClients() {
  forgives_ = true;
}

// False without a whole command, which fails the test unless it is forgiven.
bool DaemonDouble::Read(int connection, std::string& text) const {
  std::uint64_t size = 0;
  const bool is_sized = ReadAll(connection, &size, sizeof(size)) && size > 0 && size <= 4096;
  text.assign(is_sized ? size : 1, '\0');
  const bool is_whole = is_sized && ReadAll(connection, text.data(), text.size()) && text.back() == '\0';
  text.pop_back();
  EXPECT_TRUE(is_whole || forgives_) << "no whole command came, size=" << size << " " << text;
  return is_whole;
}

void DaemonDouble::Serve(int connection) {
  std::string text;
  if (!Read(connection, text)) {
    return;
  }
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
  const std::uint64_t size = sizeof(kAnswer);
  const bool is_sent =
      send(connection, &size, sizeof(size), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(size)) &&
      send(connection, kAnswer, sizeof(kAnswer), MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof(kAnswer));
  EXPECT_TRUE(is_sent || forgives_) << text;
}

}  // namespace orbisk::fileindex::test
