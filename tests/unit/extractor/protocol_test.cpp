// What is a request and what is none.
#include "services/extractor/protocol.h"

#include <gtest/gtest.h>

#include "services/base/json_text.h"

namespace extractor {
namespace {

TEST(ParseRequest, UnderstandsGoodOnes) {
  struct Case {
    const char* text;
    const char* path;
    const char* pseudo_path;
    bool need_meta;
  };
  const Case cases[] = {
      {R"({"path":"/a"})", "/a", "/a", false},
      {R"({"path":"/a","need_meta":true})", "/a", "/a", true},
      {R"({"path":"/a","need_meta":null,"pseudo_path":null})", "/a", "/a", false},
      {R"({"path":"/a","pseudo_path":"/b/c","need_meta":false})", "/a", "/b/c", false},
      {"{\"path\":\"/\xff\\u0001\",\"other\":[]}", "/\xff\x01", "/\xff\x01", false},
      {R"( {"path" : "/"} )", "/", "/", false},
  };
  for (const Case& one : cases) {
    const Request request = ParseRequest(one.text);
    EXPECT_EQ(request.kind, Request::Kind::kParse) << one.text;
    EXPECT_EQ(request.path, one.path);
    EXPECT_EQ(request.pseudo_path, one.pseudo_path);
    EXPECT_EQ(request.need_meta, one.need_meta);
  }
  EXPECT_EQ(ParseRequest(R"({"status":true})").kind, Request::Kind::kStatus);
}

TEST(ParseRequest, AQuestionForTheStatusMaySayHowManyFailuresItsSenderKnows) {
  EXPECT_FALSE(ParseRequest(R"({"status":true})").wants_failures);
  for (const char* const odd : {"-1", "1.5", "\"7\"", "null", "[7]"}) {
    const Request request = ParseRequest(std::string(R"({"status":true,"since":)") + odd + "}");
    EXPECT_EQ(request.kind, Request::Kind::kStatus) << odd;
    EXPECT_FALSE(request.wants_failures) << odd;
  }

  const Request request = ParseRequest(R"({"status":true,"since":7})");

  EXPECT_TRUE(request.wants_failures);
  EXPECT_EQ(request.since, 7U);
}

TEST(ParseRequest, ComplainsAboutBadOnes) {
  const std::string cases[] = {"",
                               "{",
                               "1",
                               "[{\"path\":\"/a\"}]",
                               "{}",
                               R"({"path":""})",
                               R"({"path":"a"})",
                               R"({"path":["/a"]})",
                               R"({"path":"/a\u0000"})",
                               R"({"path":"/a","pseudo_path":""})",
                               R"({"path":"/a","pseudo_path":7})",
                               R"({"path":"/a","need_meta":"yes"})",
                               R"({"path":"/a"}{)",
                               R"({"path":"/a","path":"/b"})",
                               R"({"path":)" + std::string(10'000, '[')};
  for (const std::string& text : cases) {
    const Request request = ParseRequest(text);
    EXPECT_EQ(request.kind, Request::Kind::kMalformed) << text.substr(0, 100);
    EXPECT_FALSE(request.complaint.empty());
  }
}

TEST(Answer, OfAFailureHasCodeAndMessage) {
  EXPECT_EQ(ErrorAnswer(ErrorCode::kDeadline, "slow"), R"({"error":{"code":4,"msg":"slow"},"success":false})");
}

TEST(Answer, HasTheDocumentAndWhatStandsBesideIt) {
  Json::Value data;
  data["NIMOMDPath"] = "/\xff";
  Json::Value extra;
  extra["cut"] = true;

  EXPECT_EQ(DataAnswer(data, extra), "{\"data\":{\"NIMOMDPath\":\"/\xff\"},\"cut\":true,\"success\":true}");
  EXPECT_EQ(DataAnswer(data), "{\"data\":{\"NIMOMDPath\":\"/\xff\"},\"success\":true}");
}

TEST(Answer, HoldsEveryByteOfTheText) {
  std::string text = "heron ";
  for (int byte = 0; byte < 256; ++byte) {
    text += static_cast<char>(byte);
  }
  Json::Value data;
  data["NIMOMDPath"] = "/a";

  const auto answer = service::FromText(DataAnswer(data, Json::Value(Json::objectValue), text));

  ASSERT_TRUE(answer.has_value());
  EXPECT_TRUE((*answer)["data"]["NIMOMDTextContent"].asString() == text);
  EXPECT_EQ((*answer)["data"]["NIMOMDPath"], "/a");
  EXPECT_EQ((*answer)["success"], true);
}

TEST(Answer, MayHoldTheTextAlone) {
  EXPECT_EQ(DataAnswer(Json::Value(Json::objectValue), Json::Value(Json::objectValue), "a\"b"),
            R"({"data":{"NIMOMDTextContent":"a\"b"},"success":true})");
  EXPECT_EQ(DataAnswer(Json::Value(Json::objectValue)), R"({"data":{},"success":true})");
}

}  // namespace
}  // namespace extractor
