// What is kept of a share on disk.
#include "services/indexer/mark.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "tests/support/temp_dir.h"

namespace fileindexd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::ReadFile;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;

class MarkTest : public testing::Test {
 protected:
  TempDir dir_;
  std::string path_ = MarkPath(dir_ / "queue");
  Mark mark_{{{"/v/a\xff", {true, false, true, false, true}}, {"/v/b", {}}}, "7.1.2", {"/v/c"}};
};

TEST_F(MarkTest, ItComesBackAsItWasStored) {
  WriteMark(path_, mark_);
  EXPECT_EQ(ReadMark(path_), mark_);

  mark_.pending.clear();
  WriteMark(path_, mark_);
  EXPECT_EQ(ReadMark(path_), mark_);
}

TEST_F(MarkTest, ThereIsNoneAfterItWasRemovedOrIfNobodyCanReadIt) {
  EXPECT_EQ(ReadMark(path_), std::nullopt);
  WriteMark(path_, mark_);
  RemoveMark(path_);
  EXPECT_EQ(ReadMark(path_), std::nullopt);
  RemoveMark(path_);

  for (const char* const text :
       {"", "{", "[]", "{\"folders\":{},\"index\":\"\"}", "{\"folders\":[],\"index\":\"\",\"pending\":[]}",
        "{\"folders\":{},\"index\":1,\"pending\":[]}", "{\"folders\":{},\"index\":\"\",\"pending\":[1]}",
        "{\"folders\":{\"/a\":1},\"index\":\"\",\"pending\":[]}"}) {
    WriteFile(path_, text);
    EXPECT_EQ(ReadMark(path_), std::nullopt) << text;
  }
}

TEST_F(MarkTest, ALinkInItsPlaceIsReplacedAndNotFollowed) {
  WriteFile(dir_ / "other", "untouched");
  fs::create_symlink(dir_ / "other", path_);
  fs::create_symlink(dir_ / "other", path_ + ".new");

  WriteMark(path_, mark_);

  EXPECT_EQ(ReadFile(dir_ / "other"), "untouched");
  EXPECT_EQ(ReadMark(path_), mark_);
}

TEST_F(MarkTest, WhereItCannotBeStoredThatIsSaid) {
  EXPECT_THROW(WriteMark(dir_ / "missing/queue.mark", mark_), std::system_error);
}

TEST_F(MarkTest, AnIndexMadeInThePlaceOfAnotherIsAnother) {
  EXPECT_EQ(IdentityOfIndex(dir_.path()), "");
  WriteFile(dir_ / "index.sqlite", "one");
  const std::string before = IdentityOfIndex(dir_.path());
  WriteFile(dir_ / "index.sqlite", "more");
  EXPECT_EQ(IdentityOfIndex(dir_.path()), before);

  WriteFile(dir_ / "new", "one");
  fs::rename(dir_ / "new", dir_ / "index.sqlite");

  EXPECT_NE(IdentityOfIndex(dir_.path()), before);
}

}  // namespace
}  // namespace fileindexd
