// What nimo/home.h promises.
#include "nimo/home.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/contract/platform_under_test.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using Paths = std::vector<std::string>;

// A share of homes with the recycle bins of two accounts and of somebody unknown.
class Homes : public testing::Test {
 protected:
  void SetUp() override {
    if (!ForgetSharesAndAccounts()) {
      GTEST_SKIP() << "private mounts are not allowed here";
    }
    AddAccount({"ann", 2001, 2001});
    AddAccount({"bob", 2002, 2002});
  }

  void AddHomes() {
    for (const char* const home : {"ann", "bob", "stranger"}) {
      fs::create_directories(homes_ + "/" + home + "/#recycle");
    }
    AddShare({"homes", homes_});
  }
  std::string Bin(const std::string& name) const { return homes_ + "/" + name + "/#recycle"; }

  // What is appended to a list with room for `capacity`; "failed" alone if that fails.
  template <class Enumerate>
  static Paths Listed(Enumerate enumerate, int capacity = 1024) {
    SZLIST* list = NLIBCSzListAlloc(capacity);
    const int result = enumerate(&list);
    Paths paths;
    for (int i = 0; i < list->nItem; ++i) {
      paths.emplace_back(NLIBCSzListGet(list, i));
    }
    NLIBCSzListFree(list);
    return result == 0 ? paths : Paths{"failed"};
  }
  static Paths All(int capacity = 1024) { return Listed(NIMORecycleHomeEnumRecyclePath, capacity); }
  static Paths Of(AUTH_TYPE type) {
    return Listed([=](SZLIST** list) { return NIMORecycleHomeEnumRecyclePathForAuthType(list, type); });
  }

  const TempDir volume_;
  const std::string homes_ = volume_ / "homes";
};

TEST_F(Homes, ABoxWithoutThemHasNoRecycleBins) {
  EXPECT_EQ(Paths{}, All());
  EXPECT_EQ(Paths{}, Of(AUTH_LOCAL));
}

TEST_F(Homes, AllRecycleBinsAreListedWhoeverTheirAccountIs) {
  AddHomes();
  EXPECT_EQ((Paths{Bin("ann"), Bin("bob"), Bin("stranger")}), All());
}

TEST_F(Homes, TheListGrowsWhenItIsFull) {
  AddHomes();
  EXPECT_EQ(3U, All(0).size());
  EXPECT_EQ(3U, All(1).size());
}

TEST_F(Homes, AreListedByWhereTheirAccountIsKnownFrom) {
  AddHomes();
  AddDirectoryAccount({"dora", 3001, 3001});
  fs::create_directories(Bin("dora"));

  EXPECT_EQ((Paths{Bin("ann"), Bin("bob")}), Of(AUTH_LOCAL));
  EXPECT_EQ(Paths{Bin("dora")}, Of(AUTH_DIRECTORY));
}

TEST_F(Homes, OnlyFoldersAreRecycleBins) {
  AddHomes();
  fs::remove(Bin("ann"));
  WriteFile(Bin("ann"), "a file");
  fs::remove(Bin("bob"));
  fs::create_directory_symlink("/", Bin("bob"));
  fs::create_directories(homes_ + "/#recycle");
  EXPECT_EQ(Paths{Bin("stranger")}, All());
}

TEST_F(Homes, AnUnknownSourceAndAMissingListAreFailures) {
  AddHomes();
  EXPECT_EQ(Paths{"failed"}, Of(static_cast<AUTH_TYPE>(99)));
  EXPECT_NE(0, NIMORecycleHomeEnumRecyclePath(nullptr));
  EXPECT_NE(0, NIMORecycleHomeEnumRecyclePathForAuthType(nullptr, AUTH_LOCAL));
}

}  // namespace
}  // namespace orbisk::test
