// What the search daemon answers, command by command, and what becomes of whole indexes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "tests/support/private_mounts.h"
#include "tests/system/search_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using Paths = std::vector<std::string>;

class SearchCommands : public testing::Test {
 protected:
  void SetUp() override {
    box_.Start();
    box_.CreateIndex("a");
  }
  int Code(const std::string& command, const std::string& data) { return box_.CodeOf(command, Object(data)); }
  Json::Value Data(const std::string& command, const std::string& data) {
    return box_.Ask(command, Object(data))["data"];
  }
  std::string State(const std::string& id) { return Data("index_stat", "{'id':'" + id + "'}")["state"].asString(); }

  SearchBox box_;
};

TEST_F(SearchCommands, DocumentIsFoundByPathByWordAndByPrefixOfItsFolder) {
  ASSERT_EQ(0, box_.Put("a", "/v/s/x", "green apples"));
  ASSERT_EQ(0, Code("commit", "{'id':'a'}"));

  EXPECT_EQ(Paths{"/v/s/x"}, box_.PathsBelow("a", "/v/s"));
  EXPECT_EQ(1U, Data("document_get_by_query", "{'id':'a','query':{'qsl':{'term':{'NIMOMDPath':'/v/s/x'}}}}").size());
  const Json::Value found = Data("document_search", "{'id':'a','query':'apples'}");
  EXPECT_EQ(1, found["total"].asInt());
  EXPECT_EQ("/v/s/x", found["hits"][0]["path"].asString());
  EXPECT_NE(std::string::npos, found["hits"][0]["snippet"].asString().find("<b>apples</b>"));
}

TEST_F(SearchCommands, OrderedQuerySeesWhatIsNotCommittedAndASearchDoesNot) {
  ASSERT_EQ(0, box_.Put("a", "/v/x", "word"));

  EXPECT_EQ(1U, box_.PathsBelow("a", "/v").size());
  EXPECT_EQ(0, Data("document_search", "{'id':'a','query':'word'}")["total"].asInt());
  EXPECT_EQ(0U, Data("document_get_by_query", "{'id':'a','committed':true,'query':{'qsl':{'match_all':{}}}}").size());
}

TEST_F(SearchCommands, QueryWithALimitGivesTheFirstDocuments) {
  for (const char* const path : {"/v/c", "/v/a", "/v/b"}) {
    ASSERT_EQ(0, box_.Put("a", path, "word"));
  }
  const std::string query =
      "{'id':'a','load_field':['NIMOMDPath'],'query':{'qsl':{'range':{'NIMOMDPath':{'gt':'/v/a'}}}}";

  const Json::Value one = Data("document_get_by_query", query + ",'limit':1}");

  ASSERT_EQ(1U, one.size());
  EXPECT_EQ("/v/b", one[0]["NIMOMDPath"].asString());
  EXPECT_EQ(2U, Data("document_get_by_query", query + ",'limit':2}").size());
  EXPECT_EQ(2U, Data("document_get_by_query", query + ",'limit':3}").size());
  EXPECT_NE(0, Code("document_get_by_query", query + ",'limit':0}"));
}

TEST_F(SearchCommands, SetMovesADocumentAndTellsWhatItReplaced) {
  box_.Put("a", "/v/x", "one");
  box_.Put("a", "/v/y", "two");

  const Json::Value to_y = Data("document_set_by_id", "{'id':'a','doc_id':'/v/x','data':{'NIMOMDPath':'/v/y'}}");
  const Json::Value to_z = Data("document_set_by_id", "{'id':'a','doc_id':'/v/y','data':{'NIMOMDPath':'/v/z'}}");

  EXPECT_TRUE(to_y["replaced"].asBool());
  EXPECT_FALSE(to_z["replaced"].asBool());
  EXPECT_EQ(Paths{"/v/z"}, box_.PathsBelow("a", "/v"));
}

TEST_F(SearchCommands, DeletionsSayHowManyAndAMissingDocumentIsNoError) {
  box_.Put("a", "/v/d/x", "one");
  box_.Put("a", "/v/d/y", "two");
  box_.Put("a", "/v/dd", "three");

  EXPECT_EQ(
      2,
      Data("document_del_by_query", "{'id':'a','query':{'qsl':{'prefix':{'NIMOMDPath':'/v/d/'}}}}")["deleted"].asInt());
  EXPECT_EQ(1, Data("document_del_by_id", "{'id':'a','doc_id':'/v/dd'}")["deleted"].asInt());
  EXPECT_EQ(0, Data("document_del_by_id", "{'id':'a','doc_id':'/v/dd'}")["deleted"].asInt());
}

TEST_F(SearchCommands, EachRefusalHasItsCode) {
  EXPECT_EQ(1204, Code("commit", "{'id':'b'}"));
  EXPECT_EQ(1204, Code("index_delete", "{'id':'b'}"));
  EXPECT_EQ(1204, Code("document_search", "{'id':'b','query':'x'}"));
  EXPECT_EQ(1220, Code("index_create", "{'id':'a','path':'/x','mappings':{}}"));
  EXPECT_EQ(1202, Code("index_explode", "{'id':'a'}"));
  EXPECT_EQ(1203, Code("commit", "{}"));
  EXPECT_EQ(1203, Code("commit", "{'id':7}"));
  EXPECT_EQ(1203, Code("commit", "[]"));
  EXPECT_EQ(1203, Code("index_create", "{'id':'b','path':'relative','mappings':{}}"));
  EXPECT_EQ(1203, Code("document_upsert_by_id", "{'id':'a','doc_id':'/x'}"));
  EXPECT_EQ(1203, Code("document_search", "{'id':'a','query':'x','limit':-1}"));
  EXPECT_EQ(1203, Code("document_search", "{'id':'a','query':'x','sort':'taste'}"));
  EXPECT_EQ(1200, Code("document_set_by_id", "{'id':'a','doc_id':'/x','data':{}}"));
  EXPECT_EQ(1210, Code("document_upsert_by_id", "{'id':'a','doc_id':'/x','data':{'NIMOMDPath':7}}"));
  EXPECT_EQ(1211, Code("document_get_by_query", "{'id':'a','query':{'qsl':{'telepathy':{}}}}"));
  EXPECT_EQ(1212, Code("index_create", "{'id':'b','path':'" + box_.volume() + "/b','mappings':{'properties':7}}"));
  EXPECT_FALSE(fs::exists(box_.volume() + "/b"));
}

TEST_F(SearchCommands, TextThatIsNoRequestIsMalformed) {
  for (const char* text : {"", "rubbish", "[]", "7", "{", "{\"compound\":7}", "{\"command\":\"commit\"} x"}) {
    RawClient client(box_.socket());
    client.SendLength(strlen(text));
    client.Send(text);
    const std::optional<std::string> answer = client.ReceiveMessage();
    ASSERT_TRUE(answer) << text;
    EXPECT_NE(std::string::npos, answer->find("\"code\":1201")) << text << *answer;
  }
}

TEST_F(SearchCommands, CompoundRunsEachCommandAndTellsOfFailures) {
  box_.Put("a", "/v/x", "one");

  const Json::Value answer =
      box_.Ask(Object("{'compound':[{'command':'document_set_by_id','data':{'id':'a','doc_id':'/gone','data':{}}},"
                      "{'command':'document_set_by_id','data':{'id':'a','doc_id':'/v/x','data':{'NIMOMDPath':'/v/y'}}},"
                      "{'command':'nonsense','data':{}}]}"));

  EXPECT_TRUE(answer["success"].asBool());
  EXPECT_TRUE(answer["has_fail"].asBool());
  ASSERT_EQ(3U, answer["data"].size());
  EXPECT_EQ(1200, answer["data"][0]["error"]["code"].asInt());
  EXPECT_TRUE(answer["data"][1]["success"].asBool());
  EXPECT_EQ(1202, answer["data"][2]["error"]["code"].asInt());
  EXPECT_EQ(Paths{"/v/y"}, box_.PathsBelow("a", "/v"));
}

TEST_F(SearchCommands, CompoundOfNothingIsASuccess) {
  const Json::Value answer = box_.Ask(Object("{'compound':[]}"));

  EXPECT_EQ(Object("{'data':[],'has_fail':false,'success':true}"), answer);
}

TEST_F(SearchCommands, CompoundForAPausedIndexFailsAsAWhole) {
  Code("index_pause", "{'id':'a'}");

  const Json::Value answer =
      box_.Ask(Object("{'compound':[{'command':'document_del_by_id','data':{'id':'a','doc_id':'/x'}}]}"));

  EXPECT_FALSE(answer["success"].asBool());
  EXPECT_EQ(608, answer["error"]["code"].asInt());
}

TEST_F(SearchCommands, PausedIndexRefusesDocumentsAndKeepsThem) {
  box_.Put("a", "/v/x", "one");

  EXPECT_EQ(0, Code("index_pause", "{'id':'a'}"));
  EXPECT_EQ(0, Code("index_pause", "{'id':'a'}"));
  EXPECT_EQ(608, box_.Put("a", "/v/y", "two"));
  EXPECT_EQ(608, Code("commit", "{'id':'a'}"));
  EXPECT_EQ(608, Code("document_search", "{'id':'a','query':'one'}"));
  EXPECT_EQ("paused", State("a"));
  EXPECT_EQ(0, Code("index_resume", "{'id':'a'}"));
  EXPECT_EQ(0, Code("index_resume", "{'id':'a'}"));

  EXPECT_EQ("open", State("a"));
  EXPECT_EQ(Paths{"/v/x"}, box_.PathsBelow("a", "/v"));
}

TEST_F(SearchCommands, PauseOutlivesTheDaemon) {
  Code("index_pause", "{'id':'a'}");
  box_.Stop();
  box_.Start();

  EXPECT_EQ("paused", State("a"));
  EXPECT_EQ(608, Code("commit", "{'id':'a'}"));
}

TEST_F(SearchCommands, PausedIndexCanBeMovedRenamedAndDeleted) {
  box_.Put("a", "/v/x", "one");
  Code("index_pause", "{'id':'a'}");

  EXPECT_EQ(0, Code("index_config_set", "{'id':'a','data':{'id':'b','path':'" + box_.volume() + "/elsewhere'}}"));
  EXPECT_EQ("paused", State("b"));
  EXPECT_EQ(0, Code("index_resume", "{'id':'b'}"));
  EXPECT_EQ(Paths{"/v/x"}, box_.PathsBelow("b", "/v"));
  Code("index_pause", "{'id':'b'}");
  EXPECT_EQ(0, Code("index_delete", "{'id':'b'}"));
  EXPECT_FALSE(fs::exists(box_.volume() + "/elsewhere"));
}

TEST_F(SearchCommands, DeletedIndexLeavesNoFilesAndItsNameIsFree) {
  box_.Put("a", "/v/x", "one");

  EXPECT_EQ(0, Code("index_delete", "{'id':'a'}"));
  EXPECT_FALSE(fs::exists(box_.volume() + "/a"));
  box_.CreateIndex("a");
  EXPECT_TRUE(box_.PathsBelow("a", "/v").empty());
}

TEST_F(SearchCommands, IndexWhoseFolderWasRemovedCanBeDeletedAndCreated) {
  box_.Put("a", "/v/x", "one");
  fs::remove_all(box_.volume() + "/a");

  EXPECT_EQ(0, Code("index_delete", "{'id':'a'}"));
  box_.CreateIndex("a");
  EXPECT_EQ(0, box_.Put("a", "/v/x", "one"));
  EXPECT_EQ(0, Code("commit", "{'id':'a'}"));
}

TEST_F(SearchCommands, IndexWhoseVolumeIsMissingAtTheStartIsTriedAgainWithEachRequest) {
  box_.Put("a", "/v/x", "one");
  ASSERT_EQ(0, Code("commit", "{'id':'a'}"));
  box_.Stop();
  fs::rename(box_.volume(), box_.volume("away"));
  box_.Start();

  EXPECT_EQ(1221, box_.AskPatiently("commit", Object("{'id':'a'}"))["error"]["code"].asInt());
  EXPECT_EQ(1221, Code("document_search", "{'id':'a','query':'one'}"));
  EXPECT_EQ("absent", State("a"));
  EXPECT_FALSE(fs::exists(box_.volume() + "/a")) << "something else would be mounted over it";

  fs::remove_all(box_.volume());
  fs::rename(box_.volume("away"), box_.volume());
  EXPECT_EQ(1, Data("document_search", "{'id':'a','query':'one'}")["total"].asInt());
  EXPECT_EQ("open", State("a"));
}

TEST_F(SearchCommands, MoveAcrossFileSystemsTakesEverythingAlong) {
  fs::create_directories(box_.volume("other"));
  MountEmptyFileSystem(box_.volume("other"), size_t{64} << 20);
  box_.Put("a", "/v/x", "one");
  fs::create_directories(box_.volume("other") + "/deep");

  EXPECT_EQ(0, Code("index_config_set", "{'id':'a','data':{'path':'" + box_.volume("other") + "/deep/er/db'}}"));

  EXPECT_FALSE(fs::exists(box_.volume() + "/a"));
  EXPECT_EQ(Paths{"/v/x"}, box_.PathsBelow("a", "/v"));
  EXPECT_EQ(box_.volume("other") + "/deep/er/db", Data("index_stat", "{'id':'a'}")["path"].asString());
  box_.Stop();
  box_.Start();
  EXPECT_EQ(Paths{"/v/x"}, box_.PathsBelow("a", "/v"));
}

TEST_F(SearchCommands, MoveAcrossFileSystemsDoesNotForgetDamage) {
  fs::create_directories(box_.volume("other"));
  MountEmptyFileSystem(box_.volume("other"), size_t{64} << 20);
  box_.Put("a", "/v/x", "one");
  ASSERT_EQ(0, Code("index_pause", "{'id':'a'}"));
  WriteFile(box_.volume() + "/a/damaged", "");

  ASSERT_EQ(0, Code("index_config_set", "{'id':'a','data':{'path':'" + box_.volume("other") + "/db'}}"));

  EXPECT_TRUE(fs::exists(box_.volume("other") + "/db/damaged"));
  ASSERT_EQ(0, Code("index_resume", "{'id':'a'}"));
  EXPECT_EQ("open", State("a"));
  EXPECT_FALSE(fs::exists(box_.volume("other") + "/db/damaged"));
  EXPECT_EQ(Paths{"/v/x"}, box_.PathsBelow("a", "/v"));
  EXPECT_NE(std::string::npos, box_.Stop().errors.find("event=repair_ended"));
}

TEST_F(SearchCommands, MoveToAFullFileSystemChangesNothing) {
  fs::create_directories(box_.volume("small"));
  MountEmptyFileSystem(box_.volume("small"), 16384);
  box_.Put("a", "/v/x", std::string(100'000, 'x'));

  EXPECT_EQ(1206, Code("index_config_set", "{'id':'a','data':{'id':'b','path':'" + box_.volume("small") + "/db'}}"));

  EXPECT_EQ(Paths{"/v/x"}, box_.PathsBelow("a", "/v"));
  EXPECT_TRUE(fs::is_empty(box_.volume("small")));
  EXPECT_EQ(1204, Code("commit", "{'id':'b'}"));
}

TEST_F(SearchCommands, MoveToWhatAnotherIndexHasIsRefused) {
  box_.CreateIndex("b");

  EXPECT_EQ(1220, Code("index_config_set", "{'id':'a','data':{'id':'b'}}"));
  EXPECT_EQ(1205, Code("index_config_set", "{'id':'a','data':{'path':'" + box_.volume() + "/b/'}}"));
  EXPECT_EQ(1205, Code("index_create", "{'id':'c','mappings':{},'path':'" + box_.volume() + "/x/../b'}"));
  EXPECT_EQ(0, box_.Put("a", "/v/x", "one"));
}

TEST_F(SearchCommands, IdsAreBytes) {
  const std::string id = "fileindex_a \xff\"\\b";

  box_.CreateIndex(id);
  box_.Put(id, "/v/\xfe\n", "one");
  box_.Stop();
  box_.Start();

  EXPECT_EQ(id, box_.AskPatiently("index_list", Json::objectValue)["data"][1]["id"].asString());
}

TEST_F(SearchCommands, SuggestionsAreListedUntilBuilt) {
  box_.Put("a", "/v/x", "paragliding paragraph");
  Code("commit", "{'id':'a'}");
  ASSERT_EQ(Object("['a']"), Data("list_term_sugg_db", "{}")["unavail"]);

  const Json::Value built = box_.Ask(
      Object("{'compound':[{'command':'update_term_suggestion','data':{'doc_id_field':'/v/x','db_name':'a'}}]}"));
  Code("commit", "{'id':'a'}");

  EXPECT_FALSE(built["has_fail"].asBool());
  EXPECT_EQ(Object("[]"), Data("list_term_sugg_db", "{}")["unavail"]);
  EXPECT_EQ(Object("['paragliding','paragraph']"), Data("term_suggest", "{'id':'a','prefix':'para'}"));
}

TEST_F(SearchCommands, SearchOfAllIndexesMergesWhatItFinds) {
  box_.CreateIndex("b");
  box_.Put("a", "/v/1", "pear");
  box_.Put("b", "/v/2", "pear");
  box_.Put("a", "/v/3", "pear");
  Code("commit", "{'id':'a'}");
  Code("commit", "{'id':'b'}");

  const Json::Value all = Data("document_search", "{'query':'pear','sort':'path'}");
  const Json::Value second = Data("document_search", "{'query':'pear','sort':'path','offset':1,'limit':1}");
  const Json::Value last = Data("document_search", "{'id':['a','b'],'query':'pear','sort':'path','descending':true}");

  EXPECT_EQ(3, all["total"].asInt());
  ASSERT_EQ(3U, all["hits"].size());
  EXPECT_EQ("/v/1", all["hits"][0]["path"].asString());
  EXPECT_EQ("b", all["hits"][1]["id"].asString());
  ASSERT_EQ(1U, second["hits"].size());
  EXPECT_EQ("/v/2", second["hits"][0]["path"].asString());
  EXPECT_EQ("/v/3", last["hits"][0]["path"].asString());
}

TEST_F(SearchCommands, DamagedDatabaseIsRepairedFromTheDocumentsThatCanBeRead) {
  for (int i = 0; i < 300; ++i) {
    box_.Put("a", "/v/" + std::to_string(i), "word" + std::to_string(i) + std::string(500, 'y'));
  }
  // A paused index is closed, and all of it is in its database: in a log, damage is an early end of the log.
  ASSERT_EQ(0, Code("index_pause", "{'id':'a'}"));
  const std::string file = box_.volume() + "/a/index.sqlite";
  std::string bytes = ReadFile(file);
  ASSERT_GT(bytes.size(), 100'000U);
  std::fill(bytes.begin() + 60'000, bytes.begin() + 64'000, '\x5a');
  WriteFile(file, bytes);
  ASSERT_EQ(0, Code("index_resume", "{'id':'a'}"));

  const Json::Value checked = box_.AskPatiently("index_stat", Object("{'id':'a','check':true}"));
  ASSERT_TRUE(checked["success"].asBool()) << JsonLine(checked);
  EXPECT_TRUE(checked["data"]["checked"].asBool());
  EXPECT_TRUE(checked["data"]["repairing"].asBool());
  EXPECT_NE("", checked["data"]["problem"].asString());

  ASSERT_TRUE(Eventually([&] { return State("a") == "open" || State("a") == "damaged"; }));
  ASSERT_EQ("open", State("a"));
  EXPECT_FALSE(box_.PathsBelow("a", "/v").empty());
  EXPECT_EQ(0, box_.Put("a", "/v/new", "new"));
  EXPECT_EQ(1224, Code("commit", "{'id':'a'}")) << "whoever commits first is told of what may be lost";
  EXPECT_EQ(0, Code("commit", "{'id':'a'}"));
}

TEST_F(SearchCommands, DatabaseOfAnEarlierVersionIsUpgradedByTheStart) {
  box_.Stop();
  fs::copy(SEARCH_SAMPLES_DIR "/format1.sqlite", box_.volume() + "/a/index.sqlite",
           fs::copy_options::overwrite_existing);
  box_.Start();

  const Json::Value found = box_.AskPatiently("document_search", Object("{'id':'a','query':'pears'}"));

  EXPECT_EQ("/v/1", found["data"]["hits"][0]["path"].asString()) << JsonLine(found);
  EXPECT_EQ(0, Code("document_del_by_id", "{'id':'a','doc_id':'/v/1'}"));
  EXPECT_EQ(0, Code("commit", "{'id':'a'}"));
  EXPECT_NE(std::string::npos, box_.Stop().errors.find("event=index_upgraded"));
}

// Takes all room of a file system but a little.
void Fill(const std::string& file, std::uintmax_t but) {
  const std::uintmax_t room = fs::space(fs::path(file).parent_path()).available;
  WriteFile(file, std::string(room > but ? room - but : 0, 'x'));
}

TEST_F(SearchCommands, FullDiskFailsTheCommitKeepsTheLastStateAndIsOverWhenThereIsRoom) {
  const std::string volume = box_.volume("small");
  fs::create_directories(volume);
  MountEmptyFileSystem(volume, size_t{8} << 20);
  ASSERT_EQ(0, Code("index_config_set", "{'id':'a','data':{'path':'" + volume + "/db'}}"));
  ASSERT_EQ(0, box_.Put("a", "/v/kept", "kept"));
  ASSERT_EQ(0, Code("commit", "{'id':'a'}"));
  Fill(volume + "/ballast", 64 << 10);

  int put = 0;
  for (int i = 0; i < 200 && put == 0; ++i) {
    std::string text;
    for (int word = 0; word < 1'000; ++word) {
      text += std::to_string((i * 1'000 + word) * 7'919) + " ";
    }
    put = box_.Put("a", "/v/" + std::to_string(i), text);
  }
  const Json::Value committed = box_.Ask("commit", Object("{'id':'a'}"));

  EXPECT_TRUE(put == 0 || put == 1223) << put;
  EXPECT_EQ(1223, committed["error"]["code"].asInt()) << JsonLine(committed);
  EXPECT_NE(std::string::npos, committed["error"]["msg"].asString().find("full")) << JsonLine(committed);
  EXPECT_EQ(Paths{"/v/kept"}, box_.PathsBelow("a", "/v"));
  EXPECT_EQ(1, Data("document_search", "{'id':'a','query':'kept'}")["total"].asInt());

  fs::remove(volume + "/ballast");
  EXPECT_EQ(0, box_.Put("a", "/v/more", "more"));
  EXPECT_EQ(0, Code("commit", "{'id':'a'}"));
  EXPECT_EQ(1, Data("document_search", "{'id':'a','query':'more'}")["total"].asInt());
  const Json::Value stat = Data("index_stat", "{'id':'a','check':true}");
  EXPECT_TRUE(stat["checked"].asBool());
  EXPECT_EQ("", stat["problem"].asString());
}

}  // namespace
}  // namespace orbisk::test
