// Copying and moving on stock Linux: across file systems, with everything that belongs to a file, and when it fails.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <system_error>
#include <vector>

#include "nimo/error.h"
#include "nimo/filesystem.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

constexpr NIMO_COPY_OPTIONS kPlain{0, 0, {}};
constexpr NIMO_COPY_OPTIONS kCopy{1, 0, {}};
constexpr NIMO_COPY_OPTIONS kMove{1, 1, {}};
constexpr size_t kOtherBytes = 8UL * 1024 * 1024;

std::function<int(unsigned long long)> on_progress;

int Progress(const char*, unsigned long long bytes) {
  return on_progress ? on_progress(bytes) : 0;
}

struct stat Status(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
  return status;
}

std::string RandomBytes(size_t count) {
  std::mt19937_64 random(count);
  std::string bytes;
  while (bytes.size() < count) {
    const uint64_t word = random();
    bytes.append(reinterpret_cast<const char*>(&word), sizeof(word));
  }
  bytes.resize(count);
  return bytes;
}

// Names of everything below a folder.
std::vector<std::string> Names(const std::string& path) {
  std::vector<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(path)) {
    names.push_back(entry.path().lexically_relative(path));
  }
  std::sort(names.begin(), names.end());
  return names;
}

class Copy : public testing::Test {
 protected:
  ~Copy() override { on_progress = nullptr; }

  int Do(const std::string& from, const std::string& to, const NIMO_COPY_OPTIONS& options,
         NIMO_COPY_PROGRESS progress = nullptr) {
    return NIMOFileCopy(from.c_str(), to.c_str(), &options, progress);
  }

  TempDir dir_;
};

// With another, small file system at "other".
class CopyAcross : public Copy {
 protected:
  void SetUp() override {
    fs::create_directory(dir_ / "other");
    try {
      EnterPrivateMounts({});
      MountEmptyFileSystem(dir_ / "other", kOtherBytes);
    } catch (const NotAllowed& error) {
      GTEST_SKIP() << error.what();
    }
  }
};

using MoveAcross = CopyAcross;

TEST_F(Copy, KeepsModeOwnerAndTimes) {
  WriteFile(dir_ / "a", "content");
  chmod((dir_ / "a").c_str(), 04751);
  const timespec times[2] = {{1000000001, 123456789}, {1000000002, 987654321}};
  utimensat(AT_FDCWD, (dir_ / "a").c_str(), times, 0);
  const bool given_away = lchown((dir_ / "a").c_str(), 21001, 21002) == 0;  // only root may
  if (given_away) {
    chmod((dir_ / "a").c_str(), 04751);  // giving away took the set-user bit
  }
  ASSERT_EQ(0, Do(dir_ / "a", dir_ / "b", kCopy));
  const struct stat copy = Status(dir_ / "b");
  EXPECT_EQ(mode_t{S_IFREG | 04751}, copy.st_mode);
  EXPECT_EQ(given_away ? uid_t{21001} : geteuid(), copy.st_uid);
  EXPECT_EQ(given_away ? gid_t{21002} : getegid(), copy.st_gid);
  EXPECT_EQ(1000000001, copy.st_atim.tv_sec);
  EXPECT_EQ(1000000002, copy.st_mtim.tv_sec);
  EXPECT_EQ(987654321, copy.st_mtim.tv_nsec);
}

TEST_F(Copy, KeepsTimesAndModesOfFolders) {
  fs::create_directories(dir_ / "tree/inner");
  WriteFile(dir_ / "tree/inner/file", "x");
  chmod((dir_ / "tree/inner").c_str(), 0550);
  const timespec times[2] = {{1000000001, 0}, {1000000002, 0}};
  utimensat(AT_FDCWD, (dir_ / "tree/inner").c_str(), times, 0);
  ASSERT_EQ(0, Do(dir_ / "tree", dir_ / "copy", kCopy));
  EXPECT_EQ(mode_t{S_IFDIR | 0550}, Status(dir_ / "copy/inner").st_mode);
  EXPECT_EQ(1000000002, Status(dir_ / "copy/inner").st_mtim.tv_sec);
}

TEST_F(Copy, KeepsExtendedAttributes) {
  WriteFile(dir_ / "a", "content");
  if (setxattr((dir_ / "a").c_str(), "user.colour", "blue\0!", 6, 0) != 0) {
    GTEST_SKIP() << "no extended attributes here";
  }
  ASSERT_EQ(0, Do(dir_ / "a", dir_ / "b", kCopy));
  char value[16];
  EXPECT_EQ(6, getxattr((dir_ / "b").c_str(), "user.colour", value, sizeof(value)));
  EXPECT_EQ(std::string("blue\0!", 6), std::string(value, 6));
}

std::string AclText(const std::string& path) {
  const std::unique_ptr<void, decltype(&acl_free)> acl(acl_get_file(path.c_str(), ACL_TYPE_ACCESS), &acl_free);
  const std::unique_ptr<char, decltype(&acl_free)> text(acl_to_text(static_cast<acl_t>(acl.get()), nullptr), &acl_free);
  return text ? text.get() : "";
}

bool SetAcl(const std::string& path, acl_type_t type, const char* text) {
  const std::unique_ptr<void, decltype(&acl_free)> acl(acl_from_text(text), &acl_free);
  return acl_set_file(path.c_str(), type, static_cast<acl_t>(acl.get())) == 0;
}

TEST_F(Copy, KeepsAccessControlLists) {
  WriteFile(dir_ / "a", "content");
  if (!SetAcl(dir_ / "a", ACL_TYPE_ACCESS, "u::rw-,u:21001:r--,g::---,m::r--,o::---")) {
    GTEST_SKIP() << "no access control lists here";
  }
  ASSERT_EQ(0, Do(dir_ / "a", dir_ / "b", kCopy));
  EXPECT_EQ(AclText(dir_ / "a"), AclText(dir_ / "b"));
  EXPECT_NE(std::string::npos, AclText(dir_ / "b").find("user:21001:r--"));
}

TEST_F(Copy, DropsAnAccessControlListThatTheTargetFolderHandsDown) {
  fs::create_directories(dir_ / "tree/inner");
  WriteFile(dir_ / "tree/file", "content");
  chmod((dir_ / "tree/file").c_str(), 0640);
  fs::create_directory(dir_ / "lenient");
  if (!SetAcl(dir_ / "lenient", ACL_TYPE_DEFAULT, "u::rwx,u:21001:rwx,g::rwx,m::rwx,o::rwx")) {
    GTEST_SKIP() << "no access control lists here";
  }
  ASSERT_EQ(0, Do(dir_ / "tree", dir_ / "lenient/copy", kCopy));
  EXPECT_EQ(AclText(dir_ / "tree/file"), AclText(dir_ / "lenient/copy/file"));
  EXPECT_EQ(AclText(dir_ / "tree/inner"), AclText(dir_ / "lenient/copy/inner"));
  WriteFile(dir_ / "lenient/copy/inner/later", "");
  EXPECT_EQ(std::string::npos, AclText(dir_ / "lenient/copy/inner/later").find("21001"));
}

TEST_F(Copy, WithoutTheFlagAttributesAreTheCallers) {
  fs::create_directory(dir_ / "tree");
  WriteFile(dir_ / "tree/a", "content");
  chmod((dir_ / "tree/a").c_str(), 04755);
  chmod((dir_ / "tree").c_str(), 0500);
  const timespec times[2] = {{1000000001, 0}, {1000000002, 0}};
  utimensat(AT_FDCWD, (dir_ / "tree/a").c_str(), times, 0);
  const mode_t previous = umask(027);
  ASSERT_EQ(0, Do(dir_ / "tree", dir_ / "copy", kPlain));
  umask(previous);
  EXPECT_EQ(mode_t{S_IFDIR | 0500}, Status(dir_ / "copy").st_mode);
  EXPECT_EQ(mode_t{S_IFREG | 0750}, Status(dir_ / "copy/a").st_mode);
  EXPECT_LT(1000000002, Status(dir_ / "copy/a").st_mtim.tv_sec);
  chmod((dir_ / "tree").c_str(), 0700);
  chmod((dir_ / "copy").c_str(), 0700);
}

TEST_F(Copy, KeepsLinksFifosAndSocketsWhatTheyAre) {
  fs::create_directory(dir_ / "tree");
  fs::create_symlink("/no/such/target", dir_ / "tree/link");
  ASSERT_EQ(0, mkfifo((dir_ / "tree/fifo").c_str(), 0620));
  ASSERT_EQ(0, mknod((dir_ / "tree/socket").c_str(), S_IFSOCK | 0600, 0));
  ASSERT_EQ(0, Do(dir_ / "tree", dir_ / "copy", kCopy));
  EXPECT_EQ("/no/such/target", fs::read_symlink(dir_ / "copy/link"));
  EXPECT_EQ(Status(dir_ / "tree/link").st_mtim.tv_nsec, Status(dir_ / "copy/link").st_mtim.tv_nsec);
  EXPECT_EQ(Status(dir_ / "tree/fifo").st_mode, Status(dir_ / "copy/fifo").st_mode);
  EXPECT_EQ(Status(dir_ / "tree/socket").st_mode, Status(dir_ / "copy/socket").st_mode);
}

TEST_F(Copy, CopiesALinkAndNotWhatItLeadsTo) {
  WriteFile(dir_ / "file", "content");
  fs::create_symlink("file", dir_ / "link");
  ASSERT_EQ(0, Do(dir_ / "link", dir_ / "copy", kCopy));
  EXPECT_EQ("file", fs::read_symlink(dir_ / "copy"));
}

TEST_F(Copy, KeepsSeveralNamesOfOneFileOneFile) {
  fs::create_directories(dir_ / "tree/inner");
  WriteFile(dir_ / "tree/one", "content");
  fs::create_hard_link(dir_ / "tree/one", dir_ / "tree/inner/two");
  ASSERT_EQ(0, Do(dir_ / "tree", dir_ / "copy", kCopy));
  EXPECT_EQ(Status(dir_ / "copy/one").st_ino, Status(dir_ / "copy/inner/two").st_ino);
  EXPECT_NE(Status(dir_ / "tree/one").st_ino, Status(dir_ / "copy/one").st_ino);
}

TEST_F(Copy, KeepsHolesHoles) {
  {
    std::ofstream file(dir_ / "sparse", std::ios::binary);
    file.seekp(20L * 1024 * 1024);
    file << "middle";
  }
  fs::resize_file(dir_ / "sparse", 50UL * 1024 * 1024 + 3);
  ASSERT_EQ(0, Do(dir_ / "sparse", dir_ / "copy", kCopy));
  EXPECT_EQ(50L * 1024 * 1024 + 3, Status(dir_ / "copy").st_size);
  EXPECT_GT(1024 * 1024 / 512, Status(dir_ / "copy").st_blocks);
  EXPECT_EQ(ReadFile(dir_ / "sparse"), ReadFile(dir_ / "copy"));
}

TEST_F(Copy, CopiesFilesWhoseSizeIsNotWhatTheyYield) {
  ASSERT_EQ(0, Do("/proc/self/limits", dir_ / "copy", kPlain));
  EXPECT_EQ(ReadFile("/proc/self/limits"), ReadFile(dir_ / "copy"));
}

TEST_F(Copy, PreservesTheBytesOfNames) {
  const std::string name = "\xff\n %s" + std::string(240, 'x');
  fs::create_directory(dir_ / "tree");
  WriteFile(dir_ / "tree" + "/" + name, "content");
  ASSERT_EQ(0, Do(dir_ / "tree", dir_ / "copy", kCopy));
  EXPECT_EQ(std::vector<std::string>{name}, Names(dir_ / "copy"));
}

TEST_F(Copy, TakesPathsRelativeToTheWorkingDirectoryAndWithSlashesBehind) {
  fs::create_directory(dir_ / "tree");
  const fs::path previous = fs::current_path();
  fs::current_path(dir_.path());
  EXPECT_EQ(0, Do("tree/", "copy//", kCopy));
  EXPECT_EQ(0, Do("copy", "./moved", kMove));
  fs::current_path(previous);
  EXPECT_EQ((std::vector<std::string>{"moved", "tree"}), Names(dir_.path()));
}

TEST_F(Copy, RefusesPathsThatNameNoEntry) {
  WriteFile(dir_ / "a", "");
  for (const char* path : {"", "/", ".", ".."}) {
    EXPECT_GT(0, Do(path, dir_ / "b", kMove)) << path;
    EXPECT_GT(0, Do(dir_ / "a", path, kMove)) << path;
  }
  EXPECT_EQ(std::vector<std::string>{"a"}, Names(dir_.path()));
}

TEST_F(Copy, IntoItselfFailsAndLeavesNothing) {
  fs::create_directories(dir_ / "tree/inner");
  WriteFile(dir_ / "tree/file", "content");
  for (const NIMO_COPY_OPTIONS& options : {kCopy, kMove}) {
    EXPECT_GT(0, Do(dir_ / "tree", dir_ / "tree/inner/copy", options));
    EXPECT_EQ(EINVAL, NLIBCErrGet());
    EXPECT_EQ((std::vector<std::string>{"file", "inner"}), Names(dir_ / "tree"));
  }
}

TEST_F(Copy, ReplacesOnlyItsOwnKindAndNoFolderWithContent) {
  fs::create_directories(dir_ / "full/inner");
  fs::create_directory(dir_ / "empty");
  fs::create_directory(dir_ / "tree");
  WriteFile(dir_ / "file", "content");
  for (const NIMO_COPY_OPTIONS& options : {kCopy, kMove}) {
    EXPECT_GT(0, Do(dir_ / "file", dir_ / "empty", options));
    EXPECT_EQ(EISDIR, NLIBCErrGet());
    EXPECT_GT(0, Do(dir_ / "empty", dir_ / "file", options));
    EXPECT_EQ(ENOTDIR, NLIBCErrGet());
    EXPECT_GT(0, Do(dir_ / "empty", dir_ / "full", options));
    EXPECT_TRUE(NLIBCErrGet() == ENOTEMPTY || NLIBCErrGet() == EEXIST);
  }
  EXPECT_EQ((std::vector<std::string>{"empty", "file", "full", "full/inner", "tree"}), Names(dir_.path()));
  EXPECT_EQ(0, Do(dir_ / "full", dir_ / "empty", kCopy));
  EXPECT_TRUE(fs::exists(dir_ / "empty/inner"));
}

TEST_F(Copy, OfAFileOntoItselfDoesNothing) {
  WriteFile(dir_ / "a", "content");
  for (const NIMO_COPY_OPTIONS& options : {kCopy, kMove}) {
    EXPECT_EQ(0, Do(dir_ / "a", dir_ / "a", options));
    EXPECT_EQ("content", ReadFile(dir_ / "a"));
  }
}

TEST_F(Copy, MovingAFileOntoAnotherOfItsNamesLeavesTheOtherName) {
  WriteFile(dir_ / "a", "content");
  fs::create_hard_link(dir_ / "a", dir_ / "b");
  EXPECT_EQ(0, Do(dir_ / "a", dir_ / "b", kMove));
  EXPECT_FALSE(fs::exists(dir_ / "a"));
  EXPECT_EQ("content", ReadFile(dir_ / "b"));
}

TEST_F(Copy, TellsProgressUpToTheSize) {
  const size_t size = 40UL * 1024 * 1024;
  WriteFile(dir_ / "a", RandomBytes(size));
  unsigned long long last = 0;
  int calls = 0;
  on_progress = [&](unsigned long long bytes) {
    EXPECT_LT(last, bytes);
    last = bytes;
    ++calls;
    return 0;
  };
  EXPECT_EQ(0, Do(dir_ / "a", dir_ / "b", kCopy, Progress));
  EXPECT_EQ(size, last);
  EXPECT_LT(1, calls);
}

TEST_F(Copy, CancelledByProgressLeavesTheTargetAsItWas) {
  WriteFile(dir_ / "a", RandomBytes(1000));
  WriteFile(dir_ / "b", "old");
  on_progress = [](unsigned long long) { return 1; };
  EXPECT_GT(0, Do(dir_ / "a", dir_ / "b", kCopy, Progress));
  EXPECT_EQ(ECANCELED, NLIBCErrGet());
  EXPECT_EQ("old", ReadFile(dir_ / "b"));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), Names(dir_.path()));
}

TEST_F(Copy, TheTargetIsNeverSeenInPart) {
  WriteFile(dir_ / "a", RandomBytes(20UL * 1024 * 1024));
  on_progress = [&](unsigned long long) {
    EXPECT_FALSE(fs::exists(dir_ / "b"));
    return 0;
  };
  EXPECT_EQ(0, Do(dir_ / "a", dir_ / "b", kCopy, Progress));
  EXPECT_TRUE(fs::exists(dir_ / "b"));
}

TEST_F(MoveAcross, TakesTreesWithEverythingAndRemovesTheSource) {
  fs::create_directories(dir_ / "tree/inner/deep");
  const std::string content = RandomBytes(300000);
  WriteFile(dir_ / "tree/inner/deep/file", content);
  WriteFile(dir_ / "tree/empty", "");
  fs::create_symlink("empty", dir_ / "tree/link");
  fs::create_hard_link(dir_ / "tree/empty", dir_ / "tree/inner/again");
  chmod((dir_ / "tree/inner").c_str(), 0751);
  const struct stat before = Status(dir_ / "tree/inner/deep/file");
  ASSERT_EQ(0, Do(dir_ / "tree", dir_ / "other/moved", kMove)) << NLIBCErrGet();
  EXPECT_FALSE(fs::exists(dir_ / "tree"));
  EXPECT_EQ((std::vector<std::string>{"empty", "inner", "inner/again", "inner/deep", "inner/deep/file", "link"}),
            Names(dir_ / "other/moved"));
  EXPECT_EQ(content, ReadFile(dir_ / "other/moved/inner/deep/file"));
  EXPECT_EQ(before.st_mtim.tv_nsec, Status(dir_ / "other/moved/inner/deep/file").st_mtim.tv_nsec);
  EXPECT_EQ(mode_t{S_IFDIR | 0751}, Status(dir_ / "other/moved/inner").st_mode);
  EXPECT_EQ(Status(dir_ / "other/moved/empty").st_ino, Status(dir_ / "other/moved/inner/again").st_ino);
}

TEST_F(MoveAcross, ReplacesAFileThatIsThere) {
  WriteFile(dir_ / "a", "new");
  WriteFile(dir_ / "other/b", "old");
  ASSERT_EQ(0, Do(dir_ / "a", dir_ / "other/b", kMove));
  EXPECT_EQ("new", ReadFile(dir_ / "other/b"));
  EXPECT_FALSE(fs::exists(dir_ / "a"));
  EXPECT_EQ(std::vector<std::string>{"b"}, Names(dir_ / "other"));
}

TEST_F(CopyAcross, WithoutRoomFailsAndLeavesNothingBehind) {
  fs::create_directory(dir_ / "tree");
  WriteFile(dir_ / "tree/small", "x");
  WriteFile(dir_ / "tree/big", RandomBytes(kOtherBytes * 2));
  for (const NIMO_COPY_OPTIONS& options : {kCopy, kMove}) {
    EXPECT_GT(0, Do(dir_ / "tree", dir_ / "other/copy", options));
    EXPECT_EQ(ENOSPC, NLIBCErrGet());
    EXPECT_EQ(std::vector<std::string>(), Names(dir_ / "other"));
    EXPECT_EQ((std::vector<std::string>{"big", "small"}), Names(dir_ / "tree"));
    EXPECT_EQ(kOtherBytes * 2, fs::file_size(dir_ / "tree/big"));
  }
}

TEST_F(CopyAcross, WithoutRoomKeepsTheFileThatItWouldHaveReplaced) {
  WriteFile(dir_ / "big", RandomBytes(kOtherBytes * 2));
  WriteFile(dir_ / "other/target", "old");
  EXPECT_GT(0, Do(dir_ / "big", dir_ / "other/target", kMove));
  EXPECT_EQ("old", ReadFile(dir_ / "other/target"));
}

TEST_F(MoveAcross, OfATreeThatGrowsMeanwhileFailsAndKeepsTheSource) {
  fs::create_directory(dir_ / "tree");
  WriteFile(dir_ / "tree/file", "content");
  on_progress = [&](unsigned long long) {
    WriteFile(dir_ / "tree/newcomer", "new");
    return 0;
  };
  EXPECT_GT(0, Do(dir_ / "tree", dir_ / "other/moved", kMove, Progress));
  EXPECT_EQ(EBUSY, NLIBCErrGet());
  EXPECT_EQ((std::vector<std::string>{"file", "newcomer"}), Names(dir_ / "tree"));
  EXPECT_EQ(std::vector<std::string>(), Names(dir_ / "other"));
}

TEST_F(MoveAcross, OfAFileThatIsWrittenMeanwhileFailsAndKeepsTheSource) {
  WriteFile(dir_ / "file", "content");
  on_progress = [&](unsigned long long) {
    WriteFile(dir_ / "file", "rewritten, longer");
    return 0;
  };
  EXPECT_GT(0, Do(dir_ / "file", dir_ / "other/moved", kMove, Progress));
  EXPECT_EQ("rewritten, longer", ReadFile(dir_ / "file"));
  EXPECT_EQ(std::vector<std::string>(), Names(dir_ / "other"));
}

TEST_F(MoveAcross, OfASourceThatCannotBeRemovedKeepsTheWholeCopy) {
  fs::create_directories(dir_ / "tree/busy");
  WriteFile(dir_ / "tree/busy/file", "content");
  MountBind(dir_ / "tree/busy", dir_ / "tree/busy");  // a mount point cannot be removed
  EXPECT_GT(0, Do(dir_ / "tree", dir_ / "other/moved", kMove));
  EXPECT_EQ(EBUSY, NLIBCErrGet());
  EXPECT_EQ("content", ReadFile(dir_ / "other/moved/busy/file"));
  EXPECT_TRUE(fs::exists(dir_ / "tree"));
}

TEST_F(MoveAcross, OntoTheSameFileUnderAnotherMountLosesNothing) {
  fs::create_directory(dir_ / "here");
  fs::create_directory(dir_ / "there");
  WriteFile(dir_ / "here/file", "content");
  MountBind(dir_ / "here", dir_ / "there");
  EXPECT_EQ(0, Do(dir_ / "here/file", dir_ / "there/file", kMove));
  EXPECT_EQ("content", ReadFile(dir_ / "here/file"));
}

TEST_F(MoveAcross, IntoItselfThroughAnotherMountFailsAndLosesNothing) {
  fs::create_directories(dir_ / "tree/inner");
  fs::create_directory(dir_ / "window");
  WriteFile(dir_ / "tree/file", "content");
  MountBind(dir_ / "tree/inner", dir_ / "window");
  EXPECT_GT(0, Do(dir_ / "tree", dir_ / "window/moved", kMove));
  EXPECT_EQ(EINVAL, NLIBCErrGet());
  EXPECT_EQ((std::vector<std::string>{"file", "inner"}), Names(dir_ / "tree"));
}

}  // namespace
}  // namespace orbisk::test
