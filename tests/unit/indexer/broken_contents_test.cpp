// What is new in the extractor's list.
#include "services/indexer/broken_contents.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "services/base/unique_fd.h"
#include "tests/support/local_socket.h"
#include "tests/support/temp_dir.h"

namespace fileindexd {
namespace {

Json::Value Failure(const std::string& reason, const std::string& path) {
  Json::Value failure;
  failure["reason"] = reason;
  failure["path"] = path;
  failure["message"] = "no text in " + path;
  return failure;
}

Json::Value Status(unsigned broken, const std::vector<Json::Value>& latest) {
  Json::Value status;
  status["data"]["failures"]["broken"] = broken;
  status["data"]["latest_failures"] = Json::Value(Json::arrayValue);
  for (const Json::Value& failure : latest) {
    status["data"]["latest_failures"].append(failure);
  }
  return status;
}

std::vector<std::string> PathsOf(const std::vector<BrokenContent>& contents) {
  std::vector<std::string> paths;
  for (const BrokenContent& content : contents) {
    paths.push_back(content.path);
  }
  return paths;
}

TEST(BrokenContents, EachIsToldOnceInTheOrderInWhichItCame) {
  BrokenContents contents;
  const Json::Value a = Failure("broken", "/v/a");
  const Json::Value b = Failure("broken", "/v/b");

  EXPECT_EQ(PathsOf(contents.New(Status(1, {a}), "/v")), std::vector<std::string>{"/v/a"});
  EXPECT_EQ(PathsOf(contents.New(Status(1, {a}), "/v")), std::vector<std::string>{});
  EXPECT_EQ(PathsOf(contents.New(Status(3, {a, a, b}), "/v")), (std::vector<std::string>{"/v/a", "/v/b"}));
}

TEST(BrokenContents, OtherSharesAreLeftOutAndFilesWithoutADocumentAreToldApart) {
  BrokenContents contents;

  const auto found = contents.New(Status(4, {Failure("broken", "/v/a"), Failure("deadline", "/v/b"),
                                             Failure("broken", "/v2/c"), Failure("broken", "/v/d")}),
                                  "/v");

  EXPECT_EQ(PathsOf(found), (std::vector<std::string>{"/v/a", "/v/b", "/v/d"}));
  EXPECT_EQ(found[0].reason, "no text in /v/a");
  EXPECT_TRUE(found[0].has_document);
  EXPECT_FALSE(found[1].has_document);
}

TEST(BrokenContents, FailuresOfAllKindsCountButThoseFromMemory) {
  BrokenContents contents;
  const Json::Value a = Failure("died", "/v/a");
  Json::Value status = Status(1, {Failure("broken", "/v/b"), a});
  status["data"]["failures"]["died"] = 1;
  contents.Skip(status);

  status["data"]["failures"]["known"] = 5;
  EXPECT_EQ(PathsOf(contents.New(status, "/v")), std::vector<std::string>{});

  status["data"]["failures"]["died"] = 2;
  EXPECT_EQ(PathsOf(contents.New(status, "/v")), std::vector<std::string>{"/v/a"});
}

TEST(BrokenContents, AnExtractorThatWasStartedAnewBeginsAnew) {
  BrokenContents contents;
  contents.New(Status(9, {}), "/v");

  EXPECT_EQ(PathsOf(contents.New(Status(1, {Failure("broken", "/v/a")}), "/v")), std::vector<std::string>{"/v/a"});
}

TEST(BrokenContents, WhatWasSaidBeforeIsLeftOutIfAsked) {
  BrokenContents contents;
  const Json::Value a = Failure("broken", "/v/a");

  contents.Skip(Status(1, {a}));

  EXPECT_EQ(PathsOf(contents.New(Status(2, {a, Failure("broken", "/v/b")}), "/v")), std::vector<std::string>{"/v/b"});
}

TEST(BrokenContents, AReaderIsToldFromAProperAnswerAlone) {
  Json::Value status = Status(0, {});
  EXPECT_EQ(ReaderOf(status), "");
  status["data"]["reader"] = "0a1b";
  EXPECT_EQ(ReaderOf(status), "0a1b");
  status["data"]["reader"] = 7;
  EXPECT_EQ(ReaderOf(status), "");
  EXPECT_EQ(ReaderOf(Json::Value("text")), "");
  EXPECT_EQ(ReaderOf(Json::Value()), "");
}

TEST(BrokenContents, AnAnswerThatIsNoneSaysNothing) {
  BrokenContents contents;

  EXPECT_TRUE(contents.New(Json::Value(), "/v").empty());
  EXPECT_TRUE(contents.New(Json::Value("text"), "/v").empty());
  EXPECT_TRUE(contents.New(Status(1, {Json::Value(7)}), "/v").empty());
  Json::Value odd = Failure("broken", "/v/a");
  odd["path"] = Json::Value(Json::arrayValue);
  EXPECT_TRUE(contents.New(Status(2, {odd}), "/v").empty());
  odd = Failure("broken", "/v/a");
  odd["message"] = Json::Value(Json::objectValue);
  EXPECT_TRUE(contents.New(Status(3, {odd}), "/v").empty());
}

TEST(BrokenContents, AnExtractorThatSaysNothingIsNotWaitedFor) {
  const orbisk::test::TempDir dir;
  const service::UniqueFd silent(orbisk::test::ListenAt(dir / "socket"));

  EXPECT_TRUE(AskExtractor(0, dir / "socket").isNull());
}

}  // namespace
}  // namespace fileindexd
