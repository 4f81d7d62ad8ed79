// Which files an account is shown: by what the kernel says to that account, and without a trace in the daemon.
#include "services/search/file_viewer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/acl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "services/search/refusal.h"
#include "tests/support/temp_dir.h"

namespace nimoelasticd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;

constexpr uid_t kAnn = 71001;
constexpr uid_t kBob = 71002;
constexpr gid_t kClub = 72001;

// Identity and capabilities of the calling thread, as the kernel tells them.
std::string Identity() {
  const std::string status = orbisk::test::ReadFile("/proc/thread-self/status");
  std::string lines;
  for (const char* const name : {"\nUid:", "\nGid:", "\nGroups:", "\nCapEff:", "\nCapPrm:"}) {
    const size_t begin = status.find(name);
    lines += status.substr(begin, status.find('\n', begin + 1) - begin);
  }
  return lines;
}

std::optional<Code> CodeOf(const std::function<void()>& call) {
  try {
    call();
    return std::nullopt;
  } catch (const Refusal& refusal) {
    return refusal.code();
  }
}

class FileViewerTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0 || orbisk::test::ReadFile("/proc/self/setgroups") == "deny\n") {
      GTEST_SKIP() << "needs root: only root acts as another account";
    }
    umask(022);
    fs::permissions(dir_.path(), fs::perms(0755));
  }

  std::string Make(const std::string& name, unsigned mode, uid_t user = 0, gid_t group = 0) const {
    const std::string path = dir_ / name;
    fs::create_directories(fs::path(path).parent_path());
    WriteFile(path, "heron");
    EXPECT_EQ(0, chown(path.c_str(), user, group));
    fs::permissions(path, fs::perms(mode));
    return path;
  }

  static bool Sees(const Account& account, const std::string& path) { return SeesFile(account, {path, {}, ""}); }
  static bool SeesFile(const Account& account, const search::Candidate& candidate) {
    return FileViewer(account).MaySee({candidate}).at(0);
  }

  static search::Candidate DocumentOf(const std::string& path) {
    struct statx info {};
    EXPECT_EQ(0, statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &info));
    EXPECT_NE(0U, info.stx_mask & STATX_BTIME) << "the file system keeps no dates of birth";
    return {path, info.stx_btime.tv_sec, std::to_string(info.stx_uid)};
  }

  const Account ann_{kAnn, kAnn, {kAnn}};
  const Account member_{kAnn, kAnn, {kAnn, kClub}};
  const Account bob_{kBob, kBob, {kBob}};
  const Account root_{0, 0, {0}};
  TempDir dir_;
};

TEST_F(FileViewerTest, ShowsAFileByTheModeBitsOfOwnerGroupAndOthers) {
  EXPECT_TRUE(Sees(ann_, Make("open", 0644)));
  EXPECT_FALSE(Sees(ann_, Make("closed", 0600)));
  EXPECT_TRUE(Sees(ann_, Make("own", 0400, kAnn)));
  EXPECT_FALSE(Sees(ann_, Make("not even own", 0077, kAnn)));
  EXPECT_TRUE(Sees(ann_, Make("own group", 0640, 0, kAnn)));
  EXPECT_TRUE(Sees(member_, Make("club", 0640, 0, kClub)));
  EXPECT_FALSE(Sees(ann_, dir_ / "club"));
  EXPECT_FALSE(Sees(member_, Make("not for the club", 0604, 0, kClub)));
  EXPECT_TRUE(Sees(ann_, dir_ / "not for the club"));
}

TEST_F(FileViewerTest, ShowsNothingInAFolderThatMayNotBeSearchedHoweverFarAbove) {
  const std::string file = Make("a/b/c/file", 0644);
  EXPECT_TRUE(Sees(ann_, file));

  fs::permissions(dir_ / "a", fs::perms(0744));

  EXPECT_FALSE(Sees(ann_, file));
  EXPECT_FALSE(Sees(ann_, dir_ / "a/b")) << "a folder as well";
  EXPECT_TRUE(Sees(ann_, dir_ / "a"));
  fs::permissions(dir_ / "a", fs::perms(0711));
  EXPECT_TRUE(Sees(ann_, file)) << "searching is not listing";
  EXPECT_FALSE(Sees(ann_, dir_ / "a")) << "which a folder itself is read for";
}

TEST_F(FileViewerTest, HeedsAccessLists) {
  const std::string file = Make("file", 0600);
  const std::unique_ptr<void, decltype(&acl_free)> acl(
      acl_from_text(("u::rw-,u:" + std::to_string(kBob) + ":r--,g::---,m::r--,o::---").c_str()), &acl_free);
  ASSERT_EQ(0, acl_set_file(file.c_str(), ACL_TYPE_ACCESS, static_cast<acl_t>(acl.get())));

  EXPECT_TRUE(Sees(bob_, file));
  EXPECT_FALSE(Sees(ann_, file));
}

TEST_F(FileViewerTest, ShowsNeitherWhatIsGoneNorWhatIsNoPath) {
  Make("file", 0644);

  EXPECT_FALSE(Sees(ann_, dir_ / "gone"));
  EXPECT_FALSE(Sees(root_, dir_ / "gone"));
  EXPECT_FALSE(Sees(ann_, dir_ / "file/below"));
  EXPECT_FALSE(Sees(ann_, ""));
  EXPECT_FALSE(Sees(ann_, fs::relative(dir_ / "file").string()));
  EXPECT_FALSE(Sees(ann_, dir_ / "file" + std::string("\0more", 5)));
}

TEST_F(FileViewerTest, ShowsRootWhatRootMayOpen) {
  EXPECT_TRUE(Sees(root_, Make("closed", 0000, kAnn)));
}

TEST_F(FileViewerTest, DoesNotShowTheWordsOfAFileThatAnotherOneHasReplaced) {
  const std::string file = Make("secret", 0600, kBob);
  search::Candidate document = DocumentOf(file);
  const std::string other = Make("other", 0644, kBob);
  document.created = *document.created - 1;  // as if it had been made earlier than the other one
  ASSERT_EQ(0, rename(other.c_str(), file.c_str()));

  EXPECT_TRUE(Sees(ann_, file));
  EXPECT_TRUE(SeesFile(ann_, DocumentOf(file)));
  EXPECT_FALSE(SeesFile(ann_, document));
  EXPECT_FALSE(SeesFile(bob_, document));
}

TEST_F(FileViewerTest, DoesNotShowTheWordsOfAFileThatSomebodyElsesOfTheSameSecondHasReplaced) {
  const std::string file = Make("secret", 0600, kBob);
  const std::string other = Make("other", 0644, kAnn);
  search::Candidate document = DocumentOf(other);
  document.path = file;
  document.owner = std::to_string(kBob);
  ASSERT_EQ(0, rename(other.c_str(), file.c_str()));

  EXPECT_FALSE(SeesFile(ann_, document));
  EXPECT_TRUE(SeesFile(ann_, DocumentOf(file)));
}

TEST_F(FileViewerTest, WithoutADateOfBirthTellsFilesApartByTheirOwners) {
  const std::string file = Make("file", 0644, kAnn);

  EXPECT_TRUE(SeesFile(ann_, {file, {}, std::to_string(kAnn)}));
  EXPECT_FALSE(SeesFile(ann_, {file, {}, std::to_string(kBob)}));
}

TEST_F(FileViewerTest, FollowsTheLinksThatRootHasMadeAndNoOther) {
  Make("real/folder/file", 0644);
  Make("real/a", 0644);
  ASSERT_EQ(0, symlink((dir_ / "real").c_str(), (dir_ / "volume").c_str()));
  ASSERT_EQ(0, symlink("../real/folder", (dir_ / "real/relative").c_str()));
  ASSERT_EQ(0, symlink((dir_ / "real").c_str(), (dir_ / "anns").c_str()));
  ASSERT_EQ(0, lchown((dir_ / "anns").c_str(), kAnn, kAnn));
  ASSERT_EQ(0, symlink("loop", (dir_ / "loop").c_str()));
  ASSERT_EQ(0, symlink("a", (dir_ / "real/last").c_str()));

  EXPECT_TRUE(Sees(ann_, dir_ / "volume/a"));
  EXPECT_TRUE(Sees(ann_, dir_ / "volume/relative/file"));
  EXPECT_FALSE(Sees(ann_, dir_ / "anns/a"));
  EXPECT_FALSE(Sees(ann_, dir_ / "loop/a"));
  EXPECT_FALSE(Sees(ann_, dir_ / "real/last")) << "a file is no link";
  EXPECT_FALSE(Sees(ann_, dir_ / "volume/last"));
  fs::permissions(dir_ / "real", fs::perms(0700));
  EXPECT_FALSE(Sees(ann_, dir_ / "volume/a"));
}

TEST_F(FileViewerTest, ChangesTheThreadOnlyWhileItLooks) {
  const std::string before = Identity();
  {
    const ActingAs acting(member_);

    EXPECT_EQ(static_cast<int>(kAnn), setfsuid(static_cast<uid_t>(-1)));
    EXPECT_EQ(static_cast<int>(kAnn), setfsgid(static_cast<gid_t>(-1)));
    EXPECT_NE(std::string::npos, Identity().find("CapEff:\t0000000000000000"));
    EXPECT_NE(std::string::npos, Identity().find(std::to_string(kClub)));
    EXPECT_EQ(0U, geteuid()) << "else the account might send it signals";
  }

  EXPECT_EQ(before, Identity());
}

TEST_F(FileViewerTest, LeavesOtherThreadsAsTheyAre) {
  std::promise<void> begun;
  std::string before;
  std::string meanwhile;
  std::promise<void> ready;
  std::thread other([&] {
    before = Identity();
    ready.set_value();
    begun.get_future().wait();
    meanwhile = Identity();
  });
  ready.get_future().wait();

  {
    const ActingAs acting(member_);
    begun.set_value();
    other.join();
  }

  EXPECT_EQ(before, meanwhile);
}

// Takes a capability from the calling thread for good.
void GiveUp(int capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2];
  ASSERT_EQ(0, syscall(SYS_capget, &header, data));
  data[0].effective &= ~(1U << capability);
  data[0].permitted &= ~(1U << capability);
  ASSERT_EQ(0, syscall(SYS_capset, &header, data));
}

TEST_F(FileViewerTest, RefusesWhereTheDaemonMayNotBecomeTheAccount) {
  for (const int capability : {CAP_SETUID, CAP_SETGID}) {
    std::thread([this, capability] {
      GiveUp(capability);
      const std::string before = Identity();

      EXPECT_EQ(Code::kCannotActAs, CodeOf([this] { FileViewer viewer(ann_); })) << capability;

      EXPECT_EQ(before, Identity());
    }).join();
  }
}

TEST(AccountOf, KnowsAccountsWithTheirGroups) {
  const Account root = AccountOf("root");

  EXPECT_EQ(0U, root.user);
  EXPECT_EQ(0U, root.group);
  EXPECT_TRUE(std::binary_search(root.groups.begin(), root.groups.end(), 0U));
}

TEST(AccountOf, RefusesNamesThatItDoesNotKnow) {
  for (const std::string& name : {std::string("nobody knows"), std::string(), std::string("root\0", 5),
                                  std::string("0"), std::string(100'000, 'x')}) {
    EXPECT_EQ(Code::kNoSuchAccount, CodeOf([&name] { AccountOf(name); })) << name.substr(0, 20);
  }
}

}  // namespace
}  // namespace nimoelasticd
