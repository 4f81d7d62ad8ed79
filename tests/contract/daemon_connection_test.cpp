// Connections to daemons on stock Linux: framing, bounds, and what a lost daemon looks like.
#include "nimo/daemon_connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/local_socket.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

using nimodaemon::DomainSockConnection;

// A daemon that does what the test says with the one connection it gets.
class OneConnection {
 public:
  explicit OneConnection(const std::string& path) : listener_(ListenAt(path, 1)) {}
  ~OneConnection() {
    Close();
    close(listener_);
  }
  OneConnection(const OneConnection&) = delete;
  OneConnection& operator=(const OneConnection&) = delete;

  void Accept() { fd_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC); }
  void Close() {
    if (fd_ >= 0) {
      close(fd_);
      fd_ = -1;
    }
  }
  void Write(const std::string& bytes) { send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  void WriteLength(std::uint64_t length) { Write({reinterpret_cast<const char*>(&length), sizeof(length)}); }
  // Waits until the client has sent what the kernel holds for us, and more does not come.
  void AwaitFull() const {
    int before = 0;
    int bytes = 0;
    do {
      before = bytes;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (ioctl(fd_, FIONREAD, &bytes) == 0 && (bytes == 0 || bytes != before));
  }
  std::string Read(size_t count) {
    std::string bytes(count, '\0');
    const ssize_t got = recv(fd_, bytes.data(), count, MSG_WAITALL);
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
  }

 private:
  int listener_;
  int fd_ = -1;
};

class DaemonConnection : public testing::Test {
 protected:
  void Connect() {
    ASSERT_TRUE(connection_.Connect(10));
    daemon_.Accept();
  }

  TempDir dir_;
  OneConnection daemon_{dir_ / "socket"};
  DomainSockConnection connection_{dir_ / "socket"};
};

TEST_F(DaemonConnection, MessageGoesOutBehindItsLengthInHostOrder) {
  Connect();
  const std::string message("a\0\xff{}", 5);

  ASSERT_TRUE(connection_.Send(message));

  const std::string frame = daemon_.Read(13);
  ASSERT_EQ(13U, frame.size());
  const std::uint64_t length = 5;
  EXPECT_EQ(0, memcmp(frame.data(), &length, sizeof(length)));
  EXPECT_EQ(message, frame.substr(8));
}

TEST_F(DaemonConnection, MessageComesInWholeHoweverItIsCut) {
  Connect();
  const std::string message(3'000'000, 'm');
  std::thread daemon([&] {
    daemon_.WriteLength(message.size());
    for (size_t at = 0; at < message.size(); at += 700'001) {
      daemon_.Write(message.substr(at, 700'001));
    }
  });

  std::string received = "old";
  EXPECT_TRUE(connection_.Recv(received));

  daemon.join();
  EXPECT_EQ(message, received);
}

TEST_F(DaemonConnection, EmptyMessagesPassInBothDirections) {
  Connect();
  daemon_.WriteLength(0);
  std::string received = "old";

  EXPECT_TRUE(connection_.Send(""));
  EXPECT_TRUE(connection_.Recv(received));

  EXPECT_EQ("", received);
  EXPECT_EQ(std::string(8, '\0'), daemon_.Read(8));
}

TEST_F(DaemonConnection, LengthOverTheBoundIsRefusedWithoutWaitingForIt) {
  Connect();
  daemon_.WriteLength((std::uint64_t{1} << 30) + 1);
  std::string received = "old";

  EXPECT_FALSE(connection_.Recv(received));

  EXPECT_EQ("old", received);
}

TEST_F(DaemonConnection, MessageThatEndsTooEarlyIsAFailureAndLeavesTheOldText) {
  Connect();
  daemon_.WriteLength(10);
  daemon_.Write("short");
  daemon_.Close();
  std::string received = "old";

  EXPECT_FALSE(connection_.Recv(received));

  EXPECT_EQ("old", received);
}

TEST_F(DaemonConnection, SendingToADaemonThatIsGoneFailsWithoutASignal) {
  Connect();
  daemon_.Close();

  EXPECT_FALSE(connection_.Send(std::string(1'000'000, 'x')));
}

TEST_F(DaemonConnection, MessageGoesOutWholeThoughItIsReadLate) {
  Connect();
  const std::string message = std::string(2'000'000, 'm') + std::string(2'000'000, 'n');
  std::string received;
  std::thread daemon([&] {
    daemon_.AwaitFull();
    received = daemon_.Read(8 + message.size());
  });

  EXPECT_TRUE(connection_.Send(message));

  connection_.Disconnect();
  daemon.join();
  ASSERT_EQ(8 + message.size(), received.size());
  EXPECT_TRUE(message == received.substr(8));
}

TEST_F(DaemonConnection, WhatConnectingMayTakeDoesNotLimitSending) {
  // The kernel's own word, as nobody need wait then.
  class Opened : public DomainSockConnection {
   public:
    using DomainSockConnection::DomainSockConnection;
    timeval SendLimit() const {
      timeval limit = {-1, -1};
      socklen_t size = sizeof(limit);
      getsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, &size);
      return limit;
    }
  };
  Opened connection(dir_ / "socket");

  ASSERT_TRUE(connection.Connect(1));

  EXPECT_EQ(0, connection.SendLimit().tv_sec);
  EXPECT_EQ(0, connection.SendLimit().tv_usec);
}

TEST_F(DaemonConnection, DaemonThatDoesNotAcceptIsWaitedForAsLongAsTheCallerSays) {
  std::vector<std::unique_ptr<DomainSockConnection>> waiting;
  std::chrono::steady_clock::time_point last;
  bool connected = true;
  while (connected && waiting.size() < 10) {
    last = std::chrono::steady_clock::now();
    waiting.push_back(std::make_unique<DomainSockConnection>(dir_ / "socket"));
    connected = waiting.back()->Connect(1);
  }

  EXPECT_FALSE(connected);
  EXPECT_GE(std::chrono::steady_clock::now() - last, std::chrono::milliseconds(900));
  EXPECT_FALSE(waiting.back()->Send("x"));
}

TEST_F(DaemonConnection, NothingIsSentOrReceivedWithoutAConnection) {
  std::string received;

  EXPECT_FALSE(connection_.Send("x"));
  EXPECT_FALSE(connection_.Recv(received));
  EXPECT_FALSE(DomainSockConnection(dir_ / "missing").Connect(10));
  EXPECT_FALSE(DomainSockConnection(std::string(200, 'p')).Connect(10));
  Connect();
  connection_.Disconnect();
  EXPECT_FALSE(connection_.Send("x"));
}

TEST_F(DaemonConnection, DescriptorIsClosedAtDestructionAndByANewConnect) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  const auto before = descriptors();
  {
    DomainSockConnection connection(dir_ / "socket");
    ASSERT_TRUE(connection.Connect(10));
    daemon_.Accept();
    ASSERT_TRUE(connection.Connect(10));
    EXPECT_EQ(before + 2, descriptors());
  }
  daemon_.Close();
  EXPECT_EQ(before, descriptors());
}

}  // namespace
}  // namespace orbisk::test
