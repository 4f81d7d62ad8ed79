// The socket of a daemon, with clients of the system's own.
#include "services/base/listener.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <vector>

#include "services/base/unique_fd.h"
#include "tests/support/local_socket.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"

namespace service {
namespace {

using orbisk::test::TempDir;
using orbisk::test::WriteFile;
using Handlers = Listener::Handlers;

UniqueFd Connect(const std::string& path) {
  return UniqueFd(orbisk::test::ConnectTo(path));
}

struct stat StatOf(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(stat(path.c_str(), &info), 0);
  return info;
}

class ListenerTest : public testing::Test {
 protected:
  // For what does not happen.
  void RunFor(std::chrono::milliseconds time) {
    context_.restart();
    context_.run_for(time);
  }
  // For what does happen.
  void RunUntil(const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    const auto work = boost::asio::make_work_guard(context_);
    context_.restart();
    while (!holds() && std::chrono::steady_clock::now() < end) {
      context_.run_one_until(end);
    }
  }

  TempDir folder_;
  const std::string path_ = folder_ / "socket";
  boost::asio::io_context context_{1};
  int clients_ = 0;
};

TEST_F(ListenerTest, IsForItsOwnAccountAloneUnlessToldOtherwise) {
  Listener listener(context_, path_, {});

  listener.Open({});

  EXPECT_EQ(StatOf(path_).st_mode & 07777, 0600U);
}

TEST_F(ListenerTest, IsForAGroupIfToldSo) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a socket to any group";
  }
  Listener listener(context_, path_, {});

  listener.Open({0660, FindGroup("daemon")});

  EXPECT_EQ(StatOf(path_).st_mode & 07777, 0660U);
  EXPECT_EQ(StatOf(path_).st_gid, 1U);
}

TEST_F(ListenerTest, IsForItsOwnAccountAloneWhereTheGroupIsRefused) {
  constexpr uid_t kNobody = 65534;
  std::filesystem::permissions(folder_.path(), std::filesystem::perms::all);
  const auto open_and_tell = [this] {
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)) {
      _exit(2);
    }
    Listener listener(context_, path_, {});
    listener.Open({0660, 1});
    _exit((StatOf(path_).st_mode & 0777) == 0600 && Connect(path_).valid() ? 42 : 1);
  };

  EXPECT_EXIT(open_and_tell(), testing::ExitedWithCode(42), "");
}

TEST_F(ListenerTest, UnknownGroupIsNone) {
  EXPECT_FALSE(FindGroup("there is no such group"));
}

TEST_F(ListenerTest, HandsOutOneConnectionForEachTimeItIsAsked) {
  Listener listener(context_, path_, {[this](Listener::Socket) { ++clients_; }});
  listener.Open({});
  const UniqueFd first = Connect(path_);
  const UniqueFd second = Connect(path_);

  listener.Accept();
  listener.Accept();
  RunUntil([this] { return clients_ == 1; });
  RunFor(std::chrono::milliseconds(50));
  EXPECT_EQ(clients_, 1);

  listener.Accept();
  RunUntil([this] { return clients_ == 2; });
  EXPECT_EQ(clients_, 2);
}

TEST_F(ListenerTest, ReplacesTheSocketOfAKilledDaemon) {
  close(orbisk::test::ListenAt(path_));
  Listener listener(context_, path_, {});

  listener.Open({});

  EXPECT_TRUE(Connect(path_).valid());
}

TEST_F(ListenerTest, LeavesTheSocketToADaemonThatAnswers) {
  Listener first(context_, path_, {});
  first.Open({});
  const ino_t inode = StatOf(path_).st_ino;
  {
    Listener second(context_, path_, {});
    EXPECT_THROW(second.Open({}), std::runtime_error);
  }
  EXPECT_EQ(StatOf(path_).st_ino, inode);
}

TEST_F(ListenerTest, DaemonTooBusyToAnswerKeepsItsSocketToo) {
  const UniqueFd busy(orbisk::test::ListenAt(path_, 0));
  const UniqueFd waiting = Connect(path_);
  ASSERT_TRUE(waiting.valid());
  Listener second(context_, path_, {});

  EXPECT_THROW(second.Open({}), std::runtime_error);
}

TEST_F(ListenerTest, RemovesNothingButASocket) {
  WriteFile(path_, "precious");
  {
    Listener listener(context_, path_, {});
    EXPECT_THROW(listener.Open({}), std::runtime_error);
  }
  EXPECT_EQ(orbisk::test::ReadFile(path_), "precious");
}

TEST_F(ListenerTest, PathThatDoesNotFitIsRefused) {
  Listener listener(context_, "/" + std::string(200, 'x'), {});

  EXPECT_THROW(listener.Open({}), std::runtime_error);
}

TEST_F(ListenerTest, RemovesItsSocketWhenItGoes) {
  {
    Listener listener(context_, path_, {});
    listener.Open({});
  }
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(ListenerTest, TakesNobodyAfterItsEnd) {
  Listener listener(context_, path_, {[this](Listener::Socket) { ++clients_; }});
  listener.Open({});
  listener.Accept();
  const UniqueFd client = Connect(path_);

  listener.Close();
  listener.Accept();
  RunFor(std::chrono::milliseconds(50));

  EXPECT_EQ(clients_, 0);
}

TEST_F(ListenerTest, TriesAgainAfterAFailureAndLetsItsOwnerMakeRoom) {
  const orbisk::test::RecordCapture log;
  int failures = 0;
  Listener listener(context_, path_, {[this](Listener::Socket) { ++clients_; }, [&] { ++failures; }});
  listener.Open({});
  const UniqueFd client = Connect(path_);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const UniqueFd next(open("/", O_RDONLY | O_CLOEXEC));  // the lowest number that is free, but for this one
  const rlimit none{static_cast<rlim_t>(next.get()), before.rlim_max};

  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  listener.Accept();
  RunUntil([&] { return failures > 0; });
  RunFor(std::chrono::milliseconds(50));
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(clients_, 0);
  EXPECT_LE(failures, 3) << "it spins";
  RunUntil([this] { return clients_ == 1; });

  EXPECT_EQ(clients_, 1);
  EXPECT_EQ(log.texts().at(0).find("event=accept_failed"), 0U);
}

}  // namespace
}  // namespace service
