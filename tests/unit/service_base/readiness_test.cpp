// What a service manager hears of a daemon's start.
#include "services/base/readiness.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"

namespace service {
namespace {

// Listens as a service manager does, at a path or, with "@" before it, at an abstract name.
class Manager {
 public:
  explicit Manager(const std::string& name) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') {
      address.sun_path[0] = '\0';
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), length), 0);
  }
  ~Manager() { close(fd_); }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  std::string Heard() const {
    char text[64];
    const ssize_t length = recv(fd_, text, sizeof(text), 0);
    return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
  }

 private:
  int fd_;
};

class ReadinessTest : public testing::Test {
 protected:
  void TearDown() override { unsetenv("NOTIFY_SOCKET"); }

  orbisk::test::TempDir folder_;
  orbisk::test::RecordCapture records_;
};

TEST_F(ReadinessTest, WhoeverAskedIsToldAtThePathThatTheEnvironmentNames) {
  const Manager manager(folder_ / "notify");
  setenv("NOTIFY_SOCKET", (folder_ / "notify").c_str(), 1);

  TellReady();

  EXPECT_EQ(manager.Heard(), "READY=1");
  EXPECT_EQ(manager.Heard(), "");
}

TEST_F(ReadinessTest, AnAbstractNameBeginsWithAnAtSign) {
  const std::string name = "@readiness-test-" + std::to_string(getpid());
  const Manager manager(name);
  setenv("NOTIFY_SOCKET", name.c_str(), 1);

  TellReady();

  EXPECT_EQ(manager.Heard(), "READY=1");
}

TEST_F(ReadinessTest, WhereNobodyAskedNothingIsSaid) {
  TellReady();
  setenv("NOTIFY_SOCKET", "", 1);
  TellReady();

  EXPECT_TRUE(records_.texts().empty());
}

TEST_F(ReadinessTest, AMessageThatCannotBeSentIsRecorded) {
  for (const std::string& name : {folder_ / "nobody", std::string(200, 'x')}) {
    setenv("NOTIFY_SOCKET", name.c_str(), 1);

    TellReady();
  }

  EXPECT_EQ(records_.texts().size(), 2U);
}

}  // namespace
}  // namespace service
