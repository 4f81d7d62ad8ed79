// The index of full paths answers, and fails, as comparing every entry each time does.
#include "fileindex/full_path_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "orbisk/error.h"
#include "orbisk/fileindex/util.h"
#include "tests/support/fake_share.h"
#include "tests/unit/fileindex/config_box.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::FakeShares;
using Entries = std::vector<std::shared_ptr<Folder>>;

// The configuration that compares every entry, in words as plain as they come.
class NaiveMgr {
 public:
  std::shared_ptr<Folder> GetMostSuitableCfg(const std::string& full_path) const {
    size_t best_length = 0;
    std::shared_ptr<Folder> best;
    for (const auto& entry : entries) {
      const std::string own = entry->GetFullPath();
      if (Holds(own, full_path) && own.size() > best_length) {
        best = entry;
        best_length = own.size();
      }
    }
    return best;
  }
  bool IsFullPathIndexed(const std::string& full_path) const {
    return std::any_of(entries.begin(), entries.end(),
                       [&](const auto& entry) { return Holds(entry->GetFullPath(), full_path); });
  }
  bool IsFullPathHasOwnCfg(const std::string& full_path) const {
    return std::any_of(entries.begin(), entries.end(),
                       [&](const auto& entry) { return entry->GetFullPath() == full_path; });
  }
  void Upsert(std::shared_ptr<Folder>& before, const std::shared_ptr<Folder>& folder) {
    before = GetMostSuitableCfg(folder->GetFullPath());
    std::erase_if(entries, [&](const auto& entry) { return entry->GetPath() == folder->GetPath(); });
    entries.push_back(folder);
  }
  void Delete(const std::string& path) {
    std::string full_path;
    GetFullPath(full_path, path);
    GetMostSuitableCfg(full_path);
    std::erase_if(entries, [&](const auto& entry) { return entry->GetPath() == path; });
    GetMostSuitableCfg(full_path);
  }
  void DeleteByShare(const std::string& share) {
    for (const auto& entry : entries) {
      entry->GetShare();
    }
    std::erase_if(entries, [&](const auto& entry) { return entry->GetShare() == share; });
  }

  Entries entries;

 private:
  static bool Holds(const std::string& own, const std::string& full_path) {
    return (full_path + "/").compare(0, own.size() + 1, own + "/") == 0;
  }
};

// What a question says: its answer, or its Error.
template <class Question>
std::string Answer(Question question) {
  try {
    return question();
  } catch (const Error& error) {
    return std::to_string(error.code()) + " " + error.what();
  }
}

// One configuration in both forms, changed and asked at random.
class Twins {
 public:
  explicit Twins(unsigned seed) : random_(seed) {
    box_.AddShare("photo");
    box_.AddShare("music");
    for (unsigned i = Number(12); i > 0; --i) {
      Upsert();
    }
  }

  void Step() {
    switch (Number(14)) {
      case 0:
        return Upsert();
      case 1:
        return SetPath();
      case 2:
        return SetShare();
      case 3:
        return Delete();
      case 4:
        return Number(6) == 0 ? DeleteByShare() : Delete();
      case 5:
        return AskAnEntry();
      default:
        return Ask();
    }
  }

 private:
  unsigned Number(unsigned end) { return static_cast<unsigned>(random_() % end); }
  std::string OneOf(const std::vector<std::string>& texts) {
    return texts[Number(static_cast<unsigned>(texts.size()))];
  }

  std::string Inner() {
    std::string path;
    for (unsigned depth = Number(4); depth > 0; --depth) {
      path += OneOf({"/a", "/ab", "/b", "/"});
    }
    return path;
  }
  // A missing share or a malformed path fails every later question about all entries, so it is seldom.
  std::string SharePath() {
    const unsigned number = Number(150);
    return (number == 0 ? "/gone" : number == 1 ? "photo" : OneOf({"/photo", "/music"})) + Inner();
  }
  std::string FullPath() {
    return Number(20) == 0 ? Inner() : box_.Full(OneOf({"/photo", "/music", "/other"})) + Inner();
  }

  void Compare(const std::string& what, const std::string& expected, const std::string& actual) {
    ASSERT_EQ(expected, actual) << what;
    ASSERT_EQ(naive_.entries.size(), manager_.GetFolders().size()) << what;
    for (size_t i = 0; i < naive_.entries.size(); ++i) {
      ASSERT_EQ(naive_.entries[i]->GetData(), manager_.GetFolders()[i]->GetData()) << what << i;
    }
  }

  void Upsert() {
    const Json::Value entry = Entry(SharePath(), OneOf({"", "d", "davp"}), std::to_string(++names_));
    std::shared_ptr<Folder> before;
    std::shared_ptr<Folder> diff;
    const std::string expected = Answer([&] {
      naive_.Upsert(before, std::make_shared<Folder>(entry));
      return before == nullptr ? "null" : before->GetName();
    });
    const std::string actual = Answer([&] {
      manager_.Upsert(diff, std::make_shared<Folder>(entry));
      return diff == nullptr ? "null" : diff->GetName();
    });
    Compare("upsert", expected, actual);
  }
  void Delete() {
    const std::string path =
        Number(2) == 0 || naive_.entries.empty() ? SharePath() : naive_.entries[Number(Count())]->GetPath();
    const auto remove = [&](auto action) { return Answer([&] { return action(), std::string("done"); }); };
    std::shared_ptr<Folder> diff;
    const std::string expected = remove([&] { naive_.Delete(path); });
    Compare("delete", expected, remove([&] { manager_.Delete(diff, path); }));
  }
  void DeleteByShare() {
    const std::string share = OneOf({"photo", "music", "gone"});
    const auto remove = [&](auto& manager) {
      return Answer([&] { return manager.DeleteByShare(share), std::string("done"); });
    };
    const std::string expected = remove(naive_);
    Compare("delete by share", expected, remove(manager_));
  }

  unsigned Count() const { return static_cast<unsigned>(naive_.entries.size()); }
  // Does the same to one entry of both.
  template <class Action>
  void WithAnEntry(const std::string& what, Action action) {
    if (naive_.entries.empty()) {
      return;
    }
    const unsigned number = Number(Count());
    const auto apply = [&](Folder& entry) { return Answer([&] { return action(entry); }); };
    const std::string expected = apply(*naive_.entries[number]);
    Compare(what, expected, apply(*manager_.GetFolders()[number]));
  }
  void SetPath() {
    const std::string path = SharePath();
    WithAnEntry("set path", [&](Folder& entry) { return entry.SetPath(path), path; });
  }
  void SetShare() {
    const std::string share = OneOf({"photo", "music"});
    WithAnEntry("set share", [&](Folder& entry) { return entry.SetShare(share), share; });
  }
  void AskAnEntry() {
    WithAnEntry("full path", [&](Folder& entry) { return entry.GetFullPath(); });
  }

  void Ask() {
    const std::string path = Number(3) == 0 && !naive_.entries.empty()
                                 ? Answer([&] { return box_.Full(naive_.entries[Number(Count())]->GetPath()); })
                                 : FullPath();
    const unsigned kind = Number(3);
    const auto ask = [&](const auto& manager) {
      return Answer([&]() -> std::string {
        if (kind == 0) {
          const std::shared_ptr<Folder> found = manager.GetMostSuitableCfg(path);
          return found == nullptr ? "null" : found->GetName();
        }
        return (kind == 1 ? manager.IsFullPathIndexed(path) : manager.IsFullPathHasOwnCfg(path)) ? "yes" : "no";
      });
    };
    const std::string expected = ask(naive_);
    Compare("question " + std::to_string(kind) + " of " + path, expected, ask(manager_));
  }

  std::mt19937 random_;
  ConfigBox box_;
  int names_ = 0;
  NaiveMgr naive_;
  FolderMgr manager_;
};

TEST(FullPathIndexTwins, AnswersAndFailsAsComparingEveryEntry) {
  for (unsigned seed = 0; seed < 400 && !testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE(seed);
    Twins twins(seed);
    for (int step = 0; step < 40 && !testing::Test::HasFailure(); ++step) {
      twins.Step();
    }
  }
}

class FullPathIndexTest : public testing::Test {
 protected:
  FullPathIndexTest() { box_.AddShare("photo"); }

  static size_t Asked() { return FakeShares().get.calls().size(); }

  ConfigBox box_;
};

TEST_F(FullPathIndexTest, AnEntryBehindTheAnswerIsNotAsked) {
  const FolderMgr manager = Manager({Entry("/photo/a"), Entry("/photo/b"), Entry("/gone/c")});
  EXPECT_TRUE(manager.IsFullPathIndexed(box_.Full("/photo/a/x")));
  EXPECT_TRUE(manager.IsFullPathHasOwnCfg(box_.Full("/photo/b")));
  EXPECT_EQ("800 gone", Answer([&] { return manager.IsFullPathIndexed("/") ? "yes" : "no"; }));
  EXPECT_EQ("800 gone", Answer([&] { return PathOf(manager.GetMostSuitableCfg(box_.Full("/photo/a"))); }))
      << "the nearest is only known when all are";
  EXPECT_TRUE(manager.IsFullPathIndexed(box_.Full("/photo/a/x"))) << "also after a failure";
}

TEST_F(FullPathIndexTest, AnEntryThatFailedIsAskedAgain) {
  const FolderMgr manager = Manager({Entry("/photo/a"), Entry("/music/c")});
  EXPECT_EQ("800 music", Answer([&] { return PathOf(manager.GetMostSuitableCfg("/")); }));
  box_.AddShare("music");
  EXPECT_EQ("/music/c", PathOf(manager.GetMostSuitableCfg(box_.Full("/music/c"))));
}

TEST_F(FullPathIndexTest, EachShareIsAskedOnceForAllItsEntries) {
  box_.AddShare("music");
  const FolderMgr manager = Manager({Entry("/photo/a"), Entry("/photo/b"), Entry("/photo/c"), Entry("/music/d")});
  const size_t before = Asked();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ("/photo/b", PathOf(manager.GetMostSuitableCfg(box_.Full("/photo/b/x"))));
  }
  EXPECT_EQ(before + 2, Asked());
}

TEST_F(FullPathIndexTest, EntriesOfSharesInTurnsHaveTheirOwnFullPaths) {
  box_.AddShare("music");
  const FolderMgr manager = Manager({Entry("/photo/a"), Entry("/music/a"), Entry("/photo"), Entry("/music")});
  for (const char* const path : {"/photo/a", "/music/a", "/photo", "/music"}) {
    EXPECT_EQ(path, PathOf(manager.GetMostSuitableCfg(box_.Full(path))));
  }
}

TEST_F(FullPathIndexTest, AChangedPathIsSeenByTheNextQuestion) {
  const FolderMgr manager = Manager({Entry("/photo/a"), Entry("/photo/b")});
  EXPECT_EQ("/photo/a", PathOf(manager.GetMostSuitableCfg(box_.Full("/photo/a"))));
  manager.GetFolders()[0]->SetPath("/photo/c");
  EXPECT_EQ("null", PathOf(manager.GetMostSuitableCfg(box_.Full("/photo/a"))));
  EXPECT_EQ("/photo/c", PathOf(manager.GetMostSuitableCfg(box_.Full("/photo/c/x"))));
  EXPECT_FALSE(manager.IsFullPathHasOwnCfg(box_.Full("/photo/a")));
}

TEST_F(FullPathIndexTest, ACopyOfAManagerHasAnswersOfItsOwn) {
  FolderMgr manager = Manager({Entry("/photo/a"), Entry("/photo/a/b")});
  EXPECT_EQ("/photo/a/b", PathOf(manager.GetMostSuitableCfg(box_.Full("/photo/a/b"))));
  const FolderMgr copy = manager;
  std::shared_ptr<Folder> diff;
  manager.Delete(diff, "/photo/a/b");
  EXPECT_EQ("/photo/a", PathOf(manager.GetMostSuitableCfg(box_.Full("/photo/a/b"))));
  EXPECT_EQ("/photo/a/b", PathOf(copy.GetMostSuitableCfg(box_.Full("/photo/a/b"))));
}

}  // namespace
}  // namespace orbisk::fileindex::test
