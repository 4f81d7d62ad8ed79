// What stock Linux answers where the seam leaves it to the box: places, kinds, administrators, privileges, room.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "nimo/error.h"
#include "nimo/filesystem.h"
#include "nimo/home.h"
#include "nimo/index_location.h"
#include "nimo/quota.h"
#include "nimo/share.h"
#include "nimo/share_registry.h"
#include "nimo/string_list.h"
#include "nimo/unicode.h"
#include "nimo/user.h"
#include "platform/linux/quota_room.h"
#include "tests/support/private_etc.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

TEST(LinuxBox, PutsIndexesBesideTheirShare) {
  char buffer[4096];
  ASSERT_EQ(0, FILEIDXQueuePathCompose("/volume1/photo", buffer, sizeof(buffer)));
  EXPECT_STREQ("/volume1/@fileindex/photo/queue", buffer);
  ASSERT_EQ(0, FILEIDXDBPathCompose("/photo", buffer, sizeof(buffer)));
  EXPECT_STREQ("/@fileindex/photo/db", buffer);
  EXPECT_GT(0, FILEIDXQueuePathCompose("/volume1/../photo", buffer, sizeof(buffer)));
}

TEST(LinuxBox, FoldsCaseFully) {
  EXPECT_EQ(0, NLIBCUnicodeUTF8StrCaseCmp("stra\xc3\x9f"
                                          "e",
                                          "STRASSE"));
  EXPECT_EQ(0, NLIBCUnicodeUTF8StrCaseCmp("\xef\xac\x80", "FF"));
}

TEST(LinuxBox, KnowsFileSystemsThatTheKernelMakesUp) {
  EXPECT_EQ(NIMO_FS_TYPE_PSEUDO, NIMOGetFSType("/proc/self/status", 0));
  if (fs::exists("/sys/kernel")) {
    EXPECT_EQ(NIMO_FS_TYPE_PSEUDO, NIMOGetFSType("/sys/kernel", 0));
  }
}

class Accounts : public testing::Test {
 protected:
  void SetUp() override {
    if (!MakePrivateEtc()) {
      GTEST_SKIP() << "private mounts are not allowed here";
    }
  }
};

TEST_F(Accounts, AdministerTheBoxByTheGroupAdministratorsWhereThereIsOne) {
  AddPrivateAccount("ann", 1001, 1001, {"administrators"});
  AddPrivateAccount("bob", 1002, 1002, {"users", "sudo"});
  AddPrivateAccount("eve", 1003, 5001);  // by her primary group
  AddPrivateAccount("toor", 0, 1004);
  EXPECT_EQ(1, NLIBGroupIsAdminGroupMem("ann", 0));
  EXPECT_EQ(0, NLIBGroupIsAdminGroupMem("bob", 0));
  EXPECT_EQ(1, NLIBGroupIsAdminGroupMem("eve", 0));
  EXPECT_EQ(1, NLIBGroupIsAdminGroupMem("toor", 0)) << "has root's number";
}

TEST_F(Accounts, AdministerTheBoxByTheGroupSudoOtherwise) {
  AddPrivateAccount("ann", 1001, 1001, {"users"});
  AddPrivateAccount("bob", 1002, 1002, {"users", "sudo"});
  EXPECT_EQ(0, NLIBGroupIsAdminGroupMem("ann", 0));
  EXPECT_EQ(1, NLIBGroupIsAdminGroupMem("bob", 0));
}

TEST_F(Accounts, AdministerTheBoxNotAtAllWithoutSuchAGroup) {
  AddPrivateAccount("ann", 1001, 1001, {"users"});
  EXPECT_EQ(0, NLIBGroupIsAdminGroupMem("ann", 0));
  EXPECT_EQ(1, NLIBGroupIsAdminGroupMem("root", 0));
}

TEST_F(Accounts, AreLocalHoweverMuchIsSaidOfThoseBeforeThem) {
  const TempDir volume;
  fs::create_directories(volume / "homes/bob/#recycle");
  NIMO::SHARE::Register({"homes", volume / "homes"});
  AddPrivateAccount("bob", 1002, 1002);
  const auto bins_after = [](const std::string& line) {
    WriteFile("/etc/passwd", line + "\nbob:x:1002:1002::/:/bin/sh\n");
    SZLIST* list = NLIBCSzListAlloc(1024);
    const int result = NIMORecycleHomeEnumRecyclePathForAuthType(&list, AUTH_LOCAL);
    const int count = list->nItem;
    NLIBCSzListFree(list);
    return result == 0 ? count : -1;
  };

  EXPECT_EQ(1, bins_after("ann:x:1001:1001:" + std::string(100'000, 'a') + ":/:/bin/sh"));
  EXPECT_EQ(-1, bins_after("ann:x:1001:1001:" + std::string(2'000'000, 'a') + ":/:/bin/sh")) << "it cannot be known";
}

// A share that belongs to "owner" and the group "owners".
class Privilege : public Accounts {
 protected:
  void SetUp() override {
    Accounts::SetUp();
    if (IsSkipped()) {
      return;
    }
    AddPrivateAccount("owner", 1001, 1001);
    AddPrivateAccount("member", 1002, 1002, {"owners", "owners2"});
    AddPrivateAccount("stranger", 1003, 1003);
    fs::create_directory(volume_ / "photo");
    if (chown(Path().c_str(), 1001, 5001) != 0) {
      GTEST_SKIP() << "giving files away is not allowed here";
    }
    NIMO::SHARE::Register({.name = "photo", .path = Path()});
  }

  std::string Path() const { return volume_ / "photo"; }

  // For owner, member, stranger and root, one digit each.
  std::string All() {
    NIMOSHARE* share = nullptr;
    EXPECT_EQ(0, NIMOShareGet("photo", &share));
    std::string all;
    for (const char* user : {"owner", "member", "stranger", "root"}) {
      all += std::to_string(NIMOShareUserPrivCalc(user, share));
    }
    NIMOShareFree(share);
    return all;
  }

  bool SetAcl(const char* text) {
    acl_t acl = acl_from_text(text);
    const bool set = acl != nullptr && acl_set_file(Path().c_str(), ACL_TYPE_ACCESS, acl) == 0;
    acl_free(acl);
    return set;
  }

  TempDir volume_;
};

TEST_F(Privilege, FollowsTheModeOfTheFirstClassThatFits) {
  const struct {
    mode_t mode;
    const char* all;
  } kModes[] = {
      {0777, "2222"}, {0755, "2112"}, {0750, "2102"}, {0700, "2002"}, {0707, "2022"}, {0077, "0222"},
      {0000, "0002"}, {0744, "2002"}, {0711, "2002"}, {0733, "2002"}, {0555, "1112"}, {0666, "0002"},
  };
  for (const auto& row : kModes) {
    ASSERT_EQ(0, chmod(Path().c_str(), row.mode));
    EXPECT_EQ(row.all, All()) << std::oct << row.mode;
  }
}

TEST_F(Privilege, FollowsTheAccessControlList) {
  const struct {
    const char* acl;
    const char* all;
  } kLists[] = {
      {"u::rwx,g::---,o::---,u:stranger:rwx,m::rwx", "2022"},
      {"u::rwx,g::---,o::---,u:stranger:rwx,m::r-x", "2012"},
      {"u::rwx,g::---,o::---,u:stranger:rwx,m::---", "2002"},
      {"u::rwx,g::rwx,o::rwx,u:member:---,m::rwx", "2022"},
      {"u::rwx,g::---,o::rwx,g:owners2:rwx,m::rwx", "2222"},
      {"u::r-x,g::rwx,o::---,u:stranger:r-x,m::rwx", "1212"},
      {"u::rwx,g::---,o::r-x,g:stranger:rwx,m::rwx", "2022"},
      {"u::rwx,g::-w-,o::---,g:owners2:r-x,m::rwx", "2102"},  // no entry by itself lets "member" write
  };
  for (const auto& row : kLists) {
    if (!SetAcl(row.acl)) {
      GTEST_SKIP() << "no access control lists here: " << strerror(errno);
    }
    EXPECT_EQ(row.all, All()) << row.acl;
  }
}

TEST_F(Privilege, OfAReadOnlyShareIsNeverToWrite) {
  ASSERT_EQ(0, chmod(Path().c_str(), 0777));
  NIMO::SHARE::Register({.name = "photo", .path = Path(), .read_only = true});
  EXPECT_EQ("1111", All());
}

TEST_F(Privilege, OfAnUnknownAccountOrShareCannotBeKnown) {
  NIMOSHARE* share = nullptr;
  ASSERT_EQ(0, NIMOShareGet("photo", &share));
  EXPECT_GT(0, NIMOShareUserPrivCalc("nobody here", share));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
  EXPECT_GT(0, NIMOShareUserPrivCalc("", share));
  EXPECT_GT(0, NIMOShareUserPrivCalc(nullptr, share));
  EXPECT_GT(0, NIMOShareUserPrivCalc("owner", nullptr));
  NIMO::SHARE::Unregister("photo");
  EXPECT_GT(0, NIMOShareUserPrivCalc("owner", share));
  NIMOShareFree(share);
}

// A small file system of its own.
class SmallVolume : public testing::Test {
 protected:
  void SetUp() override {
    try {
      EnterPrivateMounts({});
      MountEmptyFileSystem(dir_.path(), kBytes);
    } catch (const NotAllowed& error) {
      GTEST_SKIP() << error.what();
    }
  }

  static constexpr size_t kBytes = 1024UL * 1024;
  TempDir dir_;
};

TEST_F(SmallVolume, HasRoomForWhatIsFreeAndNotForMore) {
  EXPECT_NE(0, NIMOQuotaIsEnough(0, dir_.path().c_str(), kBytes));
  EXPECT_EQ(0, NIMOQuotaIsEnough(0, dir_.path().c_str(), kBytes + 1));
  EXPECT_EQ(NIMO_ERR_VOLUME_FULL, NLIBCErrGet());
  WriteFile(dir_ / "file", std::string(kBytes / 2, 'x'));
  EXPECT_NE(0, NIMOQuotaIsEnough(0, dir_.path().c_str(), kBytes / 2));
  EXPECT_EQ(0, NIMOQuotaIsEnough(0, dir_.path().c_str(), kBytes / 2 + 1));
}

TEST_F(SmallVolume, ThatIsMissingCannotBeAsked) {
  EXPECT_EQ(0, NIMOQuotaIsEnough(0, (dir_ / "missing").c_str(), 1));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
}

TEST_F(SmallVolume, MountedReadOnlyMakesItsSharesReadOnly) {
  if (!MakePrivateEtc()) {
    GTEST_SKIP() << "private mounts are not allowed here";
  }
  fs::create_directory(dir_ / "photo");
  NIMO::SHARE::Register({.name = "photo", .path = dir_ / "photo"});
  NIMOSHARE* share = nullptr;
  ASSERT_EQ(0, NIMOShareGet("photo", &share));
  int read_only = 7;
  EXPECT_LE(0, NLIBShareIsReadOnlyGet(share, &read_only));
  EXPECT_EQ(0, read_only);
  ASSERT_EQ(0, mount("none", dir_.path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr));
  EXPECT_LE(0, NLIBShareIsReadOnlyGet(share, &read_only));
  EXPECT_EQ(1, read_only);
  NIMOShareFree(share);
}

// The kernel keeps user quotas on tmpfs since 6.6; a block device, as other file systems need, tests do not have.
TEST(UserQuota, LeavesLessRoomThanTheVolume) {
  const TempDir dir;
  try {
    EnterPrivateMounts({});
  } catch (const NotAllowed& error) {
    GTEST_SKIP() << error.what();
  }
  if (mount("tmpfs", dir.path().c_str(), "tmpfs", 0, "mode=0777,size=1m,usrquota,usrquota_block_hardlimit=65536") !=
      0) {
    GTEST_SKIP() << "no quotas on tmpfs here: " << strerror(errno);
  }
  if (setegid(1001) != 0 || seteuid(1001) != 0) {
    GTEST_SKIP() << "cannot act as somebody else";
  }
  const int enough = NIMOQuotaIsEnough(0, dir.path().c_str(), 65536);
  const int short_by_one = NIMOQuotaIsEnough(0, dir.path().c_str(), 65537);
  const int error = NLIBCErrGet();
  ASSERT_EQ(0, seteuid(0));
  ASSERT_EQ(0, setegid(0));
  EXPECT_NE(0, enough);
  EXPECT_EQ(0, short_by_one);
  EXPECT_EQ(NIMO_ERR_QUOTA_EXCEEDED, error);
  EXPECT_NE(0, NIMOQuotaIsEnough(0, dir.path().c_str(), 65537)) << "root is held to no quota";
}

TEST(UserQuota, IsCountedInBytesAgainstTheLimitInBlocks) {
  dqblk quota{};
  EXPECT_EQ(UINT64_MAX, nimo::BytesLeft(quota, 100)) << "no limit";
  quota.dqb_bhardlimit = 64;
  quota.dqb_curspace = 1000;
  EXPECT_EQ(64U * 1024 - 1000, nimo::BytesLeft(quota, 100));
  quota.dqb_curspace = 64 * 1024 + 1;
  EXPECT_EQ(0U, nimo::BytesLeft(quota, 100));
}

TEST(UserQuota, LeavesNothingWhenTheGraceTimeBeyondTheSoftLimitIsOver) {
  dqblk quota{};
  quota.dqb_bhardlimit = 64;
  quota.dqb_bsoftlimit = 32;
  quota.dqb_curspace = 40 * 1024;
  quota.dqb_btime = 200;
  EXPECT_EQ(24U * 1024, nimo::BytesLeft(quota, 199));
  EXPECT_EQ(0U, nimo::BytesLeft(quota, 200));
  quota.dqb_curspace = 32 * 1024;
  EXPECT_EQ(32U * 1024, nimo::BytesLeft(quota, 200)) << "not beyond it";
}

}  // namespace
}  // namespace orbisk::test
