// Listing the configuration: filters, order, pages.
#include <gtest/gtest.h>

#include <algorithm>

#include "orbisk/fileindex/folder_mgr.h"
#include "tests/support/fake_box.h"
#include "tests/unit/fileindex/config_box.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakeCaseCompare;
using Paths = std::vector<std::string>;

// A listing of everything, from which tests depart.
struct Question {
  unsigned long offset = 0;
  unsigned long limit = 1000;
  std::string sort_by = "path";
  std::string sort_direction = "asc";
  std::string group = "all";
  std::string keyword;
};

struct Page {
  Paths paths;
  unsigned long total = 0;
};

Page List(const FolderMgr& manager, const Question& question) {
  std::vector<std::shared_ptr<Folder>> out = {MakeFolder("/left over")};
  Page page{{}, 99};
  manager.List(out, page.total, question.offset, question.limit, question.sort_by, question.sort_direction,
               question.group, question.keyword);
  for (const auto& folder : out) {
    page.paths.push_back(folder->GetPath());
  }
  return page;
}

class FolderList : public testing::Test {
 protected:
  const ConfigBox box_;
};

TEST_F(FolderList, NothingInNothing) {
  const Page page = List(FolderMgr(), {});
  EXPECT_EQ(Paths(), page.paths);
  EXPECT_EQ(0U, page.total);
}

TEST_F(FolderList, TheGroupAllShowsEveryEntry) {
  const FolderMgr manager = Manager({Entry("/a", "", "", "x"), Entry("/b"), Entry("/c", "", "", "All")});
  EXPECT_EQ(Paths({"/a", "/b", "/c"}), List(manager, {}).paths);
}

TEST_F(FolderList, AGroupShowsItsEntriesAlone) {
  const FolderMgr manager = Manager({Entry("/a", "", "", "x"), Entry("/b"), Entry("/c", "", "", "X"),
                                     Entry("/d", "", "", "x"), Entry("/e", "", "", "xx")});
  Question question;
  question.group = "x";
  EXPECT_EQ(Paths({"/a", "/d"}), List(manager, question).paths);
  EXPECT_EQ(2U, List(manager, question).total);
  question.group = "ALL";
  EXPECT_EQ(Paths(), List(manager, question).paths) << "only the exact word shows all";
}

TEST_F(FolderList, AnEmptyGroupShowsEntriesWithoutOne) {
  const FolderMgr manager = Manager({Entry("/a", "", "", "x"), Entry("/b"), Entry("/c", "", "", "all ")});
  Question question;
  question.group = "";
  EXPECT_EQ(Paths({"/b"}), List(manager, question).paths);
}

TEST_F(FolderList, TheKeywordIsTrimmedAndCaseDoesNotMatter) {
  const FolderMgr manager = Manager(
      {Entry("/a", "", "my foo folder"), Entry("/b", "", "FOO"), Entry("/c", "", "fo o"), Entry("/foo", "", "n")});
  Question question;
  for (const char* const keyword : {"  Foo ", "foo", "\tFOO\n"}) {
    question.keyword = keyword;
    EXPECT_EQ(Paths({"/a", "/b"}), List(manager, question).paths) << keyword;
    EXPECT_EQ(2U, List(manager, question).total);
  }
  question.keyword = " o F ";
  EXPECT_EQ(Paths({"/a"}), List(manager, question).paths) << "blanks inside stay";
}

TEST_F(FolderList, AKeywordOfBlanksMatchesEverything) {
  const FolderMgr manager = Manager({Entry("/a", "", "x"), Entry("/b", "", "y")});
  Question question;
  question.keyword = " \t ";
  EXPECT_EQ(Paths({"/a", "/b"}), List(manager, question).paths);
}

TEST_F(FolderList, OnlyTheNameIsSearched) {
  Json::Value entry = Entry("/needle", "", "name", "needle");
  entry["owner"] = "needle";
  Question question;
  question.keyword = "needle";
  EXPECT_EQ(0U, List(Manager({entry}), question).total);
}

TEST_F(FolderList, BothFiltersApply) {
  const FolderMgr manager = Manager({Entry("/a", "", "foo", "x"), Entry("/b", "", "foo"), Entry("/c", "", "bar", "x")});
  Question question;
  question.group = "x";
  question.keyword = "foo";
  EXPECT_EQ(Paths({"/a"}), List(manager, question).paths);
}

TEST_F(FolderList, SortsByPathWithoutRegardToCase) {
  const FolderMgr manager = Manager({Entry("/b", "", "1"), Entry("/C", "", "2"), Entry("/a", "", "3")});
  EXPECT_EQ(Paths({"/a", "/b", "/C"}), List(manager, {}).paths);
}

TEST_F(FolderList, AnyOtherSortKeyIsTheName) {
  const FolderMgr manager = Manager({Entry("/1", "", "b"), Entry("/2", "", "C"), Entry("/3", "", "a")});
  for (const char* const key : {"name", "", "Path", "group", "owner", "Document"}) {
    Question question;
    question.sort_by = key;
    EXPECT_EQ(Paths({"/3", "/1", "/2"}), List(manager, question).paths) << key;
  }
}

TEST_F(FolderList, TextIsComparedByTheBoxAndLessThanZeroIsBefore) {
  FakeCaseCompare().Always([](const char* a, const char* b) { return std::string(b).compare(a); });
  const FolderMgr manager = Manager({Entry("/b", "", "x"), Entry("/c", "", "z"), Entry("/a", "", "y")});
  EXPECT_EQ(Paths({"/c", "/b", "/a"}), List(manager, {}).paths);
  Question question;
  question.sort_by = "name";
  EXPECT_EQ(Paths({"/c", "/a", "/b"}), List(manager, question).paths);
}

TEST_F(FolderList, EntriesWithoutAKindComeFirst) {
  const std::vector<std::pair<std::string, std::string>> kKinds = {
      {"document", "d"}, {"audio", "a"}, {"video", "v"}, {"photo", "p"}};
  for (const auto& [key, kind] : kKinds) {
    std::string others = "davp";
    others.erase(others.find(kind), 1);
    const FolderMgr manager = Manager({Entry("/with", kind), Entry("/without", others)});
    Question question;
    question.sort_by = key;
    EXPECT_EQ(Paths({"/without", "/with"}), List(manager, question).paths) << key;
    question.sort_direction = "desc";
    EXPECT_EQ(Paths({"/with", "/without"}), List(manager, question).paths) << key;
  }
}

TEST_F(FolderList, ManyEntriesSortByAFlag) {
  std::vector<Json::Value> entries;
  for (int i = 0; i < 100; ++i) {
    entries.push_back(Entry("/" + std::to_string(i), i % 3 == 0 ? "v" : ""));
  }
  const FolderMgr manager = Manager(entries);
  std::vector<std::shared_ptr<Folder>> out;
  unsigned long total = 0;
  manager.List(out, total, 0, 1000, "video", "", "all", "");
  EXPECT_TRUE(std::is_sorted(out.begin(), out.end(),
                             [](const auto& a, const auto& b) { return !a->IsVideo() && b->IsVideo(); }));
  EXPECT_EQ(100U, out.size());
}

TEST_F(FolderList, OnlyDescInAnyCaseTurnsTheOrderRound) {
  const FolderMgr manager = Manager({Entry("/a"), Entry("/b"), Entry("/c")});
  Question question;
  for (const char* const direction : {"desc", "DESC", "Desc"}) {
    question.sort_direction = direction;
    EXPECT_EQ(Paths({"/c", "/b", "/a"}), List(manager, question).paths) << direction;
  }
  for (const char* const direction : {"", "asc", "descending", " desc", "down"}) {
    question.sort_direction = direction;
    EXPECT_EQ(Paths({"/a", "/b", "/c"}), List(manager, question).paths) << direction;
  }
}

TEST_F(FolderList, APageIsCutAfterSortingAndTheTotalCountsAll) {
  const FolderMgr manager =
      Manager({Entry("/1", "", "b"), Entry("/2", "", "d"), Entry("/3", "", "a"), Entry("/4", "", "c")});
  Question question;
  question.sort_by = "name";
  question.sort_direction = "DESC";
  question.limit = 2;
  EXPECT_EQ(Paths({"/2", "/4"}), List(manager, question).paths);
  EXPECT_EQ(4U, List(manager, question).total);
  question.offset = 3;
  EXPECT_EQ(Paths({"/3"}), List(manager, question).paths);
  EXPECT_EQ(4U, List(manager, question).total);
}

TEST_F(FolderList, ALimitOfZeroIsAnEmptyPage) {
  const FolderMgr manager = Manager({Entry("/a"), Entry("/b")});
  Question question;
  question.limit = 0;
  EXPECT_EQ(Paths(), List(manager, question).paths);
  EXPECT_EQ(2U, List(manager, question).total);
}

TEST_F(FolderList, AnOffsetBehindTheEndIsAnEmptyPage) {
  const FolderMgr manager = Manager({Entry("/a"), Entry("/b")});
  for (const unsigned long offset : {2UL, 3UL, ~0UL}) {
    Question question;
    question.offset = offset;
    question.limit = ~0UL;
    EXPECT_EQ(Paths(), List(manager, question).paths);
    EXPECT_EQ(2U, List(manager, question).total);
  }
}

TEST_F(FolderList, ListingLeavesTheConfigurationAsItIs) {
  const FolderMgr manager = Manager({Entry("/c"), Entry("/a"), Entry("/b")});
  Question question;
  question.limit = 1;
  List(manager, question);
  EXPECT_EQ(Paths({"/c", "/a", "/b"}), PathsOf(manager));
}

}  // namespace
}  // namespace orbisk::fileindex::test
