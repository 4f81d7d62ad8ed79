// The directory walk, on real directories.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/util.h"
#include "tests/support/record_capture.h"
#include "tests/support/record_tail.h"
#include "tests/support/temp_dir.h"

namespace orbisk {
namespace {

namespace fs = std::filesystem;
using test::RecordTail;
using Paths = std::vector<std::string>;

class ProcessDirTest : public testing::Test {
 protected:
  ProcessDirTest() { errno = 0; }

  Paths Walk(const std::string& path) {
    Paths seen;
    ProcessDir(path, [&](const std::string& entry) { seen.push_back(entry); });
    return seen;
  }

  std::string Tail(size_t index) const { return RecordTail(capture_.records().at(index), "util.cpp", "ProcessDir"); }

  test::RecordCapture capture_;
  test::TempDir dir_;
};

TEST_F(ProcessDirTest, ShowsADirectoryBeforeItsContent) {
  fs::create_directories(dir_ / "a/b");
  test::WriteFile(dir_ / "a/b/c", "");
  EXPECT_EQ((Paths{dir_ / "a/b", dir_ / "a/b/c"}), Walk(dir_ / "a"));
}

TEST_F(ProcessDirTest, ShowsNothingForAnEmptyDirectory) {
  EXPECT_EQ(Paths(), Walk(dir_.path()));
}

TEST_F(ProcessDirTest, PutsASlashBehindThePathAsGiven) {
  test::WriteFile(dir_ / "x", "");
  EXPECT_EQ(Paths{dir_.path() + "//x"}, Walk(dir_.path() + "/"));
}

TEST_F(ProcessDirTest, SkipsOnlyTheTwoDotEntries) {
  for (const char* name : {".hidden", "..twodots", "..."}) {
    test::WriteFile(dir_ / name, "");
  }
  Paths seen = Walk(dir_.path());
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ((Paths{dir_ / "...", dir_ / "..twodots", dir_ / ".hidden"}), seen);
}

TEST_F(ProcessDirTest, ShowsLinksAndDoesNotFollowThem) {
  fs::create_directories(dir_ / "outside/inner");
  fs::create_directory(dir_ / "walked");
  fs::create_directory_symlink(dir_ / "outside", dir_ / "walked/link");
  EXPECT_EQ(Paths{dir_ / "walked/link"}, Walk(dir_ / "walked"));
}

TEST_F(ProcessDirTest, PreservesTheBytesOfNames) {
  const std::string name = "\xff\n \x80%s";
  test::WriteFile(dir_ / name, "");
  EXPECT_EQ(Paths{dir_ / name}, Walk(dir_.path()));
}

TEST_F(ProcessDirTest, FailsForAMissingDirectory) {
  const std::string missing = dir_ / "missing";
  try {
    Walk(missing);
    FAIL() << "nothing thrown";
  } catch (const Error& error) {
    EXPECT_EQ(502, error.code());
    EXPECT_EQ("Failed to open dir: " + missing, error.reason());
  }
  ASSERT_EQ(1U, capture_.records().size());
  EXPECT_EQ("Failed [nullptr == (dir = opendir(full_path.c_str()))], reason: Failed to open dir: " + missing +
                " [err: No such file or directory]",
            Tail(0));
}

TEST_F(ProcessDirTest, FailsForAFile) {
  test::WriteFile(dir_ / "file", "");
  EXPECT_THROW(Walk(dir_ / "file"), Error);
}

TEST_F(ProcessDirTest, DescendsIntoADirectoryThatTheCallbackFailedOn) {
  fs::create_directories(dir_ / "a/b");
  test::WriteFile(dir_ / "a/b/c", "");
  Paths seen;
  ProcessDir(dir_ / "a", [&](const std::string& entry) {
    seen.push_back(entry);
    if (entry == dir_ / "a/b") {
      throw Error(Code(914), "Parse failed");
    }
  });
  EXPECT_EQ((Paths{dir_ / "a/b", dir_ / "a/b/c"}), seen);
}

TEST_F(ProcessDirTest, RecordsAnErrorOfTheCallbackWithPathAndReason) {
  test::WriteFile(dir_ / "x", "");
  ProcessDir(dir_.path(), [](const std::string&) { throw Error(Code(914), "Parse failed"); });
  ProcessDir(dir_.path(), [](const std::string&) {
    errno = EIO;
    throw Error(Code(914), "Parse failed");
  });
  EXPECT_EQ(0, errno);
  ASSERT_EQ(2U, capture_.records().size());
  EXPECT_EQ("%s:%d (%d, %u) (%s) ProcessDir failed on %s, reason=%s", capture_.records()[0].format);
  EXPECT_EQ(3, capture_.records()[0].priority);
  EXPECT_EQ("ProcessDir failed on " + dir_ / "x" + ", reason=Parse failed", Tail(0));
  EXPECT_EQ("%s:%d (%d, %u) (%s) ProcessDir failed on %s, reason=%s [err: %m]", capture_.records()[1].format);
  EXPECT_EQ("ProcessDir failed on " + dir_ / "x" + ", reason=Parse failed [err: Input/output error]", Tail(1));
}

TEST_F(ProcessDirTest, RecordsAnyOtherExceptionWithThePathAlone) {
  test::WriteFile(dir_ / "x", "");
  ProcessDir(dir_.path(), [](const std::string&) { throw std::runtime_error("not shown"); });
  ProcessDir(dir_.path(), [](const std::string&) { throw 7; });
  ProcessDir(dir_.path(), [](const std::string&) {
    errno = EIO;
    throw std::bad_alloc();
  });
  ProcessDir(dir_.path(), nullptr);
  ASSERT_EQ(4U, capture_.records().size());
  EXPECT_EQ("%s:%d (%d, %u) (%s) ProcessDir failed on %s", capture_.records()[0].format);
  EXPECT_EQ("ProcessDir failed on " + dir_ / "x", Tail(0));
  EXPECT_EQ("ProcessDir failed on " + dir_ / "x", Tail(1));
  EXPECT_EQ("ProcessDir failed on " + dir_ / "x [err: Input/output error]", Tail(2));
  EXPECT_EQ("ProcessDir failed on " + dir_ / "x", Tail(3));
}

TEST_F(ProcessDirTest, DoesNotDescendIntoWhatTheCallbackRemoved) {
  fs::create_directories(dir_ / "a/b/c");
  Paths seen;
  ProcessDir(dir_ / "a", [&](const std::string& entry) {
    seen.push_back(entry);
    fs::remove_all(entry);
  });
  EXPECT_EQ(Paths{dir_ / "a/b"}, seen);
}

// A callback that counts in itself: what a copy counts, the original does not see.
struct Counter {
  std::shared_ptr<std::vector<int>> counts;
  int own = 0;
  void operator()(const std::string&) { counts->push_back(++own); }
};

TEST_F(ProcessDirTest, WalksEachSubdirectoryWithACopyOfTheCallback) {
  fs::create_directories(dir_ / "one/child");
  fs::create_directories(dir_ / "two/child");
  const Counter counter{std::make_shared<std::vector<int>>()};
  ProcessDir(dir_.path(), counter);
  // The second folder follows on the first one, and does not know of the child between them.
  EXPECT_EQ((std::vector<int>{1, 2, 2, 3}), *counter.counts);
}

// The same walk, as plainly as it can be written.
void NaiveWalk(const std::string& path, Paths& seen) {
  DIR* dir = opendir(path.c_str());
  ASSERT_NE(nullptr, dir);
  while (const dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") {
      continue;
    }
    seen.emplace_back(path).append("/").append(name);
    if (fs::is_directory(fs::symlink_status(seen.back()))) {
      NaiveWalk(std::string(seen.back()), seen);
    }
  }
  closedir(dir);
}

TEST_F(ProcessDirTest, VisitsRandomTreesInTheOrderThatTheFileSystemLists) {
  std::mt19937 random(20240607);
  std::vector<std::string> folders{dir_.path()};
  for (int i = 0; i < 400; ++i) {
    const std::string path = folders[random() % folders.size()] + "/" + std::to_string(random());
    switch (random() % 3) {
      case 0:
        fs::create_directory(path);
        folders.push_back(path);
        break;
      case 1:
        fs::create_symlink(folders[random() % folders.size()], path);
        break;
      default:
        test::WriteFile(path, "");
    }
  }
  Paths expected;
  NaiveWalk(dir_.path(), expected);
  ASSERT_EQ(400U, expected.size());
  EXPECT_EQ(expected, Walk(dir_.path()));
}

}  // namespace
}  // namespace orbisk
