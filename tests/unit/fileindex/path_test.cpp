// The two forms of paths, their parts, and which share and recycle bin they lie in.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "nimo/share.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/util.h"
#include "tests/support/fake_share.h"
#include "tests/support/record_capture.h"
#include "tests/unit/error_of.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::ErrorOf;
using orbisk::test::FakePlatform;
using orbisk::test::FakeShares;
using orbisk::test::RecordCapture;
using Words = std::vector<std::string>;

// The whole text of a record whose line number is fixed.
std::string FixedRecord(int line, const std::string& function, const std::string& condition, const std::string& reason,
                        const std::string& error = "") {
  return "util.cpp:" + std::to_string(line) + " (" + std::to_string(getpid()) + ", " + std::to_string(geteuid()) +
         ") (" + function + ") Failed [" + condition + "], reason: " + reason +
         (error.empty() ? "" : " [err: " + error + "]");
}

TEST(StringStartWith, ComparesTheBeginning) {
  EXPECT_TRUE(StringStartWith("/volume1/photo", "/volume1"));
  EXPECT_TRUE(StringStartWith("/volume1", "/volume1"));
  EXPECT_FALSE(StringStartWith("/volume1", "/volume1/"));
  EXPECT_FALSE(StringStartWith("/volume1", "volume1")) << "further behind is not the beginning";
  EXPECT_FALSE(StringStartWith("/Volume1", "/volume1"));
  EXPECT_FALSE(StringStartWith("", "/"));
}

TEST(StringStartWith, TakesTheEmptyPrefixEverywhere) {
  EXPECT_TRUE(StringStartWith("/volume1", ""));
  EXPECT_TRUE(StringStartWith("", ""));
}

TEST(Basename, IsWhatStandsBehindTheLastSlash) {
  EXPECT_EQ("b", Basename("/a/b"));
  EXPECT_EQ("a", Basename("/a"));
  EXPECT_EQ("a", Basename("a"));
  EXPECT_EQ("", Basename("/x/y/"));
  EXPECT_EQ("", Basename("/"));
  EXPECT_EQ("", Basename(""));
}

TEST(Dirname, IsWhatStandsBeforeTheLastSlash) {
  EXPECT_EQ("/a", Dirname("/a/b"));
  EXPECT_EQ("/x/y", Dirname("/x/y/"));
  EXPECT_EQ("a", Dirname("a/b"));
  EXPECT_EQ("", Dirname("/a"));
  EXPECT_EQ("", Dirname("/"));
}

TEST(Dirname, IsTheWholePathWithoutASlash) {
  EXPECT_EQ("a", Dirname("a"));
  EXPECT_EQ("", Dirname(""));
}

TEST(FileExtension, IsWhatStandsBehindTheLastDotOfTheName) {
  EXPECT_EQ("jpg", GetFileExtension("/v/a.jpg", false));
  EXPECT_EQ("gz", GetFileExtension("/v/archive.tar.gz", false));
  EXPECT_EQ("", GetFileExtension("/v/README", false));
  EXPECT_EQ("", GetFileExtension("/v/name.", false));
  EXPECT_EQ("bashrc", GetFileExtension("/v/.bashrc", false)) << "a leading dot counts";
  EXPECT_EQ("", GetFileExtension("/v/folder.d/README", false)) << "only the name is looked at";
  EXPECT_EQ("", GetFileExtension("/v/folder.d/", false));
  EXPECT_EQ("", GetFileExtension("", false));
  EXPECT_EQ("txt", GetFileExtension("a.txt", false));
}

TEST(FileExtension, IsLoweredOnlyWhenAsked) {
  EXPECT_EQ("JPG", GetFileExtension("/v/a.JPG", false));
  EXPECT_EQ("jpg", GetFileExtension("/v/a.JpG", true));
}

TEST(FileExtension, IsLoweredByteByByte) {
  EXPECT_EQ("\xc3\x84x", GetFileExtension("/v/a.\xc3\x84X", true)) << "a letter of two bytes stays";
  EXPECT_EQ("\xff", GetFileExtension("/v/a.\xff", true));
}

class SharePath : public testing::Test {
 protected:
  SharePath() {
    FakeShares().Add("photo", "/volume1/photo");
    errno = 0;
  }
  ~SharePath() override { EXPECT_EQ(0, FakeShares().outstanding()); }

  static std::string ShareOf(const std::string& share_path) {
    std::string share = "replaced";
    GetShareNameByPath(share, share_path);
    return share;
  }
  static std::string FullOf(const std::string& share_path) {
    std::string full_path = "replaced";
    GetFullPath(full_path, share_path);
    return full_path;
  }
  // "share path" of a full path.
  static std::string HolderOf(const std::string& full_path) {
    std::string share = "replaced";
    std::string share_path = "replaced";
    GetShareNamePathByFullPath(share, share_path, full_path);
    return share + " " + share_path;
  }

  FakePlatform platform_;
};

TEST_F(SharePath, BeginsWithTheNameOfItsShare) {
  EXPECT_EQ("photo", ShareOf("/photo/2019/a.jpg"));
  EXPECT_EQ("photo", ShareOf("/photo"));
  EXPECT_EQ("photo", ShareOf("/photo/"));
  EXPECT_EQ(" ", ShareOf("/ /a"));
}

TEST_F(SharePath, ThatIsASlashHasAnEmptyName) {
  EXPECT_EQ("", ShareOf("/"));
  EXPECT_EQ("", ShareOf("//photo"));
}

constexpr char kNoSlash[] = "1 > share_path.size() || '/' != share_path.at(0)";

TEST_F(SharePath, WithoutALeadingSlashFails) {
  for (const char* path : {"", "photo/a", " /photo"}) {
    const RecordCapture capture;
    EXPECT_EQ("120 ", ErrorOf([&] { ShareOf(path); }));
    EXPECT_EQ(Words{FixedRecord(811, "GetShareNameByPath", kNoSlash, "")}, capture.texts());
  }
}

TEST_F(SharePath, WithoutALeadingSlashShowsTheSystemsErrorAndClearsIt) {
  const RecordCapture capture;
  errno = ENOENT;
  EXPECT_EQ("120 ", ErrorOf([] { ShareOf("photo"); }));
  EXPECT_EQ(0, errno);
  EXPECT_EQ(Words{FixedRecord(811, "GetShareNameByPath", kNoSlash, "", "No such file or directory")}, capture.texts());
  EXPECT_EQ(3, capture.records()[0].priority);
}

TEST_F(SharePath, LiesOnItsSharesVolume) {
  EXPECT_EQ("/volume1/photo/2019", FullOf("/photo/2019"));
  EXPECT_EQ("/volume1/photo", FullOf("/photo"));
  EXPECT_EQ("/volume1/photo/", FullOf("/photo/")) << "the share path is appended unchanged";
}

TEST_F(SharePath, NamesTheSharesFolderItself) {
  FakeShares().Add("music", "/volume2/stored-elsewhere");
  EXPECT_EQ("/volume2/music/a", FullOf("/music/a"));
}

TEST_F(SharePath, MayShareItsVariableWithTheFullPath) {
  std::string path = "/photo/a";
  GetFullPath(path, path);
  EXPECT_EQ("/volume1/photo/a", path);
}

TEST_F(SharePath, OfNoShareHasNoFullPath) {
  EXPECT_EQ("800 video", ErrorOf([] { FullOf("/video/a"); }));
  EXPECT_EQ("800 ", ErrorOf([] { FullOf("/"); }));
  EXPECT_EQ("120 ", ErrorOf([] { FullOf("photo/a"); }));
  EXPECT_EQ("120 ", ErrorOf([] { FullOf(""); }));
}

TEST_F(SharePath, IsFoundUnderTheLockOnly) {
  EXPECT_EQ("photo /volume1/photo", HolderOf("/volume1/photo/2019/a.jpg"));
  ASSERT_EQ(1U, FakePlatform::call_count());
  EXPECT_EQ("NIMOShareNamePathGet", FakePlatform::calls()[0].function);
  EXPECT_EQ((Words{"/volume1/photo/2019/a.jpg", "pointer", "492", "pointer", "4096"}),
            FakePlatform::calls()[0].arguments);
  EXPECT_TRUE(FakePlatform::calls()[0].sdk_mutex_held);
}

TEST_F(SharePath, IsEmptyWhenThePlatformFillsNothing) {
  FakeShares().name_path_get.Next([](const char*, char* name, size_t name_bytes, char* path, size_t path_bytes) {
    const auto is_zero = [](char byte) { return byte == 0; };
    EXPECT_TRUE(std::all_of(name, name + name_bytes, is_zero));
    EXPECT_TRUE(std::all_of(path, path + path_bytes, is_zero));
    return 0;
  });
  EXPECT_EQ(" ", HolderOf("/volume1/photo"));
}

TEST_F(SharePath, TakesAnyResultThatIsNotNegativeForSuccess) {
  FakeShares().name_path_get.Next([](const char* full_path, char* name, size_t name_bytes, char* path, size_t bytes) {
    return FakeShares().name_path_get.Usual(full_path, name, name_bytes, path, bytes) + 1;
  });
  EXPECT_EQ("photo /volume1/photo", HolderOf("/volume1/photo"));
}

constexpr char kNoHolder[] =
    "0 > NIMOShareNamePathGet(full_path.c_str(), szShareName, sizeof(szShareName), szSharePath, sizeof(szSharePath))";

TEST_F(SharePath, OfAPathInNoShareFails) {
  const RecordCapture capture;
  EXPECT_EQ("502 NIMOShareNamePathGet failed, full_path=/volume1/photos/a",
            ErrorOf([] { HolderOf("/volume1/photos/a"); }));
  EXPECT_EQ(Words{FixedRecord(800, "GetShareNamePathByFullPath", kNoHolder,
                              "NIMOShareNamePathGet failed, full_path=/volume1/photos/a")},
            capture.texts());
}

TEST_F(SharePath, OfAPathInNoShareShowsTheSystemsErrorAndClearsIt) {
  const RecordCapture capture;
  FakeShares().name_path_get.Next([](const char*, char*, size_t, char*, size_t) {
    errno = EACCES;
    return -1;
  });
  EXPECT_EQ("502 NIMOShareNamePathGet failed, full_path=/x", ErrorOf([] { HolderOf("/x"); }));
  EXPECT_EQ(0, errno);
  EXPECT_EQ(Words{FixedRecord(800, "GetShareNamePathByFullPath", kNoHolder, "NIMOShareNamePathGet failed, full_path=/x",
                              "Permission denied")},
            capture.texts());
}

TEST(ReplacePathShare, ReplacesTheFirstComponentOfThatName) {
  EXPECT_EQ("/volume1/pic/photo/a", ReplacePathShare("/volume1/photo/photo/a", "pic", "photo"));
  EXPECT_EQ("/pic/a", ReplacePathShare("/photo/a", "pic", "photo"));
  EXPECT_EQ("/volume1/pic/", ReplacePathShare("/volume1/photo/", "pic", "photo"));
}

TEST(ReplacePathShare, ReplacesTheLastComponentToo) {
  EXPECT_EQ("/volume1/pic", ReplacePathShare("/volume1/photo", "pic", "photo"));
  EXPECT_EQ("/pic", ReplacePathShare("/photo", "pic", "photo"));
}

TEST(ReplacePathShare, ReplacesAVolumeOfTheSharesName) {
  EXPECT_EQ("/pic/volume1/a", ReplacePathShare("/volume1/volume1/a", "pic", "volume1"));
}

TEST(ReplacePathShare, LooksForWholeComponents) {
  EXPECT_EQ("/volume1/photos/pic", ReplacePathShare("/volume1/photos/photo", "pic", "photo"));
  EXPECT_EQ("120 Cannot find share: photo",
            ErrorOf([] { ReplacePathShare("/volume1/photos/aphoto", "pic", "photo"); }));
}

TEST(ReplacePathShare, LeavesTheNewNameAsItIs) {
  EXPECT_EQ("/volume1/photo/x/a", ReplacePathShare("/volume1/photo/a", "photo/x", "photo"));
  EXPECT_EQ("/volume1//a", ReplacePathShare("/volume1/photo/a", "", "photo"));
}

TEST(ReplacePathShare, FailsWhenThePathDoesNotHoldTheShare) {
  for (const char* path : {"/volume1/Photo/a", "photo/a", "", "/"}) {
    const RecordCapture capture;
    errno = 0;
    EXPECT_EQ("120 Cannot find share: photo", ErrorOf([&] { ReplacePathShare(path, "pic", "photo"); }));
    EXPECT_EQ(Words{FixedRecord(1016, "ReplacePathShare", "string::npos == pos", "Cannot find share: photo")},
              capture.texts());
  }
}

TEST(ReplacePathShare, ShowsTheSystemsErrorAndClearsIt) {
  const RecordCapture capture;
  errno = EINVAL;
  EXPECT_EQ("120 Cannot find share: photo", ErrorOf([] { ReplacePathShare("/a", "pic", "photo"); }));
  EXPECT_EQ(0, errno);
  EXPECT_EQ(Words{FixedRecord(1016, "ReplacePathShare", "string::npos == pos", "Cannot find share: photo",
                              "Invalid argument")},
            capture.texts());
}

class RecycleBin : public testing::Test {
 protected:
  RecycleBin() {
    FakeShares().Add({.name = "photo", .path = "/volume1/photo", .recycle = true});
    FakeShares().Add({.name = "homes", .path = "/volume1/homes", .recycle = true});
  }

  FakePlatform platform_;
};

TEST_F(RecycleBin, HoldsWhatTheBoxSaysItHolds) {
  EXPECT_TRUE(IsFullPathInRecycleBin("/volume1/photo/#recycle/a"));
  EXPECT_TRUE(IsFullPathInRecycleBin("/volume1/photo/#recycle"));
  EXPECT_FALSE(IsFullPathInRecycleBin("/volume1/photo/a"));
}

TEST_F(RecycleBin, IsNotToldByItsNameAlone) {
  EXPECT_FALSE(IsFullPathInRecycleBin("/volume1/photo/sub/#recycle/a"));
  for (const int answer : {0, 2, -1}) {
    FakeShares().is_share_recycle.Next([=](const char*) { return answer; });
    EXPECT_FALSE(IsFullPathInRecycleBin("/volume1/photo/#recycle/a")) << answer;
  }
}

TEST_F(RecycleBin, IsAskedForOnlyWhenThePathNamesIt) {
  FakeShares().is_share_recycle.Always([](const char*) { return 1; });
  EXPECT_FALSE(IsFullPathInRecycleBin("/volume1/photo/recycle/a"));
  EXPECT_EQ(0U, FakeShares().is_share_recycle.calls().size());
  EXPECT_TRUE(IsFullPathInRecycleBin("/volume1/photo/x#recycled/a")) << "anywhere in the path";
}

TEST_F(RecycleBin, OfAHomeIsAskedForInTheShareHomesAlone) {
  FakeShares().is_home_recycle.Always([](const char*, int) { return 1; });
  EXPECT_FALSE(IsFullPathInRecycleBin("/volume1/photo/ann/#recycle/a"));
  EXPECT_EQ(0U, FakeShares().is_home_recycle.calls().size());
  EXPECT_TRUE(IsFullPathInRecycleBin("/volume1/homes/ann/a")) << "whatever the path says";
  ASSERT_EQ(1U, FakeShares().is_home_recycle.calls().size());
  EXPECT_EQ((Words{"/volume1/homes/ann/a", "11"}), FakeShares().is_home_recycle.calls()[0].arguments);
}

TEST_F(RecycleBin, OfAHomeIsInTheShareOfExactlyThatName) {
  FakeShares().Add("Homes", "/volume2/Homes");
  FakeShares().is_home_recycle.Always([](const char*, int) { return 1; });
  EXPECT_FALSE(IsFullPathInRecycleBin("/volume2/Homes/ann/#recycle/a"));
}

TEST_F(RecycleBin, OfAHomeHoldsAPathOnlyWhenTheAnswerIsExactlyOne) {
  for (const int answer : {0, 2, -1}) {
    FakeShares().is_home_recycle.Next([=](const char*, int) { return answer; });
    EXPECT_FALSE(IsFullPathInRecycleBin("/volume1/homes/ann/#recycle/a")) << answer;
  }
}

TEST_F(RecycleBin, OfTheShareHomesComesFirst) {
  EXPECT_TRUE(IsFullPathInRecycleBin("/volume1/homes/#recycle/a"));
  EXPECT_EQ(0U, FakeShares().is_home_recycle.calls().size());
}

TEST_F(RecycleBin, IsAskedForUnderTheLock) {
  IsFullPathInRecycleBin("/volume1/homes/ann/#recycle/a");
  EXPECT_EQ(3U, FakePlatform::call_count());
  for (const auto& call : FakePlatform::calls()) {
    EXPECT_TRUE(call.sdk_mutex_held) << call.function;
  }
}

TEST_F(RecycleBin, OfAPathInNoShareCannotBeAsked) {
  EXPECT_EQ("502 NIMOShareNamePathGet failed, full_path=/elsewhere/#recycle",
            ErrorOf([] { IsFullPathInRecycleBin("/elsewhere/#recycle"); }));
}

}  // namespace
}  // namespace orbisk::fileindex::test
