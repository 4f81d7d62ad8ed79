// The kernel's mount table.
#include "services/monitor/mounts.h"

#include <gtest/gtest.h>

namespace nimotifyd {
namespace {

TEST(MountsTest, LinesWithAndWithoutOptionalFieldsAreRead) {
  const std::vector<Mount> mounts = ParseMountInfo(
      "22 1 8:1 / / rw,relatime shared:1 master:2 - ext4 /dev/sda1 rw\n"
      "35 22 0:30 /sub /volume1 rw - btrfs /dev/sdb rw,subvol=/sub\n");

  ASSERT_EQ(mounts.size(), 2U);
  EXPECT_EQ(mounts[0].id, 22U);
  EXPECT_EQ(mounts[0].path, "/");
  EXPECT_EQ(mounts[0].type, "ext4");
  EXPECT_EQ(mounts[1].path, "/volume1");
  EXPECT_EQ(mounts[1].type, "btrfs");
}

TEST(MountsTest, EscapedBytesInMountPointsAreTakenBack) {
  const std::vector<Mount> mounts =
      ParseMountInfo("1 1 0:1 / /a\\040b\\011c\\012d\\134e rw - tmpfs none rw\n2 1 0:1 / /x\\08y rw - tmpfs none rw\n");

  ASSERT_EQ(mounts.size(), 2U);
  EXPECT_EQ(mounts[0].path, "/a b\tc\nd\\e");
  EXPECT_EQ(mounts[1].path, "/x\\08y");
}

TEST(MountsTest, LinesThatMakeNoSenseAreLeftOut) {
  EXPECT_TRUE(ParseMountInfo("").empty());
  EXPECT_TRUE(
      ParseMountInfo("\n\nx\n1 2 3\nx 1 0:1 / /a rw - tmpfs none rw\n1 1 0:1 / /a rw\n1 1 0:1 / /a rw -\n").empty());
}

TEST(MountsTest, OwnMountTableHasARoot) {
  const MountTable table;
  bool root = false;
  for (const Mount& mount : table.Read()) {
    root = root || mount.path == "/";
  }
  EXPECT_TRUE(root);
  EXPECT_EQ(table.Read().size(), table.Read().size());
}

TEST(MountsTest, PseudoFileSystemsHoldNoUsersFiles) {
  EXPECT_TRUE(IsPseudoFileSystem("proc"));
  EXPECT_TRUE(IsPseudoFileSystem("autofs"));
  EXPECT_FALSE(IsPseudoFileSystem("tmpfs"));
  EXPECT_FALSE(IsPseudoFileSystem("ext4"));
  EXPECT_FALSE(IsPseudoFileSystem("btrfs"));
}

}  // namespace
}  // namespace nimotifyd
