// What the service manager hears when the daemons start.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/eventually.h"
#include "tests/support/temp_dir.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

class Readiness : public IndexerBox {
 protected:
  void SetUp() override {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, (folder_ / "notify").c_str());
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    IndexerBox::SetUp();
  }
  void TearDown() override {
    unsetenv("NOTIFY_SOCKET");
    IndexerBox::TearDown();
    close(fd_);
  }

  // Adds what has come since it was called last.
  size_t Messages() {
    char text[64];
    for (ssize_t length = 0; (length = recv(fd_, text, sizeof(text), 0)) > 0;) {
      EXPECT_EQ(std::string(text, static_cast<size_t>(length)), "READY=1");
      ++messages_;
    }
    return messages_;
  }

 private:
  TempDir folder_;
  int fd_ = -1;
  size_t messages_ = 0;
};

TEST_F(Readiness, EachOfTheFourDaemonsSaysOnceThatItServes) {
  EXPECT_TRUE(Eventually([this] { return Messages() == 3; })) << "search daemon, extractor and monitor: " << Messages();

  StartIndexer();

  EXPECT_TRUE(Eventually([this] { return Messages() == 4; })) << "and the indexing daemon: " << Messages();
}

}  // namespace
}  // namespace orbisk::test
