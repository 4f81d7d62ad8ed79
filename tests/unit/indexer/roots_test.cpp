// Whether a folder is the share that was known.
#include "services/indexer/roots.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/temp_dir.h"

namespace fileindexd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;

class RootsTest : public testing::Test {
 protected:
  RootsTest() { fs::create_directory(folder_); }

  Root Look() const { return {IdentityOfFolder(folder_), index_}; }

  // As when the volume goes and another folder lies below.
  void ReplaceFolder() const {
    fs::rename(folder_, folder_ + ".old");
    fs::create_directory(folder_);
  }

  TempDir dir_;
  std::string folder_ = dir_ / "docs";
  std::string index_ = "7.1.2";
  std::string file_ = dir_ / "roots";
};

TEST_F(RootsTest, TheSameFolderIsTheShareWhateverBecomesOfItsFilesAndItsIndex) {
  const std::string known = Look().folder;

  WriteFile(folder_ + "/a.txt", "kingfisher");
  fs::rename(folder_, folder_ + ".away");
  fs::rename(folder_ + ".away", folder_);
  index_ = "";

  EXPECT_TRUE(IsTheShare(Look(), known));
}

TEST_F(RootsTest, AnyFolderIsTheShareThatNobodyKnew) {
  index_ = "";

  EXPECT_TRUE(IsTheShare(Look(), ""));
}

TEST_F(RootsTest, WhereThereIsNoFolderThereIsNoShare) {
  const std::string known = Look().folder;
  fs::remove(folder_);
  EXPECT_FALSE(IsTheShare(Look(), known));
  EXPECT_FALSE(IsTheShare(Look(), ""));

  WriteFile(folder_, "a file");
  EXPECT_FALSE(IsTheShare(Look(), ""));

  fs::remove(folder_);
  fs::create_directory_symlink(dir_.path(), folder_);
  EXPECT_FALSE(IsTheShare(Look(), ""));
}

TEST_F(RootsTest, AnotherFolderIsTheShareOnlyIfTheIndexLiesBesideIt) {
  const std::string known = Look().folder;
  ReplaceFolder();
  EXPECT_TRUE(IsTheShare(Look(), known));

  index_ = "";

  EXPECT_FALSE(IsTheShare(Look(), known));
}

TEST_F(RootsTest, WhatWasRememberedIsKnownToTheNext) {
  const std::string share =
      "do\xff"
      "cs";
  Roots(file_).Remember(share, "1.2.3");
  Roots(file_).Remember(share, "1.2.4");

  EXPECT_EQ(Roots(file_).Known(share), "1.2.4");
  EXPECT_EQ(Roots(file_).Known("music"), "");
}

TEST_F(RootsTest, WhatIsKnownIsNotStoredAgain) {
  Roots roots(file_);
  roots.Remember("docs", "1.2.3");
  fs::remove(file_);

  roots.Remember("docs", "1.2.3");

  EXPECT_FALSE(fs::exists(file_));
}

TEST_F(RootsTest, SharesThatAreNoLongerIndexedAreForgotten) {
  Roots roots(file_);
  roots.Remember("docs", "1.2.3");
  roots.Remember("music", "1.2.4");

  roots.KeepOnly({"music", "photo"});

  EXPECT_EQ(Roots(file_).Known("docs"), "");
  EXPECT_EQ(Roots(file_).Known("music"), "1.2.4");
}

TEST_F(RootsTest, AFileThatMakesNoSenseKnowsNothing) {
  for (const char* const text : {"", "[]", "1", "{\"docs\":1}", "{\"docs\":{}}"}) {
    WriteFile(file_, text);
    EXPECT_EQ(Roots(file_).Known("docs"), "") << text;
  }
}

TEST_F(RootsTest, WhatCannotBeStoredIsKnownForTheTimeBeing) {
  Roots nowhere(dir_ / "missing/roots");

  nowhere.Remember("docs", "1.2.3");

  EXPECT_EQ(nowhere.Known("docs"), "1.2.3");
}

}  // namespace
}  // namespace fileindexd
