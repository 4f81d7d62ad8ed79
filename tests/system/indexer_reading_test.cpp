// How the indexing daemon gets on with the extractor: how much it asks of it, and what it believes it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

// Its extractor does what the files tell it to.
class IndexerReading : public IndexerBox {
 protected:
  void SetUp() override {
    IndexerBox::SetUp();
    UseAnother("1");
  }

  void UseAnother(const std::string& deadline) {
    UseExtractor(ProgramBeside("hostile_extractor"), {"--deadline", deadline});
    ReplaceExtractor();
  }
  void Write(const std::string& name, const std::string& text) const {
    MakeFolder(fs::path(Docs(name)).parent_path());
    WriteFile(Docs(name), text);
  }
  static std::vector<std::string> Failed() {
    Json::Value all;
    all["failures"] = "all";
    const Json::Value status = Command("status", all);
    std::vector<std::string> names;
    for (const Json::Value& failure : status["data"]["shares"][0]["failures"]) {
      names.push_back(fs::path(failure["path"].asString()).filename());
    }
    return names;
  }
  static bool IsIdle() { return StatusOf()["state"].asString() == "idle" && StatusOf()["backlog"] == 0; }
  // The threads of the daemon that read.
  int Hands() {
    int hands = 0;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(indexer().pid()) + "/task")) {
      std::ifstream file(task.path() / "comm");
      std::string name;
      hands += file >> name && name == "i-crew" ? 1 : 0;
    }
    return hands;
  }
  // The daemon itself and not what it has work for it.
  static pid_t Extractor() {
    std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
    for (pid_t child = 0; children >> child;) {
      if (ReadFile("/proc/" + std::to_string(child) + "/comm") == "hostile_extract\n") {
        return child;
      }
    }
    return 0;
  }
};

TEST_F(IndexerReading, AsManyWaitForAnswersAsFilesMayBeReadAtOnce) {
  for (int i = 0; i < 12; ++i) {
    Write(std::to_string(i), "sleep_ms 900");
  }
  for (const int wanted : {1, 3}) {
    StartIndexer({"--extractions", std::to_string(wanted)});
    Command("worker_create", About("docs"));

    int most = 0;
    EXPECT_TRUE(Eventually([&] { return (most = std::max(most, Hands())) == wanted; }));
    usleep(500'000);
    EXPECT_EQ(std::max(most, Hands()), wanted);
    KillIndexer();
  }
}

TEST_F(IndexerReading, WhatTheExtractorSaysFirstCountsIfItDidNotAnswerBeforeTheWork) {
  Write("bad.txt", "broken");
  const pid_t extractor = Extractor();
  ASSERT_GT(extractor, 0);
  kill(extractor, SIGSTOP);
  StartIndexer();
  const bool in_work = Eventually([this] { return StatusOf()["file"].asString() == Docs(); });

  kill(extractor, SIGCONT);

  EXPECT_TRUE(in_work);
  EXPECT_TRUE(Eventually([] { return IsIdle() && !Failed().empty(); }));
  EXPECT_THAT(Failed(), ElementsAre("bad.txt"));
}

TEST_F(IndexerReading, WhatFailedInAPausedFolderIsTriedByAnotherReaderWhenItIsResumed) {
  Json::Value paused = Entry("/docs/deep", "deep");
  WriteFolders({Entry("/docs", "all"), paused});
  Write("deep/slow", "sleep_ms 1500");
  StartIndexer();
  ASSERT_TRUE(Eventually([] { return IsIdle() && Failed().size() == 1; }));
  paused["paused"] = true;
  WriteFolders({Entry("/docs", "all"), paused});
  UseAnother("20");
  Write("other", "dunlin");
  ASSERT_TRUE(Eventually([] { return Find({"dunlin"}).size() == 1; }));
  ASSERT_TRUE(Eventually(IsIdle));

  paused["paused"] = false;
  WriteFolders({Entry("/docs", "all"), paused});

  EXPECT_TRUE(Eventually([] { return IsIdle() && Failed().empty(); }));
  EXPECT_THAT(Failed(), IsEmpty());
}

TEST_F(IndexerReading, WhatFailedIsTriedAgainWhenTheExtractorIsReplacedThoughNoFileChanges) {
  Write("slow", "sleep_ms 1500");
  StartIndexer();
  ASSERT_TRUE(Eventually([] { return IsIdle() && Failed().size() == 1; }));

  UseAnother("20");

  EXPECT_TRUE(Eventually([] { return IsIdle() && Failed().empty(); }));
}

TEST_F(IndexerReading, AllOfManyBrokenFilesAreTold) {
  for (int i = 0; i < 300; ++i) {
    Write(std::to_string(i), "broken");
  }

  StartIndexer();

  EXPECT_TRUE(Eventually([] { return IsIdle() && StatusOf()["failed"].asInt() == 300; }, std::chrono::minutes(2)))
      << StatusOf()["failed"];
}

}  // namespace
}  // namespace orbisk::test
