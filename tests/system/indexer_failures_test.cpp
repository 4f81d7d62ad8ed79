// Files that the extractor fails at, with the real daemons: their neighbours are indexed, and people see what failed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using testing::Pair;

// Its extractor does what the files tell it to.
class IndexerFailures : public IndexerBox {
 protected:
  void SetUp() override {
    IndexerBox::SetUp();
    UseExtractor(ProgramBeside("hostile_extractor"), {"--deadline", "4"});
    ReplaceExtractor();
  }

  void Write(const std::string& name, const std::string& text) const {
    MakeFolder(fs::path(Docs(name)).parent_path());
    WriteFile(Docs(name), text);
  }
  // Name and reason.
  std::map<std::string, std::string> Failures() const {
    Json::Value all;
    all["failures"] = "all";
    const Json::Value status = Command("status", all);
    std::map<std::string, std::string> failures;
    for (const Json::Value& failure : status["data"]["shares"][0]["failures"]) {
      failures[failure["path"].asString().substr(Docs().size() + 1)] = failure["reason"].asString();
    }
    return failures;
  }
  std::vector<std::string> FailedNames() const {
    std::vector<std::string> names;
    for (const auto& [name, reason] : Failures()) {
      names.push_back(name);
    }
    return names;
  }
  testing::AssertionResult ListBecomes(const std::vector<std::string>& names) const {
    return Eventually([&] { return IsIdle() && FailedNames() == names; })
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << testing::PrintToString(FailedNames());
  }
};

TEST_F(IndexerFailures, TheNeighboursOfCrashersAreAllIndexedAndTheReasonsAreTold) {
  for (int i = 0; i < 20; ++i) {
    Write("good" + std::to_string(i), "well" + std::to_string(i));
  }
  Write("crasher", "crash");
  Write("deep/crasher", "crash");
  Write("stall", "stall");
  Write("broken", "broken");

  StartIndexer();

  ASSERT_TRUE(ListBecomes({"broken", "crasher", "deep/crasher", "stall"}));
  const IndexedTree index = InIndex();
  for (int i = 0; i < 20; ++i) {
    const auto good = index.find(Docs("good" + std::to_string(i)));
    EXPECT_TRUE(good != index.end() && good->second.text == "well" + std::to_string(i)) << i;
  }
  EXPECT_EQ(index.size(), OnDisk().size()) << "those that failed are indexed by their attributes";
  EXPECT_THAT(Failures(), testing::Contains(Pair("broken", "this content is broken")));
  // A sanitizer catches the signal and has the program exit.
  const Json::Value reasons = StatusOf()["reasons"];
  const std::string death = reasons.isMember("the worker died: Segmentation fault")
                                ? "the worker died: Segmentation fault"
                                : "the worker exited with status 1";
  EXPECT_THAT(Failures(), testing::Contains(Pair("crasher", death)));
  EXPECT_EQ(reasons[death].asInt(), 2);
  EXPECT_EQ(StatusOf()["failed"].asInt(), 4);
}

TEST_F(IndexerFailures, WhatWasMendedOrDeletedIsNotToldOfAndWhatWasRenamedIsByItsNewName) {
  Write("mended", "crash");
  Write("deleted", "crash");
  Write("old/a", "crash");
  StartIndexer();
  ASSERT_TRUE(ListBecomes({"deleted", "mended", "old/a"}));

  Write("mended", "whinchat");
  fs::remove(Docs("deleted"));
  fs::rename(Docs("old"), Docs("new"));

  EXPECT_TRUE(ListBecomes({"new/a"}));
  EXPECT_EQ(InIndex()[Docs("mended")].text, "whinchat");
}

TEST_F(IndexerFailures, TheListOutlivesTheDaemonHoweverItEnds) {
  Write("a", "crash");
  Write("b", "broken");
  Write("c", "whinchat");
  StartIndexer();
  ASSERT_TRUE(ListBecomes({"a", "b"}));

  StopIndexer();
  StartIndexer();
  EXPECT_TRUE(ListBecomes({"a", "b"}));

  KillIndexer();
  Write("b", "mended");
  StartIndexer();
  EXPECT_TRUE(ListBecomes({"a"}));
}

TEST_F(IndexerFailures, AnotherWayOfReadingHasWhatFailedTriedAgain) {
  Write("slow", "sleep_ms 6000");
  Write("good", "whinchat");
  StartIndexer();
  ASSERT_TRUE(ListBecomes({"slow"}));

  UseExtractor(ProgramBeside("hostile_extractor"), {"--deadline", "20"});
  ReplaceExtractor();
  Write("other", "dunlin");  // with the next change the daemon meets the new one

  EXPECT_TRUE(ListBecomes({}));
}

TEST_F(IndexerFailures, AnotherWayOfReadingIsNoticedByADaemonThatStarts) {
  Write("slow", "sleep_ms 6000");
  StartIndexer();
  ASSERT_TRUE(ListBecomes({"slow"}));
  StopIndexer();

  UseExtractor(ProgramBeside("hostile_extractor"), {"--deadline", "20"});
  ReplaceExtractor();
  StartIndexer();

  EXPECT_TRUE(ListBecomes({}));
}

}  // namespace
}  // namespace orbisk::test
