// What nimo/filesystem.h promises.
#include "nimo/filesystem.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "nimo/error.h"
#include "tests/contract/platform_under_test.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

constexpr NIMO_COPY_OPTIONS kCopy{1, 0, {}};
constexpr NIMO_COPY_OPTIONS kMove{1, 1, {}};

class FileSystem : public testing::Test {
 protected:
  // A folder with a file, a link and a folder in it.
  std::string MakeTree() {
    fs::create_directories(dir_ / "tree/inner");
    WriteFile(dir_ / "tree/inner/file", "content");
    fs::create_symlink("inner/file", dir_ / "tree/link");
    return dir_ / "tree";
  }

  void ExpectTree(const std::string& path) {
    EXPECT_EQ("content", ReadFile(path + "/inner/file"));
    EXPECT_EQ("inner/file", fs::read_symlink(path + "/link"));
  }

  size_t EntriesInDir() {
    return static_cast<size_t>(std::distance(fs::directory_iterator(dir_.path()), fs::directory_iterator()));
  }

  TempDir dir_;
};

TEST_F(FileSystem, PermissionsFollowTheMode) {
  WriteFile(dir_ / "plain", "");
  WriteFile(dir_ / "program", "");
  chmod((dir_ / "plain").c_str(), 0600);
  chmod((dir_ / "program").c_str(), 0700);
  int permissions = 0;
  EXPECT_LE(0, NIMOACLPermGet((dir_ / "plain").c_str(), &permissions));
  EXPECT_EQ(NIMO_ACL_READ | NIMO_ACL_WRITE, permissions);
  EXPECT_LE(0, NIMOACLPermGet((dir_ / "program").c_str(), &permissions));
  EXPECT_EQ(NIMO_ACL_READ | NIMO_ACL_WRITE | NIMO_ACL_EXECUTE, permissions);
}

TEST_F(FileSystem, PermissionsOfAMissingPathAreAFailureAndNone) {
  int permissions = 7;
  EXPECT_GT(0, NIMOACLPermGet((dir_ / "missing").c_str(), &permissions));
  EXPECT_EQ(0, permissions);
  EXPECT_EQ(ENOENT, NLIBCErrGet());
  EXPECT_GT(0, NIMOACLPermGet(nullptr, &permissions));
}

TEST_F(FileSystem, AFolderBecomesAMountPointWhenAFileSystemIsMounted) {
  fs::create_directory(dir_ / "volume");
  EXPECT_EQ(0, NIMOFSDirIsMntPoint((dir_ / "volume").c_str()));
  if (!MakeMountPoint(dir_ / "volume")) {
    GTEST_SKIP() << "mounting is not allowed here";
  }
  EXPECT_EQ(1, NIMOFSDirIsMntPoint((dir_ / "volume").c_str()));
  EXPECT_EQ(0, NIMOFSDirIsMntPoint(dir_.path().c_str()));
}

TEST_F(FileSystem, AFileIsNoMountPointAndAMissingPathAFailure) {
  WriteFile(dir_ / "file", "");
  EXPECT_EQ(0, NIMOFSDirIsMntPoint((dir_ / "file").c_str()));
  EXPECT_GT(0, NIMOFSDirIsMntPoint((dir_ / "missing").c_str()));
  EXPECT_GT(0, NIMOFSDirIsMntPoint(nullptr));
}

TEST_F(FileSystem, AFolderLiesOnAFileSystemThatIsNeitherRemoteNorAnImage) {
  const int type = NIMOGetFSType(dir_.path().c_str(), 0);
  ASSERT_LE(0, type);
  EXPECT_NE(NIMO_FS_TYPE_PSEUDO, type);
  EXPECT_EQ(0, NIMOFSIsRemoteFS(type));
  EXPECT_EQ(0, NIMOFSIsImageFS(type));
}

TEST_F(FileSystem, TheKindOfAMissingPathCannotBeKnown) {
  EXPECT_GT(0, NIMOGetFSType((dir_ / "missing").c_str(), 0));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
  EXPECT_GT(0, NIMOGetFSType(nullptr, 0));
}

TEST_F(FileSystem, AKindThatCannotBeKnownOrIsMadeUpIsNeitherRemoteNorAnImage) {
  for (const int type : {-1, 0, NIMO_FS_TYPE_PSEUDO, 1000}) {
    EXPECT_EQ(0, NIMOFSIsRemoteFS(type)) << type;
    EXPECT_EQ(0, NIMOFSIsImageFS(type)) << type;
  }
}

TEST(HiddenFolders, AreTheBoxsOwnByTheirWholeName) {
  for (const char* name : {"@eaDir", "@fileindex", "@tmp"}) {
    EXPECT_EQ(1, NIMOEAIsHiddenDir(name)) << name;
  }
  for (const char* name : {"", "eaDir", "@eaDir2", "@eadir", "a@tmp", "photo"}) {
    EXPECT_EQ(0, NIMOEAIsHiddenDir(name)) << name;
  }
}

TEST_F(FileSystem, CopyLeavesTheSource) {
  WriteFile(dir_ / "a", "content");
  EXPECT_EQ(0, NIMOFileCopy((dir_ / "a").c_str(), (dir_ / "b").c_str(), &kCopy, nullptr));
  EXPECT_EQ("content", ReadFile(dir_ / "a"));
  EXPECT_EQ("content", ReadFile(dir_ / "b"));
}

TEST_F(FileSystem, MoveRemovesTheSource) {
  WriteFile(dir_ / "a", "content");
  EXPECT_EQ(0, NIMOFileCopy((dir_ / "a").c_str(), (dir_ / "b").c_str(), &kMove, nullptr));
  EXPECT_FALSE(fs::exists(dir_ / "a"));
  EXPECT_EQ("content", ReadFile(dir_ / "b"));
}

TEST_F(FileSystem, CopyTakesWholeTreesAndCopiesLinksAsLinks) {
  const std::string tree = MakeTree();
  EXPECT_EQ(0, NIMOFileCopy(tree.c_str(), (dir_ / "copy").c_str(), &kCopy, nullptr));
  ExpectTree(tree);
  ExpectTree(dir_ / "copy");
}

TEST_F(FileSystem, MoveTakesWholeTrees) {
  const std::string tree = MakeTree();
  EXPECT_EQ(0, NIMOFileCopy(tree.c_str(), (dir_ / "moved").c_str(), &kMove, nullptr));
  EXPECT_FALSE(fs::exists(tree));
  ExpectTree(dir_ / "moved");
}

TEST_F(FileSystem, AFileTakesThePlaceOfAFile) {
  for (const NIMO_COPY_OPTIONS& options : {kCopy, kMove}) {
    WriteFile(dir_ / "a", "new");
    WriteFile(dir_ / "b", "old and longer");
    EXPECT_EQ(0, NIMOFileCopy((dir_ / "a").c_str(), (dir_ / "b").c_str(), &options, nullptr));
    EXPECT_EQ("new", ReadFile(dir_ / "b"));
  }
}

TEST_F(FileSystem, AMissingSourceIsAFailureAndMakesNothing) {
  for (const NIMO_COPY_OPTIONS& options : {kCopy, kMove}) {
    EXPECT_GT(0, NIMOFileCopy((dir_ / "missing").c_str(), (dir_ / "b").c_str(), &options, nullptr));
    EXPECT_EQ(ENOENT, NLIBCErrGet());
    EXPECT_EQ(0U, EntriesInDir());
  }
}

TEST_F(FileSystem, AMissingTargetFolderIsAFailureAndKeepsTheSource) {
  WriteFile(dir_ / "a", "content");
  for (const NIMO_COPY_OPTIONS& options : {kCopy, kMove}) {
    EXPECT_GT(0, NIMOFileCopy((dir_ / "a").c_str(), (dir_ / "missing/b").c_str(), &options, nullptr));
    EXPECT_EQ("content", ReadFile(dir_ / "a"));
    EXPECT_EQ(1U, EntriesInDir());
  }
}

TEST_F(FileSystem, CopyRefusesNullPointers) {
  EXPECT_GT(0, NIMOFileCopy(nullptr, "/b", &kCopy, nullptr));
  EXPECT_GT(0, NIMOFileCopy("/a", nullptr, &kCopy, nullptr));
  EXPECT_GT(0, NIMOFileCopy("/a", "/b", nullptr, nullptr));
}

}  // namespace
}  // namespace orbisk::test
