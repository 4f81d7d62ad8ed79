// Acting as another account on stock Linux. Each test acts in a process of its own, which can be left as anybody; calls
// that the kernel would refuse are made to fail by standing before the C library.
#include <dlfcn.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "nimo/error.h"
#include "nimo/user.h"
#include "tests/support/private_etc.h"
#include "tests/support/temp_dir.h"

namespace {

const char* failing_function = "";

template <class Function, class... Arguments>
int FailOrCall(const char* name, Arguments... arguments) {
  if (std::string(failing_function) == name) {
    errno = EAGAIN;
    return -1;
  }
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name))(arguments...);
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int setegid(gid_t gid) noexcept {
  return FailOrCall<int (*)(gid_t)>("setegid", gid);
}

[[gnu::visibility("default")]] int seteuid(uid_t uid) noexcept {
  // The way back is root's: only the step to an account fails.
  return uid == 0 ? reinterpret_cast<int (*)(uid_t)>(dlsym(RTLD_NEXT, "seteuid"))(uid)
                  : FailOrCall<int (*)(uid_t)>("seteuid", uid);
}

[[gnu::visibility("default")]] int initgroups(const char* user, gid_t group) {
  return FailOrCall<int (*)(const char*, gid_t)>("initgroups", user, group);
}
}

namespace orbisk::test {
namespace {

std::string Identity() {
  gid_t groups[64];
  const int count = getgroups(64, groups);
  std::string text = std::to_string(geteuid()) + ":" + std::to_string(getegid()) + ":";
  for (int i = 0; i < count; ++i) {
    text += " " + std::to_string(groups[i]);
  }
  return text;
}

class Credentials : public testing::Test {
 protected:
  void SetUp() override {
    if (!MakePrivateEtc()) {
      GTEST_SKIP() << "private mounts are not allowed here";
    }
    AddPrivateAccount("ann", 1001, 1011, {"readers", "writers"});
    AddPrivateAccount("bob", 1002, 1012);
    gid_t groups[] = {0, 7};
    if (InChild([&] { return setgroups(2, groups) == 0 ? "yes" : "no"; }) != "yes") {
      GTEST_SKIP() << "changing groups is not allowed here";
    }
  }

  // What `action` returns in a process of its own that is root in the groups 0 and 7.
  static std::string InChild(const std::function<std::string()>& action) {
    const TempDir dir;
    const pid_t child = fork();
    if (child == 0) {
      const gid_t groups[] = {0, 7};
      const bool ready = setgroups(2, groups) == 0;
      FILE* const answer = fopen((dir / "answer").c_str(), "w");
      const std::string text = ready ? action() : "no";
      fputs(text.c_str(), answer);
      fclose(answer);
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    return ReadFile(dir / "answer");
  }
};

TEST_F(Credentials, BecomeTheAccountsWithItsGroups) {
  EXPECT_EQ("1001:1011: 1011 5001 5002", InChild([] {
              EXPECT_TRUE(ResetCredentialsByName("ann"));
              return Identity();
            }));
}

TEST_F(Credentials, LeaveTheGroupsWhenOnlyTheUserIsAskedFor) {
  EXPECT_EQ("1001:0: 0 7", InChild([] {
              EXPECT_TRUE(ResetCredentialsByName("ann", false));
              return Identity();
            }));
}

TEST_F(Credentials, ChangeFromAnyAccountToAnyOtherAndBackToRoot) {
  EXPECT_EQ("1002:1012: 1012 0:0: 0", InChild([] {
              EXPECT_TRUE(ResetCredentialsByName("ann"));
              EXPECT_TRUE(ResetCredentialsByName("bob"));
              const std::string bob = Identity();
              EXPECT_TRUE(ResetCredentialsByName("root"));
              return bob + " " + Identity();
            }));
}

TEST_F(Credentials, KeepTheRealUserSoThatTheWayBackIsOpen) {
  EXPECT_EQ("0:0", InChild([] {
              EXPECT_TRUE(ResetCredentialsByName("ann"));
              return std::to_string(getuid()) + ":" + std::to_string(getgid());
            }));
}

TEST_F(Credentials, StayWhenThereIsNoSuchAccount) {
  EXPECT_EQ("1001:1011: 1011 5001 5002 failed 2", InChild([] {
              EXPECT_TRUE(ResetCredentialsByName("ann"));
              const bool done = ResetCredentialsByName("nobody here");
              return Identity() + (done ? " done" : " failed ") + std::to_string(NLIBCErrGet());
            }));
}

TEST_F(Credentials, ArePutBackWhenAStepOnTheWayFails) {
  for (const char* step : {"setegid", "initgroups", "seteuid"}) {
    EXPECT_EQ("0:0: 0 7 failed 11", InChild([step] {
                failing_function = step;
                const bool done = ResetCredentialsByName("ann");
                return Identity() + (done ? " done" : " failed ") + std::to_string(NLIBCErrGet());
              }))
        << step;
  }
}

TEST_F(Credentials, ArePutBackToAnAccountToo) {
  for (const char* step : {"initgroups", "setegid"}) {
    EXPECT_EQ("1002:1012: 1012 failed", InChild([step] {
                EXPECT_TRUE(ResetCredentialsByName("bob"));
                failing_function = step;
                const bool done = ResetCredentialsByName("ann");
                return Identity() + (done ? " done" : " failed");
              }))
        << step;
  }
}

TEST_F(Credentials, AreRefusedToAProcessThatWasNeverRoot) {
  EXPECT_EQ("1001:1011: 0 7 failed 1", InChild([] {
              if (setresgid(1011, 1011, 1011) != 0 || setresuid(1001, 1001, 1001) != 0) {
                return std::string("not possible");
              }
              const bool done = ResetCredentialsByName("bob");
              return Identity() + (done ? " done" : " failed ") + std::to_string(NLIBCErrGet());
            }));
}

}  // namespace
}  // namespace orbisk::test
