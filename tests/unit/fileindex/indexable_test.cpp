// Which paths may be indexed: the rules, their order, and what each asks of the box.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/fileindex/util.h"
#include "tests/support/fake_filesystem.h"
#include "tests/support/fake_share.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/error_of.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::ErrorOf;
using orbisk::test::FakeFileSystem;
using orbisk::test::FakePlatform;
using orbisk::test::FakeShare;
using orbisk::test::FakeShares;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;
using Words = std::vector<std::string>;

constexpr char kPreserved[][32] = {".NIMOPPSDB",
                                   ".TemporaryItems",
                                   ".Spotlight-V100",
                                   ".DocumentRevisions-V100",
                                   ".HFS+ Private Directory Data",
                                   ".Trashes",
                                   ".fseventsd",
                                   ".Maildir",
                                   ".git",
                                   ".DS_Store"};

TEST(PreservedName, IsOneOfTenComparedWhole) {
  const FakePlatform platform;
  for (const std::string name : kPreserved) {
    EXPECT_TRUE(IsSystemPreservedFileName(name)) << name;
    EXPECT_FALSE(IsSystemPreservedFileName(name + "x")) << name;
    EXPECT_FALSE(IsSystemPreservedFileName("x" + name)) << name;
    EXPECT_FALSE(IsSystemPreservedFileName(name.substr(1))) << name;
  }
}

TEST(PreservedName, IsComparedWithCase) {
  const FakePlatform platform;
  for (const char* name : {".GIT", ".Git", ".ds_store", ".DS_STORE", ".maildir", ".trashes", "", ".", "#recycle"}) {
    EXPECT_FALSE(IsSystemPreservedFileName(name)) << name;
  }
}

TEST(PreservedName, IsWhatTheBoxCallsHiddenToo) {
  const FakePlatform platform;
  EXPECT_TRUE(IsSystemPreservedFileName("@eaDir"));
  EXPECT_FALSE(IsSystemPreservedFileName("@eadir"));
  for (const int answer : {2, -1}) {
    FakeFileSystem().is_hidden_dir.Next([=](const char*) { return answer; });
    EXPECT_FALSE(IsSystemPreservedFileName("@eaDir")) << "only the answer 1 counts, not " << answer;
  }
}

TEST(PreservedName, IsAskedOfTheBoxFirst) {
  const FakePlatform platform;
  IsSystemPreservedFileName(".git");
  ASSERT_EQ(1U, FakePlatform::call_count());
  EXPECT_EQ("NIMOEAIsHiddenDir", FakePlatform::calls()[0].function);
  EXPECT_EQ(Words{".git"}, FakePlatform::calls()[0].arguments);
}

// A box with the share photo on a volume of its own, and files in it.
class Indexable : public testing::Test {
 protected:
  Indexable() : volume_(std::filesystem::canonical(folder_.path())), photo_(volume_ + "/photo") {
    std::filesystem::create_directories(photo_ + "/2019");
    WriteFile(photo_ + "/2019/a.jpg", "");
    AddPhoto();
  }
  ~Indexable() override { EXPECT_EQ(0, FakeShares().outstanding()); }

  // The share photo, with this setting switched on.
  void AddPhoto(bool FakeShare::*setting = nullptr) const { FakeShares().Add("photo", photo_, setting); }
  PathVerdict Judge(const std::string& below_photo) const { return JudgeFullPath(photo_ + below_photo); }
  static size_t Asked(const std::string& function) {
    size_t count = 0;
    for (const auto& call : FakePlatform::calls()) {
      count += call.function == function ? 1 : 0;
    }
    return count;
  }
  // The names of the calls made, those about hidden names left out.
  static Words Calls() {
    Words names;
    for (const auto& call : FakePlatform::calls()) {
      if (call.function != "NIMOEAIsHiddenDir") {
        names.push_back(call.function);
      }
    }
    return names;
  }

  FakePlatform platform_;
  const TempDir folder_;
  const std::string volume_;
  const std::string photo_;
};

TEST_F(Indexable, AreFilesFoldersAndTheShareItself) {
  EXPECT_TRUE(CanFullPathBeIndexed(photo_ + "/2019/a.jpg"));
  EXPECT_TRUE(CanFullPathBeIndexed(photo_ + "/2019"));
  EXPECT_TRUE(CanFullPathBeIndexed(photo_));
}

TEST_F(Indexable, AreNamesOfAnyBytes) {
  for (const char* name : {"/\xff\xfe", "/with blank", "/new\nline", "/\xc3\xa4"}) {
    WriteFile(photo_ + name, "");
    EXPECT_EQ(PathVerdict::kIndexable, Judge(name)) << name;
  }
}

TEST_F(Indexable, AsksInTheOrderOfTheRules) {
  EXPECT_EQ(PathVerdict::kIndexable, Judge("/2019/a.jpg"));
  EXPECT_EQ((Words{"NIMOGetFSType", "NIMOFSIsRemoteFS", "NIMOFSIsImageFS", "NIMOShareNamePathGet", "NIMOShareGet",
                   "NLIBShareIsEncryptedGet", "NLIBShareIsReadOnlyGet", "NIMOShareNamePathGet", "NIMOFSDirIsMntPoint",
                   "NIMOShareFree"}),
            Calls());
  EXPECT_EQ((Words{photo_ + "/2019/a.jpg", "0"}), FakeFileSystem().get_type.calls()[0].arguments);
  EXPECT_EQ(Words{photo_ + "/2019/a.jpg"}, FakeFileSystem().is_mount_point.calls()[0].arguments);
}

// A refusal that a test can switch on, in the order of the rules, and the last call made when it is the first.
struct Refusal {
  PathVerdict verdict;
  void (*apply)();
  const char* last_call;
};

const Refusal kRefusals[] = {
    {PathVerdict::kInSnapshot,
     [] {
       FakeFileSystem().path_in_snapshot.Always([](const char*, int* flag) {
         *flag = 1;
         return 0;
       });
     },
     "NLIBFhsPathInSnapshot"},
    {PathVerdict::kUnknownFileSystem, [] { FakeFileSystem().get_type.FailAlways(); }, "NIMOGetFSType"},
    {PathVerdict::kRemoteFileSystem, [] { FakeFileSystem().is_remote.Always([](int) { return 1; }); },
     "NIMOFSIsRemoteFS"},
    {PathVerdict::kImageFileSystem, [] { FakeFileSystem().is_image.Always([](int) { return 1; }); }, "NIMOFSIsImageFS"},
    {PathVerdict::kPseudoFileSystem, [] { FakeFileSystem().get_type.Always([](const char*, int) { return 12; }); },
     "NIMOFSIsImageFS"},
    {PathVerdict::kShareNotIndexable,
     [] {
       FakeShares().is_read_only.Always([](NIMOSHARE*, int* value) {
         *value = 1;
         return 0;
       });
     },
     "NIMOShareFree"},
    {PathVerdict::kInRecycleBin, [] { FakeShares().is_share_recycle.Always([](const char*) { return 1; }); },
     "NIMOShareFree"},
    {PathVerdict::kMountPoint, [] { FakeFileSystem().is_mount_point.Always([](const char*) { return 1; }); },
     "NIMOShareFree"},
    {PathVerdict::kPreservedName, [] { FakeFileSystem().is_hidden_dir.Always([](const char*) { return 1; }); },
     "NIMOShareFree"},
};

TEST_F(Indexable, IsDecidedByTheFirstRuleThatRefuses) {
  const std::string link = "/#snapshot-#recycle-link";
  std::filesystem::create_symlink(photo_ + "/2019/a.jpg", photo_ + link);
  const size_t count = std::size(kRefusals);
  for (size_t first = 0; first <= count; ++first) {
    FakePlatform::Reset();
    AddPhoto();
    FakeFileSystem().path_in_snapshot.Always([](const char*, int*) { return 0; });
    for (size_t i = count; i > first; --i) {
      kRefusals[i - 1].apply();
    }
    EXPECT_EQ(first < count ? kRefusals[first].verdict : PathVerdict::kNotRealPath, Judge(link)) << first;
    EXPECT_FALSE(CanFullPathBeIndexed(photo_ + link)) << first;
    EXPECT_EQ(first < count ? kRefusals[first].last_call : "NIMOShareFree", Calls().back()) << first;
  }
}

TEST_F(Indexable, MakesNoFurtherCallBehindTheRuleThatRefuses) {
  FakeShares().Add({.name = "photo", .path = photo_, .encrypted = true, .recycle = true});
  EXPECT_EQ(PathVerdict::kShareNotIndexable, Judge("/2019"));
  EXPECT_EQ(1U, Asked("NIMOShareNamePathGet"));
  EXPECT_EQ(0U, Asked("NIMOFSDirIsMntPoint"));
  EXPECT_EQ(0U, Asked("NIMOEAIsHiddenDir"));
}

TEST_F(Indexable, IsNothingInASnapshot) {
  std::filesystem::create_directories(photo_ + "/#snapshot/1");
  EXPECT_EQ(PathVerdict::kInSnapshot, Judge("/#snapshot/1"));
  EXPECT_EQ(Words{"NLIBFhsPathInSnapshot"}, Calls());
}

TEST_F(Indexable, IsAskedAboutSnapshotsOnlyWhenThePathNamesOne) {
  EXPECT_TRUE(CanFullPathBeIndexed(photo_));
  EXPECT_EQ(0U, Asked("NLIBFhsPathInSnapshot"));
  Judge("/x#snapshots");
  EXPECT_EQ(1U, Asked("NLIBFhsPathInSnapshot")) << "anywhere in the path";
}

TEST_F(Indexable, IsWhatASnapshotQueryFailsFor) {
  std::filesystem::create_directories(photo_ + "/#snapshot");
  for (const int result : {-1, 1}) {
    FakeFileSystem().path_in_snapshot.Next([=](const char*, int* flag) {
      *flag = 1;
      return result;
    });
    EXPECT_EQ(PathVerdict::kIndexable, Judge("/#snapshot")) << result;
  }
}

TEST_F(Indexable, IsWhatASnapshotQueryAnswersOtherwiseThanOneFor) {
  std::filesystem::create_directories(photo_ + "/#snapshot");
  for (const int value : {0, 2, -1}) {
    FakeFileSystem().path_in_snapshot.Next([=](const char*, int* flag) {
      *flag = value;
      return 0;
    });
    EXPECT_EQ(PathVerdict::kIndexable, Judge("/#snapshot")) << value;
  }
}

TEST_F(Indexable, IsNothingOnAFileSystemOfAnotherKind) {
  for (const auto& [type, verdict] :
       std::vector<std::pair<int, PathVerdict>>{{orbisk::test::kFakeRemoteFS, PathVerdict::kRemoteFileSystem},
                                                {orbisk::test::kFakeImageFS, PathVerdict::kImageFileSystem},
                                                {12, PathVerdict::kPseudoFileSystem},
                                                {-1, PathVerdict::kUnknownFileSystem},
                                                {0, PathVerdict::kIndexable},
                                                {11, PathVerdict::kIndexable},
                                                {13, PathVerdict::kIndexable}}) {
    FakeFileSystem().get_type.Next([type = type](const char*, int) { return type; });
    EXPECT_EQ(verdict, Judge("/2019")) << type;
  }
}

TEST_F(Indexable, IsAskedOfTheTypeThatWasFound) {
  FakeFileSystem().get_type.Next([](const char*, int) { return 77; });
  Judge("/2019");
  EXPECT_EQ(Words{"77"}, FakeFileSystem().is_remote.calls()[0].arguments);
  EXPECT_EQ(Words{"77"}, FakeFileSystem().is_image.calls()[0].arguments);
}

TEST_F(Indexable, IsRefusedByAnyAnswerButZeroOfTheKinds) {
  for (const int answer : {2, -1}) {
    FakeFileSystem().is_remote.Next([=](int) { return answer; });
    EXPECT_EQ(PathVerdict::kRemoteFileSystem, Judge("/2019"));
    FakeFileSystem().is_image.Next([=](int) { return answer; });
    EXPECT_EQ(PathVerdict::kImageFileSystem, Judge("/2019"));
  }
}

TEST_F(Indexable, IsNothingInAShareThatIsLockedOrReadOnly) {
  AddPhoto(&FakeShare::encrypted);
  EXPECT_EQ(PathVerdict::kShareNotIndexable, Judge("/2019"));
  AddPhoto(&FakeShare::read_only);
  EXPECT_EQ(PathVerdict::kShareNotIndexable, Judge("/2019"));
}

TEST_F(Indexable, CannotBeToldInNoShare) {
  EXPECT_EQ("502 NIMOShareNamePathGet failed, full_path=" + volume_, ErrorOf([&] { CanFullPathBeIndexed(volume_); }));
}

TEST_F(Indexable, CannotBeToldInAShareThatIsGone) {
  FakeShares().get.FailAt(1);
  EXPECT_EQ("800 photo", ErrorOf([&] { CanFullPathBeIndexed(photo_); }));
}

TEST_F(Indexable, CannotBeToldWhenTheShareCannotBeAsked) {
  FakeShares().is_encrypted.FailAt(1);
  EXPECT_EQ("502 NLIBShareis_encryptedGet failed, share=photo", ErrorOf([&] { CanFullPathBeIndexed(photo_); }));
}

TEST_F(Indexable, IsNothingInARecycleBin) {
  AddPhoto(&FakeShare::recycle);
  std::filesystem::create_directories(photo_ + "/#recycle/a");
  std::filesystem::create_directories(photo_ + "/2019/#recycle");
  EXPECT_EQ(PathVerdict::kInRecycleBin, Judge("/#recycle/a"));
  EXPECT_EQ(PathVerdict::kIndexable, Judge("/2019/#recycle")) << "the name alone is not enough";
  AddPhoto();
  EXPECT_EQ(PathVerdict::kIndexable, Judge("/#recycle/a")) << "nor without a recycle bin";
}

TEST_F(Indexable, IsAMountPointOnlyOfAShareOfTheEncryptedKind) {
  FakeFileSystem().AddMountPoint(photo_);
  EXPECT_EQ(PathVerdict::kMountPoint, Judge(""));
  EXPECT_EQ(PathVerdict::kIndexable, Judge("/2019")) << "what lies below one is none";
  AddPhoto(&FakeShare::encryption);
  EXPECT_EQ(PathVerdict::kIndexable, Judge(""));
}

TEST_F(Indexable, IsAMountPointOnlyWhenTheAnswerIsExactlyOne) {
  for (const int answer : {0, 2, -1}) {
    FakeFileSystem().is_mount_point.Next([=](const char*) { return answer; });
    EXPECT_EQ(PathVerdict::kIndexable, Judge("")) << answer;
  }
  EXPECT_EQ(0U, Asked("NLIBShareIsEncryptionGet")) << "the share's kind matters at mount points alone";
}

TEST_F(Indexable, CannotBeToldAtAMountPointWhenTheSharesKindCannotBeAsked) {
  FakeFileSystem().AddMountPoint(photo_);
  FakeShares().is_encryption.FailAt(1);
  EXPECT_EQ("502 NLIBShareIsEncryptionGet failed, share=photo", ErrorOf([&] { CanFullPathBeIndexed(photo_); }));
}

TEST_F(Indexable, IsNothingUnderAPreservedNameAtAnyDepth) {
  for (const std::string name : kPreserved) {
    std::filesystem::create_directories(photo_ + "/2019/" + name + "/deep/down");
    EXPECT_EQ(PathVerdict::kPreservedName, Judge("/2019/" + name)) << name;
    EXPECT_EQ(PathVerdict::kPreservedName, Judge("/2019/" + name + "/deep/down")) << name;
  }
  std::filesystem::create_directories(photo_ + "/@eaDir/a");
  EXPECT_EQ(PathVerdict::kPreservedName, Judge("/@eaDir/a"));
  std::filesystem::create_directories(photo_ + "/.GIT/x.git");
  EXPECT_EQ(PathVerdict::kIndexable, Judge("/.GIT/x.git"));
}

TEST_F(Indexable, IsAskedForEveryComponentAndTheEmptyOnes) {
  std::filesystem::create_directories(photo_ + "/2019/05");
  Judge("/2019//05/");
  Words names;
  for (const auto& call : FakeFileSystem().is_hidden_dir.calls()) {
    names.push_back(call.arguments[0]);
  }
  ASSERT_LT(5U, names.size());
  EXPECT_EQ("", names.front()) << "what stands before the first slash";
  EXPECT_EQ((Words{"photo", "2019", "", "05", ""}), Words(names.end() - 5, names.end()));
}

TEST_F(Indexable, IsNothingWhenTheEmptyNameIsHidden) {
  FakeFileSystem().is_hidden_dir.Next([](const char* name) { return *name == '\0' ? 1 : 0; });
  EXPECT_EQ(PathVerdict::kPreservedName, Judge(""));
}

TEST_F(Indexable, IsNoPathThatIsWrittenOtherwiseThanItIs) {
  std::filesystem::create_symlink("2019", photo_ + "/link");
  std::filesystem::create_symlink("2019/a.jpg", photo_ + "/link.jpg");
  for (const char* path :
       {"/2019/", "//2019", "/2019/.", "/./2019", "/2019/../2019", "/2019/..", "/link", "/link/a.jpg", "/link.jpg"}) {
    EXPECT_EQ(PathVerdict::kNotRealPath, Judge(path)) << path;
    EXPECT_FALSE(CanFullPathBeIndexed(photo_ + path)) << path;
  }
}

TEST_F(Indexable, IsNoPathThatCannotBeResolved) {
  FakeFileSystem().get_type.Always([](const char*, int) { return 1; });
  std::filesystem::create_symlink("nowhere", photo_ + "/dangling");
  std::filesystem::create_symlink("loop", photo_ + "/loop");
  for (const std::string& path : {std::string("/missing"), std::string("/dangling"), std::string("/loop"),
                                  std::string("/2019/a.jpg/below"), "/" + std::string(PATH_MAX, 'x')}) {
    EXPECT_EQ(PathVerdict::kUnresolvable, Judge(path)) << path;
  }
}

TEST_F(Indexable, IsNoMissingPath) {
  EXPECT_EQ(PathVerdict::kUnknownFileSystem, Judge("/missing"));
  EXPECT_FALSE(CanFullPathBeIndexed(""));
}

TEST_F(Indexable, IsASharePathWhoseFullPathIs) {
  EXPECT_TRUE(CanPathBeIndexed("/photo/2019"));
  EXPECT_TRUE(CanPathBeIndexed("/photo"));
  EXPECT_FALSE(CanPathBeIndexed("/photo/missing"));
  EXPECT_FALSE(CanPathBeIndexed("/photo/"));
}

TEST_F(Indexable, CannotBeToldOfASharePathThatHasNoFullPath) {
  EXPECT_EQ("120 ", ErrorOf([] { CanPathBeIndexed("photo"); }));
  EXPECT_EQ("120 ", ErrorOf([] { CanPathBeIndexed(""); }));
  EXPECT_EQ("800 video", ErrorOf([] { CanPathBeIndexed("/video/a"); }));
  FakeShares().is_read_only.FailAt(1);
  EXPECT_EQ("502 NLIBShareis_readonlyGet failed, share=photo", ErrorOf([] { CanPathBeIndexed("/photo/2019"); }));
}

}  // namespace
}  // namespace orbisk::fileindex::test
