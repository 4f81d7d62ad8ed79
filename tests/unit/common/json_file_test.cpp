// JSON files: whole or not at all.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "orbisk/json.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace {

// The system calls that make a file safe, as the code under test makes them: noted, and failing on demand.
struct DiskCalls {
  bool active = false;
  std::vector<std::string> calls;  // "fsync <path>", "rename <from> <to>"
  std::string failing;             // "fsync file", "fsync folder", "rename"
  int error = 0;
  bool dies_at_rename = false;
  std::vector<std::string> text_when_synced;
};

DiskCalls& TheCalls() {
  static auto* const calls = new DiskCalls;
  return *calls;
}

std::string PathOf(int fd) {
  std::array<char, PATH_MAX> path{};
  const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path.data(), path.size());
  return length < 0 ? "" : std::string(path.data(), static_cast<size_t>(length));
}

}  // namespace

extern "C" int fsync(int fd) {
  DiskCalls& calls = TheCalls();
  if (calls.active) {
    struct stat status {};
    fstat(fd, &status);
    const bool is_folder = S_ISDIR(status.st_mode);
    calls.calls.push_back("fsync " + PathOf(fd));
    if (!is_folder) {
      calls.text_when_synced.push_back(orbisk::test::ReadFile(PathOf(fd)));
    }
    if (calls.failing == (is_folder ? "fsync folder" : "fsync file")) {
      errno = calls.error;
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int rename(const char* from, const char* to) noexcept {
  DiskCalls& calls = TheCalls();
  if (calls.active) {
    calls.calls.push_back(std::string("rename ") + from + " " + to);
    if (calls.dies_at_rename) {
      _exit(9);
    }
    if (calls.failing == "rename") {
      errno = calls.error;
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

namespace orbisk {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

std::vector<std::string> NamesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

unsigned ModeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, lstat(path.c_str(), &status));
  return status.st_mode & 07777U;
}

Json::Value Sample() {
  Json::Value value;
  value["b"] = "caf\xe9";
  value["a"].append(1);
  return value;
}

const char* const kSampleText = "{\"a\":[1],\"b\":\"caf\xe9\"}";

class JsonFile : public testing::Test {
 protected:
  ~JsonFile() override { TheCalls() = {}; }

  // What stays behind when a call of the system fails.
  void ExpectOldFileAlone(const std::string& failing, int error) {
    WriteFile(path_, "old");
    TheCalls() = {};
    TheCalls().failing = failing;
    TheCalls().error = error;
    TheCalls().active = true;
    EXPECT_FALSE(toFile(Sample(), path_)) << failing;
    TheCalls().active = false;
    EXPECT_EQ("old", ReadFile(path_)) << failing;
    EXPECT_EQ(std::vector<std::string>{"target"}, NamesIn(folder_.path())) << failing;
  }

  TempDir folder_;
  std::string path_ = folder_ / "target";
};

TEST_F(JsonFile, ToFileWritesTheTextAndNothingElse) {
  EXPECT_TRUE(toFile(Sample(), path_));
  EXPECT_EQ(kSampleText, ReadFile(path_));
  EXPECT_EQ(std::vector<std::string>{"target"}, NamesIn(folder_.path()));
}

TEST_F(JsonFile, ToFileReplacesALongerFileWhole) {
  WriteFile(path_, std::string(10'000, 'x'));
  EXPECT_TRUE(toFile(Json::Value(1), path_));
  EXPECT_EQ("1", ReadFile(path_));
}

TEST_F(JsonFile, ToFileReplacesTheFileInsteadOfWritingIntoIt) {
  WriteFile(path_, "old");
  const int reader = open(path_.c_str(), O_RDONLY);
  EXPECT_TRUE(toFile(Sample(), path_));
  std::array<char, 16> buffer{};
  EXPECT_EQ(3, read(reader, buffer.data(), buffer.size()));
  EXPECT_STREQ("old", buffer.data());
  close(reader);
}

TEST_F(JsonFile, ToFileGivesMode0644WhateverTheUmaskAndTheOldMode) {
  for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
    const mode_t before = umask(mask);
    EXPECT_TRUE(toFile(Sample(), path_));
    umask(before);
    EXPECT_EQ(0644U, ModeOf(path_)) << std::oct << mask;
    EXPECT_EQ(0, chmod(path_.c_str(), 0600));
  }
}

TEST_F(JsonFile, ToFileSyncsTheFileRenamesItAndSyncsTheFolder) {
  WriteFile(path_, "old");
  TheCalls().active = true;
  EXPECT_TRUE(toFile(Sample(), path_));
  TheCalls().active = false;
  const std::vector<std::string>& calls = TheCalls().calls;
  ASSERT_EQ(3U, calls.size());
  EXPECT_EQ(0U, calls[0].find("fsync " + folder_.path() + "/"));
  const std::string temporary = calls[0].substr(6);
  EXPECT_NE(path_, temporary);
  EXPECT_EQ("rename " + temporary + " " + path_, calls[1]);
  EXPECT_EQ("fsync " + folder_.path(), calls[2]);
  EXPECT_EQ(std::vector<std::string>{kSampleText}, TheCalls().text_when_synced);
}

TEST_F(JsonFile, AFailedSyncOrRenameLeavesTheOldFileAndNoTemporary) {
  ExpectOldFileAlone("fsync file", EIO);
  ExpectOldFileAlone("rename", EACCES);
}

TEST_F(JsonFile, AFailedSyncOfTheFolderIsAFailure) {
  TheCalls().failing = "fsync folder";
  TheCalls().error = EIO;
  TheCalls().active = true;
  EXPECT_FALSE(toFile(Sample(), path_));
}

TEST_F(JsonFile, AProcessThatDiesBeforeTheRenameLeavesTheOldFileWhole) {
  WriteFile(path_, "old");
  EXPECT_EXIT(
      {
        TheCalls().dies_at_rename = true;
        TheCalls().active = true;
        toFile(Sample(), path_);
        _exit(0);
      },
      testing::ExitedWithCode(9), "");
  EXPECT_EQ("old", ReadFile(path_));
}

TEST_F(JsonFile, ToFileReplacesASymbolicLinkAndLeavesItsTarget) {
  const std::string other = folder_ / "other";
  WriteFile(other, "other");
  ASSERT_EQ(0, symlink("other", path_.c_str()));
  EXPECT_TRUE(toFile(Sample(), path_));
  EXPECT_EQ("other", ReadFile(other));
  EXPECT_FALSE(std::filesystem::is_symlink(path_));
  EXPECT_EQ(kSampleText, ReadFile(path_));
}

TEST_F(JsonFile, ToFileFailsInAMissingFolder) {
  EXPECT_FALSE(toFile(Sample(), folder_ / "missing/target"));
  EXPECT_TRUE(NamesIn(folder_.path()).empty());
}

TEST_F(JsonFile, ToFileFailsOnADirectoryAndLeavesNoTemporary) {
  ASSERT_EQ(0, mkdir(path_.c_str(), 0755));
  EXPECT_FALSE(toFile(Sample(), path_));
  EXPECT_EQ(std::vector<std::string>{"target"}, NamesIn(folder_.path()));
}

TEST_F(JsonFile, ToFileFailsOnAnEmptyPath) {
  EXPECT_FALSE(toFile(Sample(), ""));
}

TEST_F(JsonFile, ToFileFailsInAFolderThatMayNotBeWritten) {
  WriteFile(path_, "old");
  ASSERT_EQ(0, chmod(folder_.path().c_str(), 0555));
  const bool is_root = geteuid() == 0;
  if (is_root) {
    ASSERT_EQ(0, seteuid(65534));
  }
  const bool written = toFile(Sample(), path_);
  if (is_root) {
    ASSERT_EQ(0, seteuid(0));
  }
  ASSERT_EQ(0, chmod(folder_.path().c_str(), 0755));
  EXPECT_FALSE(written);
  EXPECT_EQ("old", ReadFile(path_));
  EXPECT_EQ(std::vector<std::string>{"target"}, NamesIn(folder_.path()));
}

TEST_F(JsonFile, ToFileTakesAPathWithoutAFolder) {
  EXPECT_EXIT(
      {
        const bool good =
            chdir(folder_.path().c_str()) == 0 && toFile(Sample(), "target") && ReadFile(path_) == kSampleText;
        _exit(good ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

// Exit status of the child: 0 all well, 1 a wrong result, 2 this machine allows no private mounts.
int FillATinyFileSystem(const std::string& folder) {
  try {
    test::EnterPrivateMounts({folder});
    test::MountEmptyFileSystem(folder, 64 * 1024);
  } catch (const test::NotAllowed&) {
    return 2;
  }
  const std::string path = folder + "/target";
  const bool small_fits = toFile(Sample(), path);
  const bool large_fits = toFile(Json::Value(std::string(1024 * 1024, 'x')), path);
  const bool good = small_fits && !large_fits && ReadFile(path) == kSampleText && NamesIn(folder).size() == 1;
  return good ? 0 : 1;
}

TEST_F(JsonFile, AFullDiskLeavesTheOldFileAndNoTemporary) {
  int result = -1;
  EXPECT_EXIT(
      _exit(FillATinyFileSystem(folder_.path())),
      [&](int status) {
        result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return result == 0 || result == 2;
      },
      "");
  if (result == 2) {
    GTEST_SKIP() << "this machine allows no private mounts";
  }
}

TEST_F(JsonFile, FromFileReadsWhatToFileWrote) {
  ASSERT_TRUE(toFile(Sample(), path_));
  Json::Value value;
  EXPECT_TRUE(fromFile(value, path_));
  EXPECT_EQ(Sample(), value);
}

TEST_F(JsonFile, FromFileAcceptsANewlineAtTheEndAndAnyTypeOfRoot) {
  WriteFile(path_, "[1, 2]\n");
  Json::Value value;
  EXPECT_TRUE(fromFile(value, path_));
  EXPECT_EQ("[1,2]", toString(value));
}

TEST_F(JsonFile, FromFileReadsAFileOfManyBuffers) {
  Json::Value large;
  for (int i = 0; i < 100'000; ++i) {
    large.append("entry " + std::to_string(i));
  }
  ASSERT_TRUE(toFile(large, path_));
  Json::Value value;
  EXPECT_TRUE(fromFile(value, path_));
  EXPECT_EQ(large, value);
}

TEST_F(JsonFile, FromFileRefusesWhatIsNotJsonAndLeavesTheValue) {
  for (const char* text : {"", "{", "{} {}", "{}x", "nonsense"}) {
    WriteFile(path_, text);
    Json::Value value("untouched");
    EXPECT_FALSE(fromFile(value, path_)) << text;
    EXPECT_EQ(Json::Value("untouched"), value);
  }
  WriteFile(path_, std::string(2000, '[') + std::string(2000, ']'));
  Json::Value value("untouched");
  EXPECT_FALSE(fromFile(value, path_)) << "too many levels";
}

TEST_F(JsonFile, FromFileFailsOnAMissingFileAndOnADirectory) {
  Json::Value value("untouched");
  EXPECT_FALSE(fromFile(value, path_));
  EXPECT_FALSE(fromFile(value, folder_.path()));
  EXPECT_EQ(Json::Value("untouched"), value);
}

}  // namespace
}  // namespace orbisk
