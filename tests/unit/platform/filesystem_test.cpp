// Permissions and mount points on stock Linux, where plain mode bits do not tell.
#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <system_error>

#include "nimo/error.h"
#include "nimo/filesystem.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kSomebody = 21001;
constexpr int kAll = NIMO_ACL_READ | NIMO_ACL_WRITE | NIMO_ACL_EXECUTE;

int Permissions(const std::string& path) {
  int permissions = -1;
  return NIMOACLPermGet(path.c_str(), &permissions) < 0 ? -1 : permissions;
}

// Another effective user for a scope. Only for root.
class AsUser {
 public:
  explicit AsUser(uid_t uid) { EXPECT_EQ(0, seteuid(uid)); }
  ~AsUser() { EXPECT_EQ(0, seteuid(0)); }
  AsUser(const AsUser&) = delete;
  AsUser& operator=(const AsUser&) = delete;
};

class PermissionsOfUsers : public testing::Test {
 protected:
  void SetUp() override {
    // Not just "is root": in a user namespace of its own a program is root and there is nobody else.
    if (seteuid(kSomebody) != 0 || seteuid(0) != 0) {
      GTEST_SKIP() << "only root may become somebody else";
    }
    chmod(dir_.path().c_str(), 0755);
    WriteFile(dir_ / "file", "");
  }

  TempDir dir_;
};

TEST_F(PermissionsOfUsers, AreTheEffectiveUsers) {
  chmod((dir_ / "file").c_str(), 0644);
  EXPECT_EQ(NIMO_ACL_READ | NIMO_ACL_WRITE, Permissions(dir_ / "file"));
  const AsUser somebody(kSomebody);
  EXPECT_EQ(NIMO_ACL_READ, Permissions(dir_ / "file"));
}

TEST_F(PermissionsOfUsers, MayBeNoneWhichIsAnAnswer) {
  chmod((dir_ / "file").c_str(), 0600);
  const AsUser somebody(kSomebody);
  EXPECT_EQ(0, Permissions(dir_ / "file"));
}

TEST_F(PermissionsOfUsers, FollowAccessControlLists) {
  chmod((dir_ / "file").c_str(), 0600);
  const std::unique_ptr<void, decltype(&acl_free)> acl(acl_from_text("u::rw-,u:21001:-wx,g::---,m::rwx,o::---"),
                                                       &acl_free);
  if (acl_set_file((dir_ / "file").c_str(), ACL_TYPE_ACCESS, static_cast<acl_t>(acl.get())) != 0) {
    GTEST_SKIP() << "no access control lists here";
  }
  const AsUser somebody(kSomebody);
  EXPECT_EQ(NIMO_ACL_WRITE | NIMO_ACL_EXECUTE, Permissions(dir_ / "file"));
}

TEST_F(PermissionsOfUsers, CannotBeKnownBelowAFolderThatMayNotBePassed) {
  fs::create_directory(dir_ / "closed");
  WriteFile(dir_ / "closed/file", "");
  chmod((dir_ / "closed").c_str(), 0700);
  const AsUser somebody(kSomebody);
  EXPECT_EQ(-1, Permissions(dir_ / "closed/file"));
  EXPECT_EQ(EACCES, NLIBCErrGet());
}

TEST(Permissions, OfALinkAreThoseOfItsTarget) {
  const TempDir dir;
  WriteFile(dir / "file", "");
  chmod((dir / "file").c_str(), 0600);
  fs::create_symlink("file", dir / "link");
  EXPECT_EQ(NIMO_ACL_READ | NIMO_ACL_WRITE, Permissions(dir / "link"));
}

class MountPoint : public testing::Test {
 protected:
  void SetUp() override {
    try {
      EnterPrivateMounts({});
    } catch (const NotAllowed& error) {
      GTEST_SKIP() << error.what();
    }
    fs::create_directory(dir_ / "volume");
    fs::create_directory(dir_ / "source");
    WriteFile(dir_ / "file", "");
    WriteFile(dir_ / "other_file", "");
  }

  TempDir dir_;
};

TEST_F(MountPoint, IsABindMountOfTheSameFileSystem) {
  MountBind(dir_ / "source", dir_ / "volume");
  EXPECT_EQ(1, NIMOFSDirIsMntPoint((dir_ / "volume").c_str()));
  EXPECT_EQ(0, NIMOFSDirIsMntPoint((dir_ / "source").c_str()));
}

TEST_F(MountPoint, IsNoLinkToOne) {
  MountBind(dir_ / "source", dir_ / "volume");
  fs::create_symlink("volume", dir_ / "link");
  EXPECT_EQ(0, NIMOFSDirIsMntPoint((dir_ / "link").c_str()));
}

TEST_F(MountPoint, IsNoFileEvenWhereAFileIsMounted) {
  MountBind(dir_ / "file", dir_ / "other_file");
  EXPECT_EQ(0, NIMOFSDirIsMntPoint((dir_ / "other_file").c_str()));
}

TEST_F(MountPoint, IsTheRootAndABoxsVolume) {
  EXPECT_EQ(1, NIMOFSDirIsMntPoint("/"));
  MountEmptyFileSystem(dir_ / "volume", 1024UL * 1024);
  EXPECT_EQ(1, NIMOFSDirIsMntPoint((dir_ / "volume").c_str()));
  EXPECT_EQ(kAll, Permissions(dir_ / "volume"));
}

}  // namespace
}  // namespace orbisk::test
