// What the search daemon says of indexes that cannot be used now, and of answers that would be too much.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>
#include <utility>

#include "tests/support/foreign_connection.h"
#include "tests/system/search_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class SearchRefusals : public testing::Test {
 protected:
  void Start(const std::vector<std::string>& arguments = {}) {
    box_.Start(arguments);
    box_.CreateIndex("a");
  }
  int Code(const std::string& command, const std::string& data) { return box_.CodeOf(command, Object(data)); }
  std::string State() { return box_.Ask("index_stat", Object("{'id':'a'}"))["data"]["state"].asString(); }
  // A paused index is closed, and all of it is in its file.
  void ChangeWhileClosed(const std::function<void(const std::string& folder)>& change) {
    ASSERT_EQ(0, Code("index_pause", "{'id':'a'}"));
    change(box_.volume() + "/a");
  }
  std::optional<std::pair<int, int>> CodesWhileRepairing(int documents);
  // Documents with common text, in one request.
  void Fill(int count, const std::string& text) {
    Json::Value request;
    for (int i = 0; i < count; ++i) {
      Json::Value command;
      command["command"] = "document_upsert_by_id";
      command["data"]["id"] = "a";
      command["data"]["doc_id"] = command["data"]["data"]["NIMOMDPath"] = "/v/" + std::to_string(i);
      command["data"]["data"]["NIMOMDTextContent"] = text;
      request["compound"].append(command);
    }
    const Json::Value answer = box_.Ask(request);
    ASSERT_FALSE(answer["has_fail"].asBool()) << JsonLine(answer);
    ASSERT_EQ(0, Code("commit", "{'id':'a'}"));
  }

  SearchBox box_;
};

TEST_F(SearchRefusals, DatabaseOfALaterVersionIs606AndLeftAlone) {
  Start();
  ChangeWhileClosed([](const std::string& folder) {
    ForeignConnection(folder).Exec("UPDATE meta SET value = 99 WHERE name = 'format'");
  });
  Code("index_resume", "{'id':'a'}");

  EXPECT_EQ("of a later version", State());
  const Json::Value refused = box_.Ask("commit", Object("{'id':'a'}"));
  EXPECT_EQ(606, refused["error"]["code"].asInt()) << JsonLine(refused);
  EXPECT_NE(std::string::npos, refused["error"]["msg"].asString().find("99")) << JsonLine(refused);
  EXPECT_EQ(606, Code("document_search", "{'id':'a','query':'x'}"));
  EXPECT_FALSE(box_.Ask("index_stat", Object("{'id':'a','check':true}"))["data"].isMember("checked"));
}

TEST_F(SearchRefusals, DatabaseThatIsBeingUpgradedIs607UntilItIsDone) {
  Start();
  box_.Stop();
  fs::copy(SEARCH_SAMPLES_DIR "/format1.sqlite", box_.volume() + "/a/index.sqlite",
           fs::copy_options::overwrite_existing);
  ForeignConnection other(box_.volume() + "/a");
  other.Exec("BEGIN IMMEDIATE");  // the upgrade waits for this to end
  box_.Start();
  ASSERT_TRUE(Eventually([&] { return State() == "upgrading"; })) << State();

  EXPECT_EQ(607, Code("commit", "{'id':'a'}"));
  EXPECT_EQ(607, Code("document_search", "{'id':'a','query':'pears'}"));
  const Json::Value compound = box_.Ask(Object("{'compound':[{'command':'commit','data':{'id':'a'}}]}"));
  EXPECT_EQ(607, compound["error"]["code"].asInt()) << JsonLine(compound);

  other.Exec("ROLLBACK");
  ASSERT_TRUE(Eventually([&] { return State() == "open"; })) << State();
  EXPECT_EQ(0, Code("commit", "{'id':'a'}"));
}

// The code of a change, and that of a compound request, while the index is being repaired; nothing if it was repaired
// before the answers came.
std::optional<std::pair<int, int>> SearchRefusals::CodesWhileRepairing(int documents) {
  Fill(documents, "heron " + std::string(300, 'y'));
  ChangeWhileClosed([](const std::string& folder) {
    std::string bytes = ReadFile(folder + "/index.sqlite");
    std::fill(bytes.begin() + 60'000, bytes.begin() + 64'000, '\x5a');
    WriteFile(folder + "/index.sqlite", bytes);
  });
  EXPECT_EQ(0, Code("index_resume", "{'id':'a'}"));
  box_.Ask("index_stat", Object("{'id':'a','check':true}"));  // if opening it has not found the damage

  const int change = Code("document_del_by_id", "{'id':'a','doc_id':'/v/1'}");
  const Json::Value compound = box_.Ask(Object("{'compound':[{'command':'commit','data':{'id':'a'}}]}"));
  const bool in_time = State() == "repairing";
  EXPECT_TRUE(Eventually([&] { return State() == "open"; })) << State();
  Code("commit", "{'id':'a'}");  // which may say that changes are lost
  return in_time ? std::optional(std::pair(change, compound["error"]["code"].asInt())) : std::nullopt;
}

TEST_F(SearchRefusals, IndexThatIsBeingRepairedIs609ForChanges) {
  Start();
  std::optional<std::pair<int, int>> codes;

  for (int documents = 5'000; !codes && documents <= 80'000; documents *= 2) {
    codes = CodesWhileRepairing(documents);
  }

  ASSERT_TRUE(codes) << "every repair was over before the answers";
  EXPECT_EQ(609, codes->first);
  EXPECT_EQ(609, codes->second);
}

TEST_F(SearchRefusals, DatabaseThatCannotBeRepairedIs1222UntilTheIndexIsMadeAnew) {
  Start();
  ASSERT_EQ(0, box_.Put("a", "/v/x", "one"));
  ChangeWhileClosed([](const std::string& folder) {
    WriteFile(folder + "/index.sqlite", std::string(ReadFile(folder + "/index.sqlite").size(), '\x5a'));
  });
  Code("index_resume", "{'id':'a'}");
  ASSERT_TRUE(Eventually([&] { return State() == "damaged"; })) << State();

  EXPECT_EQ(1222, Code("commit", "{'id':'a'}"));
  EXPECT_EQ(1222, box_.Put("a", "/v/y", "two"));
  EXPECT_EQ(1222, Code("document_search", "{'id':'a','query':'one'}"));
  const Json::Value compound = box_.Ask(Object("{'compound':[{'command':'commit','data':{'id':'a'}}]}"));
  EXPECT_EQ(1222, compound["error"]["code"].asInt()) << JsonLine(compound);

  EXPECT_EQ(0, Code("index_delete", "{'id':'a'}"));
  box_.CreateIndex("a");
  EXPECT_EQ(0, box_.Put("a", "/v/x", "one"));
  EXPECT_EQ(0, Code("commit", "{'id':'a'}"));
}

TEST_F(SearchRefusals, SearchOverItsTimeLimitIs1213) {
  Start();
  Fill(20'000, "heron");

  EXPECT_EQ(1213, Code("document_search", "{'id':'a','query':'NIMOMDFSName:absent folder:/v','time_limit_ms':1}"));
  EXPECT_EQ(0, Code("document_search", "{'id':'a','query':'NIMOMDFSName:absent folder:/v'}"));
}

TEST_F(SearchRefusals, AnswerOverItsBoundIs1207AndTheNextOneIsGiven) {
  Start({"--answer-limit-mib", "1"});
  Fill(3, "heron " + std::string(500 << 10, 'y'));
  const std::string all = "'query':{'qsl':{'match_all':{}}}";
  const std::string one = "'query':{'qsl':{'term':{'NIMOMDPath':'/v/1'}}}";
  const std::string text = "'load_field':['NIMOMDTextContent']";
  const std::string get = "{'command':'document_get_by_query','data':{'id':'a'," + text + "," + one + "}}";

  EXPECT_EQ(1207, Code("document_get_by_query", "{'id':'a'," + text + "," + all + "}"));
  EXPECT_EQ(1207, Code("document_search", "{'id':'a','query':'heron'," + text + "}"));
  const Json::Value compound = box_.Ask(Object("{'compound':[" + get + "," + get + "," + get + "]}"));
  EXPECT_FALSE(compound["success"].asBool());
  EXPECT_EQ(1207, compound["error"]["code"].asInt()) << JsonLine(compound);

  EXPECT_EQ(0, Code("document_get_by_query", "{'id':'a'," + text + "," + one + "}"));
  EXPECT_EQ(0, Code("document_search", "{'id':'a','query':'heron'}"));
  EXPECT_FALSE(box_.Ask(Object("{'compound':[" + get + "," + get + "]}"))["has_fail"].asBool());
}

TEST_F(SearchRefusals, CompoundRequestEndsWithTheCommandThatMakesItsAnswerTooLong) {
  Start({"--answer-limit-mib", "1"});
  Fill(1, "heron " + std::string(900 << 10, 'y'));
  const std::string get =
      "{'command':'document_get_by_query','data':{'id':'a','load_field':['NIMOMDTextContent'],"
      "'query':{'qsl':{'match_all':{}}}}}";
  const std::string del = "{'command':'document_del_by_id','data':{'id':'a','doc_id':'/v/0'}}";

  const Json::Value answer = box_.Ask(Object("{'compound':[" + get + "," + get + "," + del + "]}"));

  EXPECT_EQ(1207, answer["error"]["code"].asInt()) << JsonLine(answer);
  EXPECT_EQ(1U, box_.PathsBelow("a", "/v").size()) << "nothing more was gathered, so nothing more was done";
}

}  // namespace
}  // namespace orbisk::test
