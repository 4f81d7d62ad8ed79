// The directory walk when directories cannot be opened or read. This program replaces opendir(3) and readdir(3).
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/util.h"
#include "tests/support/record_capture.h"
#include "tests/support/record_tail.h"
#include "tests/support/temp_dir.h"

namespace {

const std::string* unopenable;  // this path fails with EACCES
int entries_until_error = -1;   // then readdir fails with EIO, once
int open_streams;

}  // namespace

extern "C" {

DIR* opendir(const char* path) {
  if (unopenable != nullptr && *unopenable == path) {
    errno = EACCES;
    return nullptr;
  }
  static const auto real = reinterpret_cast<DIR* (*)(const char*)>(dlsym(RTLD_NEXT, "opendir"));
  DIR* stream = real(path);
  open_streams += stream != nullptr ? 1 : 0;
  return stream;
}

dirent* readdir(DIR* stream) {
  if (entries_until_error >= 0 && entries_until_error-- == 0) {
    errno = EIO;
    return nullptr;
  }
  static const auto real = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"));
  return real(stream);
}

int closedir(DIR* stream) {
  static const auto real = reinterpret_cast<int (*)(DIR*)>(dlsym(RTLD_NEXT, "closedir"));
  --open_streams;
  return real(stream);
}
}

namespace orbisk {
namespace {

using Paths = std::vector<std::string>;

class WalkFailure : public testing::Test {
 protected:
  WalkFailure() {
    std::filesystem::create_directories(dir_ / "a/b/c/d");
    open_streams = 0;
    errno = 0;
  }
  ~WalkFailure() override {
    unopenable = nullptr;
    entries_until_error = -1;
  }

  Paths Walk() {
    Paths seen;
    ProcessDir(dir_ / "a", [&](const std::string& entry) { seen.push_back(entry); });
    return seen;
  }

  test::RecordCapture capture_;
  test::TempDir dir_;
};

TEST_F(WalkFailure, ASubdirectoryThatCannotBeOpenedEndsTheWholeWalk) {
  const std::string path = dir_ / "a/b/c";
  unopenable = &path;
  Paths seen;
  try {
    ProcessDir(dir_ / "a", [&](const std::string& entry) { seen.push_back(entry); });
    FAIL() << "nothing thrown";
  } catch (const Error& error) {
    EXPECT_EQ(502, error.code());
    EXPECT_EQ("Failed to open dir: " + path, error.reason());
  }
  EXPECT_EQ((Paths{dir_ / "a/b", path}), seen);
  ASSERT_EQ(1U, capture_.records().size());
  EXPECT_EQ("Failed [nullptr == (dir = opendir(full_path.c_str()))], reason: Failed to open dir: " + path +
                " [err: Permission denied]",
            test::RecordTail(capture_.records()[0], "util.cpp", "ProcessDir"));
  EXPECT_EQ(0, open_streams);
}

TEST_F(WalkFailure, AReadErrorEndsADirectoryQuietly) {
  entries_until_error = 0;
  EXPECT_EQ(Paths(), Walk());
  EXPECT_TRUE(capture_.records().empty());
  EXPECT_EQ(0, open_streams);
}

TEST_F(WalkFailure, AReadErrorInASubdirectoryLetsItsParentGoOn) {
  for (int i = 0; i < 5; ++i) {
    std::filesystem::create_directory(dir_ / ("a/sibling" + std::to_string(i)));
  }
  std::filesystem::remove_all(dir_ / "a/b");
  // Read so far: the entries of "a" up to its first folder, none of which is missed.
  Paths seen;
  ProcessDir(dir_ / "a", [&](const std::string& entry) {
    seen.push_back(entry);
    if (seen.size() == 1) {
      entries_until_error = 0;
    }
  });
  EXPECT_EQ(5U, seen.size());
  EXPECT_TRUE(capture_.records().empty());
  EXPECT_EQ(-1, entries_until_error);
}

}  // namespace
}  // namespace orbisk
