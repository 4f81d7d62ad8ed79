// The index beside a naive twin: a map of documents, and random operations on both.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "tests/unit/search/engine_support.h"

namespace search::test {
namespace {

// What a document is to the twin.
struct Twin {
  std::string name;
  std::set<std::string> words;
};

class ModelTest : public testing::TestWithParam<unsigned> {
 protected:
  int Pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(random_); }

  std::string RandomPath() {
    static const char* const parts[] = {"a", "ab", "b.txt", "\xff\xfe", "c d", "A", "\u00e9", "z\n"};
    std::string path = "/v";
    for (int depth = 1 + Pick(3); depth > 0; --depth) {
      path += std::string("/") + parts[Pick(8)];
    }
    return path;
  }

  std::set<std::string> RandomWords() {
    std::set<std::string> words;
    for (int i = Pick(4); i >= 0; --i) {
      words.insert("wort" + std::to_string(Pick(12)));
    }
    return words;
  }

  static std::string Join(const std::set<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
      text += word + " ";
    }
    return text;
  }

  void Upsert() {
    const std::string path = RandomPath();
    const std::set<std::string> words = RandomWords();
    fixture_.Put(path, Join(words));
    twin_[path] = {path.substr(path.rfind('/') + 1), words};
  }

  void Move() {
    const std::string from = RandomPath();
    const std::string to = RandomPath();
    Json::Value changes = Document(to);
    const bool known = twin_.count(from) > 0;
    const bool target = twin_.count(to) > 0 && to != from;
    try {
      EXPECT_EQ(fixture_.index->Set(from, changes).replaced, target);
      EXPECT_TRUE(known);
    } catch (const Error& error) {
      EXPECT_EQ(error.code(), ErrorCode::kNoSuchDocument);
      EXPECT_FALSE(known);
    }
    if (known) {
      Twin moved = twin_[from];
      moved.name = to.substr(to.rfind('/') + 1);
      twin_.erase(from);
      twin_[to] = moved;
    }
  }

  void ChangeWords() {
    const std::string path = RandomPath();
    if (twin_.count(path) > 0) {
      twin_[path].words = RandomWords();
      Json::Value changes;
      changes["NIMOMDTextContent"] = Join(twin_[path].words);
      fixture_.index->Set(path, changes);
    }
  }

  void Delete() {
    const std::string path = RandomPath();
    EXPECT_EQ(fixture_.index->Delete(path), twin_.erase(path) > 0);
  }

  void DeleteBelow() {
    const std::string prefix = RandomPath() + "/";
    Json::Value query;
    query["qsl"]["prefix"]["NIMOMDPath"] = prefix;
    const auto gone =
        std::erase_if(twin_, [&](const auto& entry) { return entry.first.compare(0, prefix.size(), prefix) == 0; });
    EXPECT_EQ(fixture_.index->DeleteByQuery(query), static_cast<int64_t>(gone));
  }

  template <typename Wanted>
  std::vector<std::string> TwinPaths(Wanted wanted) const {
    std::vector<std::string> paths;
    for (const auto& [path, document] : twin_) {
      if (wanted(path, document)) {
        paths.push_back(path);
      }
    }
    return paths;
  }

  void CompareLatest() {
    const std::string prefix = RandomPath().substr(0, static_cast<size_t>(2 + Pick(6)));
    Json::Value query;
    query["qsl"]["prefix"]["NIMOMDPath"] = prefix;
    std::vector<std::string> paths;
    fixture_.index->Get(query, std::vector<std::string>{"NIMOMDPath", "NIMOMDFSName"}, [&](Json::Value&& hit) {
      paths.push_back(hit["NIMOMDPath"].asString());
      EXPECT_EQ(hit["NIMOMDFSName"].asString(), twin_[paths.back()].name);
    });
    EXPECT_EQ(paths, TwinPaths([&](const std::string& path, const Twin&) {
                return path.compare(0, prefix.size(), prefix) == 0;
              }));
  }

  void CompareWords() {
    fixture_.index->Commit();
    const std::string word = "wort" + std::to_string(Pick(12));
    const std::string other = "wort" + std::to_string(Pick(12));
    EXPECT_EQ(Find(*fixture_.index, "\"" + word + "\""),
              TwinPaths([&](const std::string&, const Twin& twin) { return twin.words.count(word) > 0; }));
    EXPECT_EQ(Find(*fixture_.index, word + " -" + other), TwinPaths([&](const std::string&, const Twin& twin) {
                return HasForm(twin, word) && !HasForm(twin, other);
              }));
    EXPECT_EQ(Find(*fixture_.index, "name:\"b\""),
              TwinPaths([&](const std::string&, const Twin& twin) { return twin.name == "b.txt"; }));
  }

  static bool HasForm(const Twin& twin, const std::string& word) { return twin.words.count(word) > 0; }

  std::mt19937 random_{GetParam()};
  Fixture fixture_;
  std::map<std::string, Twin> twin_;
};

TEST_P(ModelTest, TheIndexIsAMapOfDocuments) {
  for (int step = 0; step < 1'500; ++step) {
    switch (Pick(20)) {
      case 0:
        Delete();
        break;
      case 1:
        DeleteBelow();
        break;
      case 2:
      case 3:
      case 4:
        Move();
        break;
      case 5:
        ChangeWords();
        break;
      case 6:
        CompareLatest();
        break;
      case 7:
        CompareWords();
        break;
      default:
        Upsert();
    }
    if (HasFailure()) {
      FAIL() << "at step " << step;
    }
  }
  fixture_.index->Commit();
  fixture_.Reopen();
  EXPECT_EQ(Get(*fixture_.index, "{'match_all': {}}"), TwinPaths([](const auto&, const auto&) { return true; }));
  EXPECT_EQ(fixture_.index->Stat(true).problem, "");
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest, testing::Values(1u, 2u, 3u, 4u));

}  // namespace
}  // namespace search::test
