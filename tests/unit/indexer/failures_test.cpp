// The list of files without their content.
#include "services/indexer/failures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/temp_dir.h"

namespace fileindexd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t kAll = 1'000'000;

// "path: reason", oldest first.
std::vector<std::string> Told(const Failures& failures, size_t most = kAll) {
  Json::Value json;
  failures.Report(json, most);
  std::vector<std::string> told;
  for (const Json::Value& failure : json["failures"]) {
    told.push_back(failure["path"].asString() + ": " + failure["reason"].asString());
  }
  return told;
}

Json::Value Report(const Failures& failures) {
  Json::Value json;
  failures.Report(json, 0);
  return json;
}

TEST(Failures, AFileIsListedOnceWithItsLatestReason) {
  Failures failures;

  failures.Add("/v/a", "died");
  failures.Add("/v/b", "died");
  failures.Add("/v/a", "deadline");
  failures.Add("/v/b", "died");

  EXPECT_THAT(Told(failures), ElementsAre("/v/b: died", "/v/a: deadline"));
  EXPECT_EQ(Report(failures)["failed"].asUInt(), 2U);
}

TEST(Failures, AreCountedByReason) {
  Failures failures;
  failures.Add("/v/a", "died");
  failures.Add("/v/b", "died");
  failures.Add("/v/c", "memory");

  failures.Forgive("/v/c");

  EXPECT_EQ(Report(failures)["reasons"].getMemberNames(), std::vector<std::string>{"died"});
  EXPECT_EQ(Report(failures)["reasons"]["died"].asUInt(), 2U);
}

TEST(Failures, TheLatestAreToldOfAndAllAreCounted) {
  Failures failures;
  failures.Add("/v/c", "x");
  failures.Add("/v/b", "x");
  failures.Add("/v/a", "x");

  EXPECT_THAT(Told(failures, 2), ElementsAre("/v/b: x", "/v/a: x"));
  EXPECT_EQ(Report(failures)["failed"].asUInt(), 3U);
}

TEST(Failures, TheOldestGoWhenThereAreTooMany) {
  Failures failures;
  for (int i = 0; i <= 10'000; ++i) {
    failures.Add("/v/" + std::to_string(i), "x");
  }

  EXPECT_EQ(Report(failures)["failed"].asUInt(), 10'000U);
  EXPECT_EQ(Report(failures)["reasons"]["x"].asUInt(), 10'000U);
  EXPECT_FALSE(failures.Has("/v/0"));
  EXPECT_TRUE(failures.Has("/v/1"));
}

TEST(Failures, OneIsForgivenForTheRightReasonOrForAny) {
  Failures failures;
  failures.Add("/v/a", "died");

  failures.ForgiveIf("/v/a", "memory");
  EXPECT_TRUE(failures.Has("/v/a"));

  failures.ForgiveIf("/v/a", "died");
  EXPECT_FALSE(failures.Has("/v/a"));
}

TEST(Failures, AReasonIsGivenToWhatIsOnTheListAlone) {
  Failures failures;
  failures.AddUnexplained("/v/a");

  failures.Explain("/v/a", "died");
  failures.Explain("/v/b", "died");
  EXPECT_THAT(Told(failures), ElementsAre("/v/a: died"));

  failures.AddUnexplained("/v/a");
  EXPECT_THAT(Told(failures), ElementsAre("/v/a: died"));
}

TEST(Failures, ATreeIsForgivenWithoutItsNeighbours) {
  Failures failures;
  for (const char* const path : {"/v/x", "/v/x!", "/v/x/a", "/v/x/y/b", "/v/x0"}) {
    failures.Add(path, "died");
  }

  failures.ForgiveTree("/v/x");

  EXPECT_THAT(Told(failures), ElementsAre("/v/x!: died", "/v/x0: died"));
}

TEST(Failures, TheyMoveWithTheirFilesInThePlaceOfWhatWasThere) {
  Failures failures;
  failures.Add("/v/x", "died");
  failures.Add("/v/x/a", "memory");
  failures.Add("/v/z", "old");
  failures.Add("/v/z/b", "old");

  failures.Move("/v/x", "/v/z");

  EXPECT_THAT(Told(failures), ElementsAre("/v/z: died", "/v/z/a: memory"));
}

TEST(Failures, ComeBackFromTheirFileUnderTheFoldersPresentPath) {
  const TempDir dir;
  Failures failures;
  failures.Add("/v/docs/b\xff", "died");
  failures.Add("/v/docs/a", "memory");
  failures.SetReader("r1");
  failures.Store(dir / "list", "/v/docs");

  Failures later;
  EXPECT_TRUE(later.Load(dir / "list", "/v/papers"));

  EXPECT_THAT(Told(later), ElementsAre("/v/papers/b\xff: died", "/v/papers/a: memory"));
  EXPECT_EQ(later.reader(), "r1");
}

TEST(Failures, WhatIsKnownByNowIsNotReplacedByWhatWasStored) {
  const TempDir dir;
  Failures failures;
  failures.Add("/v/a", "died");
  failures.Store(dir / "list", "/v");
  Failures later;
  later.Add("/v/a", "memory");

  later.Load(dir / "list", "/v");

  EXPECT_THAT(Told(later), ElementsAre("/v/a: memory"));
}

TEST(Failures, AreStoredWhenTheyChangedAndOnlyThen) {
  const TempDir dir;
  Failures failures;

  failures.Store(dir / "list", "/v");
  EXPECT_FALSE(fs::exists(dir / "list"));

  failures.Add("/v/a", "died");
  failures.Store(dir / "list", "/v");
  EXPECT_TRUE(fs::remove(dir / "list"));

  failures.Add("/v/a", "died");
  failures.Store(dir / "list", "/v");
  EXPECT_FALSE(fs::exists(dir / "list"));

  failures.Forgive("/v/a");
  failures.Store(dir / "list", "/v");
  EXPECT_TRUE(fs::exists(dir / "list"));
}

TEST(Failures, AStoreThatFailedIsDoneAgain) {
  const TempDir dir;
  Failures failures;
  failures.Add("/v/a", "died");
  EXPECT_THROW(failures.Store(dir / "missing/list", "/v"), std::system_error);

  failures.Store(dir / "list", "/v");

  EXPECT_TRUE(fs::exists(dir / "list"));
}

TEST(Failures, AFileThatIsNoListIsNone) {
  const TempDir dir;
  Failures failures;

  EXPECT_FALSE(failures.Load(dir / "missing", "/v"));
  for (const char* const text : {"", "[]", "{\"failures\":7}", "{\"failures\":["}) {
    WriteFile(dir / "list", text);
    EXPECT_FALSE(failures.Load(dir / "list", "/v")) << text;
  }
  WriteFile(dir / "list", R"({"failures":[7,{"path":1,"reason":"x"},{"path":"/a","reason":"x"}],"reader":8})");
  EXPECT_TRUE(failures.Load(dir / "list", "/v"));
  EXPECT_THAT(Told(failures), ElementsAre("/v/a: x"));
  EXPECT_THAT(failures.reader(), IsEmpty());
}

}  // namespace
}  // namespace fileindexd
