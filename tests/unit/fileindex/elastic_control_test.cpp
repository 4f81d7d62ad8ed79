// The commands to the search daemon, as they go over the channel.
#include "orbisk/fileindex/elastic_control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include "fileindex/index_schema.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/metadata_names.h"
#include "orbisk/json.h"
#include "tests/support/fake_box.h"
#include "tests/support/fake_content_extract.h"
#include "tests/support/fake_daemon_connection.h"
#include "tests/support/fake_share.h"
#include "tests/support/private_mounts.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/error_of.h"

namespace orbisk::fileindex::elastic {
namespace {

using orbisk::test::ErrorOf;
using orbisk::test::FakeConnections;
using orbisk::test::FakeContentExtract;
using orbisk::test::FakePlatform;
using orbisk::test::FakeQuota;
using orbisk::test::FakeShares;
using orbisk::test::RecordCapture;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(fromString(value, text)) << text;
  return value;
}

std::string Hits(const std::string& array) {
  return R"({"success":true,"data":)" + array + "}";
}

class ElasticControl : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    orbisk::test::EnterPrivateMounts({"/var/packages/Orbisk/etc", "/var/run", "/tmp"});
    orbisk::test::WriteFile("/var/run/nimoelasticd.sock", "");
  }

  ElasticControl() {
    FakeShares().Add("photo", "/volume1/photo");
    std::filesystem::remove("/var/packages/Orbisk/etc/fileindex.status");
  }

  static std::vector<Json::Value> Requests() {
    std::vector<Json::Value> requests;
    for (const std::string& text : FakeConnections().requests()) {
      requests.push_back(Parsed(text));
    }
    return requests;
  }
  static Json::Value OnlyRequest() {
    const auto requests = Requests();
    EXPECT_THAT(requests, SizeIs(1));
    return requests.empty() ? Json::Value() : requests.front();
  }

  const FakePlatform platform_;
  const RecordCapture log_;
};

TEST_F(ElasticControl, AnIndexIsCalledAfterItsShareAsItIs) {
  EXPECT_EQ("fileindex_photo", GetFileIndexID("photo"));
  EXPECT_EQ("fileindex_", GetFileIndexID(""));
  EXPECT_EQ("fileindex_My \xc3\xa9\xff Share", GetFileIndexID("My \xc3\xa9\xff Share"));
}

TEST_F(ElasticControl, TheSettingsAreAnEmptyObject) {
  EXPECT_EQ("{}", toString(GetFileIndexSettings()));
}

TEST_F(ElasticControl, TheEventHandlerNamesItsSharedObject) {
  EXPECT_EQ(R"({"lib_path":"/var/packages/Orbisk/target/handler/fileindex_event_handler.so"})",
            toString(GetFileIndexEventHandler()));
}

// One row of a field list kept beside this test: name, type, analyzer, required, _all, preprocess; "-" for the default.
Json::Value FieldOf(std::istream& row) {
  std::string type, analyzer, required, all, preprocess;
  std::getline(row, type, '\t');
  std::getline(row, analyzer, '\t');
  std::getline(row, required, '\t');
  std::getline(row, all, '\t');
  std::getline(row, preprocess, '\t');
  Json::Value field(Json::objectValue);
  if (type != "-")
    field["type"] = type;
  if (analyzer != "-")
    field["analyzer"] = analyzer;
  if (required != "-")
    field["required"] = required == "true";
  if (all != "-")
    field["_all"] = all == "true";
  if (preprocess != "-") {
    std::istringstream steps(preprocess);
    for (std::string step; std::getline(steps, step, ',');)
      field["preprocess"].append(step);
  }
  return field;
}

TEST_F(ElasticControl, TheMappingsHoldTheFieldsOfTheList) {
  const Json::Value mappings = GetFileIndexMappings();
  Json::Value expected(Json::objectValue);
  std::ifstream list(ORBISK_TEST_DATA "/index_fields.txt");
  for (std::string line; std::getline(list, line);) {
    std::istringstream row(line);
    std::string name;
    std::getline(row, name, '\t');
    expected[name] = FieldOf(row);
  }

  EXPECT_EQ(55U, mappings["properties"].size());
  EXPECT_EQ(expected, mappings["properties"]);
  EXPECT_EQ("NIMOMDPath", mappings["property_id"].asString());
  EXPECT_EQ(R"({"_all":true,"analyzer":"nimostandard","required":false,"stored":true,"type":"string"})",
            toString(mappings["default"]));
  EXPECT_EQ(3U, mappings.size());
  EXPECT_EQ("{}", toString(mappings["properties"]["NIMOMDKeywords"]));
}

TEST_F(ElasticControl, TheTextOfTheMappingsIsIndentedByTabsAndKeepsTheOrderOfTheList) {
  const std::string text = kIndexMappings;
  size_t at = 0;
  for (const char* const member : {"\n\t\"property_id\": ", "\n\t\"default\": ", "\n\t\"properties\": "}) {
    at = text.find(member, at);
    ASSERT_NE(std::string::npos, at) << member;
  }
  std::ifstream list(ORBISK_TEST_DATA "/index_fields.txt");
  for (std::string line; std::getline(list, line);) {
    const std::string member = "\n\t\t\"" + line.substr(0, line.find('\t')) + "\": {";
    at = text.find(member, at);
    ASSERT_NE(std::string::npos, at) << member;
  }
  EXPECT_EQ(std::string::npos, text.find("\n "));
}

TEST_F(ElasticControl, TheMetadataNamesAreThoseOfTheListInOrder) {
  std::vector<std::string> expected;
  std::ifstream list(ORBISK_TEST_DATA "/metadata_names.txt");
  for (std::string line; std::getline(list, line);) {
    expected.push_back(line);
  }

  EXPECT_EQ(138U, expected.size());
  EXPECT_EQ(expected, std::vector<std::string>(std::begin(kMetadataNames), std::end(kMetadataNames)));
  EXPECT_EQ(138U, std::set<std::string>(expected.begin(), expected.end()).size());
}

TEST_F(ElasticControl, OddSpellingsOfMetadataNamesAreKept) {
  EXPECT_STREQ("NIMOStateOrProvince", kMDStateOrProvince);
  EXPECT_STREQ("NIMOMDRecodingDate", kMDRecodingDate);
  EXPECT_STREQ("_NIMOMDUserTags", kMDUserTags);
  EXPECT_STREQ("_NIMOMDFinderLabel", kMDFinderLabel);
  EXPECT_STREQ("_NIMOMDGroupId", kMDGroupId);
}

TEST_F(ElasticControl, TheExtractorsWordsAreKept) {
  EXPECT_STREQ("nimocontentextractd", kContentExtractdName);
  EXPECT_STREQ("/var/run/nimocontentextractd.pid", kContentExtractdPidFile);
  EXPECT_STREQ("/tmp/nimoce_shm", kContentExtractdSharedMemory);
  EXPECT_STREQ("need_meta", kNeedMeta);
  EXPECT_STREQ("path", kPath);
  EXPECT_STREQ("pseudo_path", kPseudoPath);
}

TEST_F(ElasticControl, CreatingAnIndexSendsItsPathAndWholeSchema) {
  ShareIndexCreate("photo");

  Json::Value data = OnlyRequest()["data"];
  EXPECT_EQ("index_create", OnlyRequest()["command"].asString());
  EXPECT_EQ("fileindex_photo", data["id"].asString());
  EXPECT_EQ("/volume1/@fileindex/photo/db", data["path"].asString());
  EXPECT_EQ(GetFileIndexSettings(), data["settings"]);
  EXPECT_EQ(GetFileIndexMappings(), data["mappings"]);
  EXPECT_EQ(GetFileIndexEventHandler(), data["event_handler"]);
  EXPECT_EQ(5U, data.size());
}

TEST_F(ElasticControl, NothingIsSentForAMissingShare) {
  EXPECT_EQ("800 music", ErrorOf([] { ShareIndexCreate("music"); }));

  EXPECT_THAT(FakeConnections().connect.calls(), IsEmpty());
}

TEST_F(ElasticControl, AnIndexIsDeletedPausedAndResumedById) {
  ShareIndexDelete("a b");
  ShareIndexPause("photo");
  ShareIndexResume("photo");

  EXPECT_THAT(FakeConnections().requests(),
              ElementsAre(R"({"command":"index_delete","data":{"id":"fileindex_a b"}})",
                          R"({"command":"index_pause","data":{"id":"fileindex_photo"}})",
                          R"({"command":"index_resume","data":{"id":"fileindex_photo"}})"));
}

TEST_F(ElasticControl, ARenamedIndexHasItsNewIdInsideTheNewConfiguration) {
  ShareIndexRename("photo", "pic", "/volume1/@fileindex/pic/db");

  EXPECT_EQ(
      R"({"command":"index_config_set","data":{"data":{"id":"fileindex_pic","path":"/volume1/@fileindex/pic/db"},)"
      R"("id":"fileindex_photo"}})",
      toString(OnlyRequest()));
}

TEST_F(ElasticControl, AMovedIndexGetsThePathOfItsCaller) {
  ShareIndexMigrate("photo", "/volume2/db");

  EXPECT_EQ(R"({"command":"index_config_set","data":{"data":{"path":"/volume2/db"},"id":"fileindex_photo"}})",
            toString(OnlyRequest()));
}

TEST_F(ElasticControl, AnswersOfCommandsWithoutAResultAreNotLookedAt) {
  for (int i = 0; i < 11; ++i) {
    FakeConnections().Reply(R"({"success":true,"data":"whatever","has_fail":true})");
  }

  EXPECT_EQ("none", ErrorOf([] {
              ShareIndexCreate("photo");
              ShareIndexDelete("photo");
              ShareIndexPause("photo");
              ShareIndexResume("photo");
              ShareIndexRename("photo", "pic", "/db");
              ShareIndexMigrate("photo", "/db");
              IndexDel("photo", "/v/s/a");
              IndexDelDir("photo", "/v/s/a");
              IndexUpsert("photo", "/v/s/a", true);
              IndexCommit("photo");
              UpdateTermSuggestion("db", {"/v/s/a"});
            }));
}

TEST_F(ElasticControl, ADocumentIsDeletedByItsPath) {
  IndexDel("photo", "/volume1/photo/\xff.jpg");

  EXPECT_EQ(
      "{\"command\":\"document_del_by_id\",\"data\":{\"doc_id\":\"/volume1/photo/\xff.jpg\","
      "\"id\":\"fileindex_photo\"}}",
      FakeConnections().requests().at(0));
}

TEST_F(ElasticControl, ASubtreeIsWhatLiesBelowAndNotTheFolderItself) {
  IndexDelDir("photo", "/vol/share/a");

  EXPECT_EQ(R"({"command":"document_del_by_query","data":{"id":"fileindex_photo",)"
            R"("query":{"qsl":{"prefix":{"NIMOMDPath":"/vol/share/a/"}}}}})",
            toString(OnlyRequest()));
}

TEST_F(ElasticControl, AnUpsertSendsTheExtractorsDocumentWithTwoCopies) {
  FakeContentExtract().parse.Next([](const std::string&, const std::string&, Json::Value* document) {
    *document = Parsed(R"({"NIMOMDPath":"/v/s/a.txt","NIMOMDFSName":"a.txt","NIMOMDParent":"/v/s","NIMOMDFSSize":3})");
  });

  IndexUpsert("photo", "/v/s/a.txt", true);

  EXPECT_THAT(FakeContentExtract().parse.calls().at(0).arguments,
              ElementsAre("/v/s/a.txt", R"({"need_meta":true})", testing::_));
  EXPECT_EQ(R"({"command":"document_upsert_by_id","data":{"data":{"NIMOMDFSName":"a.txt","NIMOMDFSSize":3,)"
            R"("NIMOMDParent":"/v/s","NIMOMDPath":"/v/s/a.txt","NIMOMDSearchAncestor":"/v/s",)"
            R"("NIMOMDSearchFileName":"a.txt"},"doc_id":"/v/s/a.txt","id":"fileindex_photo"}})",
            toString(OnlyRequest()));
}

TEST_F(ElasticControl, TheCopiesOfFieldsThatTheExtractorLeftOutAreNull) {
  FakeContentExtract().parse.Next([](const std::string&, const std::string&, Json::Value*) {});

  IndexUpsert("photo", "/v/s/a", false);

  EXPECT_EQ(R"({"NIMOMDSearchAncestor":null,"NIMOMDSearchFileName":null})", toString(OnlyRequest()["data"]["data"]));
  EXPECT_EQ(R"({"need_meta":false})", FakeContentExtract().parse.calls().at(0).arguments.at(1));
}

TEST_F(ElasticControl, WhateverTheExtractorThrowsIsError914) {
  FakeContentExtract().parse.Next(
      [](const std::string&, const std::string&, Json::Value*) { throw std::runtime_error("x"); });
  FakeContentExtract().parse.Next([](const std::string&, const std::string&, Json::Value*) { throw 7; });
  FakeContentExtract().parse.Next(
      [](const std::string&, const std::string&, Json::Value*) { throw Error(Code(608), "x"); });
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ("914 Parse failed, path=/v/s/a", ErrorOf([] { IndexUpsert("photo", "/v/s/a", true); }));
  }

  EXPECT_THAT(FakeConnections().requests(), IsEmpty());
  EXPECT_THAT(log_.texts().back(), EndsWith("reason: Parse failed, path=/v/s/a"));
}

TEST_F(ElasticControl, ADocumentThatIsNoObjectIsError914) {
  FakeContentExtract().parse.Next(
      [](const std::string&, const std::string&, Json::Value* document) { *document = Parsed("[1]"); });

  EXPECT_EQ("914 Parse failed, path=/v/s/a", ErrorOf([] { IndexUpsert("photo", "/v/s/a", true); }));

  EXPECT_THAT(FakeConnections().requests(), IsEmpty());
}

TEST_F(ElasticControl, AttributesOfAFileThatCannotBeReadAreError914) {
  FakeConnections().Reply(Hits("[{}]"));
  FakeContentExtract().parse.FailAlways();

  EXPECT_EQ("914 Parse failed, path=/v/s/a", ErrorOf([] { IndexAttr("photo", "/v/s/a"); }));

  EXPECT_THAT(Requests(), SizeIs(1));
}

TEST_F(ElasticControl, AttributesAreSetWhereADocumentIs) {
  FakeConnections().Reply(Hits("[{}]"));

  IndexAttr("photo", "/v/s/a");

  const auto requests = Requests();
  ASSERT_THAT(requests, SizeIs(2));
  EXPECT_EQ(R"({"command":"document_get_by_query","data":{"id":"fileindex_photo",)"
            R"("query":{"qsl":{"term":{"NIMOMDPath":"/v/s/a"}}}}})",
            toString(requests[0]));
  EXPECT_EQ(R"({"command":"document_set_by_id","data":{"data":{"NIMOMDFSName":"a","NIMOMDParent":"/v/s",)"
            R"("NIMOMDPath":"/v/s/a","NIMOMDSearchAncestor":"/v/s","NIMOMDSearchFileName":"a"},)"
            R"("doc_id":"/v/s/a","id":"fileindex_photo"}})",
            toString(requests[1]));
  EXPECT_EQ(R"({"need_meta":false})", FakeContentExtract().parse.calls().at(0).arguments.at(1));
}

TEST_F(ElasticControl, AttributesOfWhatWasNeverIndexedAreRefusedUnread) {
  FakeConnections().Reply(Hits("[]"));

  EXPECT_EQ("917 ", ErrorOf([] { IndexAttr("photo", "/v/s/a"); }));

  EXPECT_THAT(FakeContentExtract().parse.calls(), IsEmpty());
  EXPECT_THAT(Requests(), SizeIs(1));
}

TEST_F(ElasticControl, AnAnswerWithoutDocumentsIsError916) {
  for (const char* const reply : {R"({"success":true})", R"({"success":true,"data":{}})"}) {
    for (int i = 0; i < 3; ++i) {
      FakeConnections().Reply(reply);
    }
    EXPECT_EQ("916 ", ErrorOf([] { IndexAttr("photo", "/v/s/a"); }));
    EXPECT_THAT(log_.texts().back(), HasSubstr("(IsDocumentExists) Failed [!res.isMember(\"data\") || "
                                               "!res[\"data\"].isArray()]"));
    EXPECT_EQ("916 ", ErrorOf([] { IndexRename("photo", "/v/s/b", "/v/s/a"); }));
    std::vector<std::string> paths;
    EXPECT_EQ("916 ", ErrorOf([&] { IndexGetByPrefixPath("i", "/v/s", paths); }));
    EXPECT_THAT(log_.texts().back(), HasSubstr("(IndexGetByPrefixPath) Failed [!res.isMember(\"data\")"));
  }
}

TEST_F(ElasticControl, AnAnswerWithoutTheDocumentsBelowIsError916AndTheRenameHasBeen) {
  for (const char* const reply : {R"({"success":true})", R"({"success":true,"data":{}})"}) {
    const size_t sent = Requests().size();
    FakeConnections().Reply(Hits("[{}]"));
    FakeConnections().Reply(R"({"success":true})");
    FakeConnections().Reply(reply);

    EXPECT_EQ("916 ", ErrorOf([] { IndexRename("photo", "/v/s/b", "/v/s/a"); }));

    EXPECT_THAT(log_.texts().back(),
                HasSubstr("(IndexRename) Failed [!res.isMember(\"data\") || !res[\"data\"].isArray()]"));
    EXPECT_THAT(Requests(), SizeIs(sent + 3));
  }
}

TEST_F(ElasticControl, ARenameMovesTheDocumentAndThenAllBelowIt) {
  FakeConnections().Reply(Hits("[{}]"));
  FakeConnections().Reply(R"({"success":true})");
  FakeConnections().Reply(Hits(R"([{"NIMOMDPath":"/v/s/a/c/f","NIMOMDFSName":"f","NIMOMDParent":"/v/s/a/c"},
                                   {"NIMOMDPath":"/v/s/a/g","NIMOMDFSName":"g","NIMOMDParent":"/v/s/a"}])"));

  IndexRename("photo", "/v/s/New.TXT", "/v/s/a");

  const auto requests = Requests();
  ASSERT_THAT(requests, SizeIs(4));
  EXPECT_EQ(R"({"command":"document_set_by_id","data":{"data":{"NIMOMDDisplayName":"New.TXT","NIMOMDExtension":"txt",)"
            R"("NIMOMDFSName":"New.TXT","NIMOMDKind":"txt","NIMOMDParent":"/v/s","NIMOMDPath":"/v/s/New.TXT",)"
            R"("NIMOMDSearchAncestor":"/v/s","NIMOMDSearchFileName":"New.TXT"},"doc_id":"/v/s/a",)"
            R"("id":"fileindex_photo"}})",
            toString(requests[1]));
  EXPECT_EQ(R"({"command":"document_get_by_query","data":{"id":"fileindex_photo",)"
            R"("load_field":["NIMOMDPath","NIMOMDFSName","NIMOMDParent"],)"
            R"("query":{"qsl":{"prefix":{"NIMOMDPath":"/v/s/a/"}}}}})",
            toString(requests[2]));
  EXPECT_EQ(R"({"compound":[{"command":"document_set_by_id","data":{"data":{"NIMOMDParent":"/v/s/New.TXT/c",)"
            R"("NIMOMDPath":"/v/s/New.TXT/c/f","NIMOMDSearchAncestor":"/v/s/New.TXT/c"},"doc_id":"/v/s/a/c/f",)"
            R"("id":"fileindex_photo"}},{"command":"document_set_by_id","data":{"data":{)"
            R"("NIMOMDParent":"/v/s/New.TXT","NIMOMDPath":"/v/s/New.TXT/g","NIMOMDSearchAncestor":"/v/s/New.TXT"},)"
            R"("doc_id":"/v/s/a/g","id":"fileindex_photo"}}]})",
            toString(requests[3]));
}

TEST_F(ElasticControl, TheParentsFirstBytesAreReplacedUnchecked) {
  FakeConnections().Reply(Hits("[{}]"));
  FakeConnections().Reply(R"({"success":true})");
  FakeConnections().Reply(Hits(R"([{"NIMOMDPath":"p","NIMOMDFSName":"f","NIMOMDParent":"/other/c"},
                                   {"NIMOMDPath":"q","NIMOMDFSName":"g","NIMOMDParent":"/x"}])"));

  IndexRename("photo", "/v/s/b", "/v/s/a");

  const Json::Value compound = Requests().at(3)["compound"];
  EXPECT_EQ("/v/s/b/c", compound[0]["data"]["data"]["NIMOMDParent"].asString());
  EXPECT_EQ("/v/s/b/g", compound[1]["data"]["data"]["NIMOMDPath"].asString());
}

TEST_F(ElasticControl, TheCompoundOfARenamedLeafIsSentEmpty) {
  FakeConnections().Reply(Hits("[{}]"));
  FakeConnections().Reply(R"({"success":true})");
  FakeConnections().Reply(Hits("[]"));

  IndexRename("photo", "/v/s/b", "/v/s/a");

  EXPECT_EQ(R"({"compound":[]})", FakeConnections().requests().at(3));
}

TEST_F(ElasticControl, ANameWithoutADotHasAnEmptyExtensionAndAHiddenOneIsAllExtension) {
  for (const auto& [name, extension] : {std::pair("/v/s/b", ""), std::pair("/v/s.d/.BashRC", "bashrc")}) {
    const size_t sent = Requests().size();
    FakeConnections().Reply(Hits("[{}]"));
    FakeConnections().Reply(R"({"success":true})");
    FakeConnections().Reply(Hits("[]"));

    IndexRename("photo", name, "/v/s/a.txt");

    const Json::Value fields = Requests().at(sent + 1)["data"]["data"];
    EXPECT_EQ(extension, fields["NIMOMDExtension"].asString());
    EXPECT_EQ(extension, fields["NIMOMDKind"].asString());
  }
}

TEST_F(ElasticControl, ARenameOfWhatWasNeverIndexedIsError917) {
  FakeConnections().Reply(Hits("[]"));

  EXPECT_EQ("917 ", ErrorOf([] { IndexRename("photo", "/v/s/b", "/v/s/a"); }));

  EXPECT_THAT(Requests(), SizeIs(1));
}

TEST_F(ElasticControl, AHitWithoutNameOrParentFailsBeforeTheCompound) {
  for (const char* const hit : {R"({"NIMOMDPath":"p","NIMOMDParent":"/v"})", R"({"NIMOMDPath":"p","NIMOMDFSName":"f"})",
                                R"({"NIMOMDPath":"p","NIMOMDParent":["/v"],"NIMOMDFSName":"f"})",
                                R"({"NIMOMDParent":"/v","NIMOMDFSName":"f"})", "7"}) {
    const size_t sent = Requests().size();
    FakeConnections().Reply(Hits("[{}]"));
    FakeConnections().Reply(R"({"success":true})");
    FakeConnections().Reply(Hits(std::string("[") + hit + "]"));
    EXPECT_THAT(ErrorOf([] { IndexRename("photo", "/v/s/b", "/v/s/a"); }), StartsWith("120 "));
    ASSERT_THAT(Requests(), SizeIs(sent + 3));
    EXPECT_EQ("document_set_by_id", Requests()[sent + 1]["command"].asString());
  }
}

TEST_F(ElasticControl, PathsBelowAFolderAreAppendedInOrder) {
  FakeConnections().Reply(Hits(R"([{"NIMOMDPath":"/v/s/b"},{"NIMOMDPath":"/v/s/a"}])"));
  std::vector<std::string> paths = {"kept"};

  IndexGetByPrefixPath("any id", "/v/s", paths);

  EXPECT_THAT(paths, ElementsAre("kept", "/v/s/b", "/v/s/a"));
  EXPECT_EQ(R"({"command":"document_get_by_query","data":{"id":"any id","load_field":["NIMOMDPath"],)"
            R"("query":{"qsl":{"prefix":{"NIMOMDPath":"/v/s/"}}}}})",
            toString(OnlyRequest()));
}

TEST_F(ElasticControl, ADocumentWithoutAPathIsError120BehindThePathsBeforeIt) {
  FakeConnections().Reply(Hits(R"([{"NIMOMDPath":"/v/s/b"},{}])"));
  std::vector<std::string> paths;

  EXPECT_THAT(ErrorOf([&] { IndexGetByPrefixPath("i", "/v/s", paths); }), StartsWith("120 Missing property"));

  EXPECT_THAT(paths, ElementsAre("/v/s/b"));
}

TEST_F(ElasticControl, ACommitNamesTheIndex) {
  IndexCommit("photo");

  EXPECT_EQ(R"({"command":"commit","data":{"id":"fileindex_photo"}})", toString(OnlyRequest()));
}

TEST_F(ElasticControl, ACommitThatSucceedsDoesNotLookAtTheShare) {
  EXPECT_EQ("none", ErrorOf([] { IndexCommit("music"); }));

  EXPECT_THAT(FakeShares().get.calls(), IsEmpty());
}

TEST_F(ElasticControl, ACommitsOtherExceptionsPassOnAFullVolumeToo) {
  FakeConnections().send.Next([](const std::string&) -> bool { throw std::runtime_error("x"); });
  FakeQuota().FailAlways(NIMO_ERR_VOLUME_FULL);

  EXPECT_THROW(IndexCommit("photo"), std::runtime_error);

  EXPECT_FALSE(std::filesystem::exists("/var/packages/Orbisk/etc/fileindex.status"));
}

TEST_F(ElasticControl, TheDaemonsRefusalsComeThroughUnchanged) {
  const std::vector<std::function<void()>> operations = {
      [] { ShareIndexCreate("photo"); },
      [] { ShareIndexDelete("photo"); },
      [] { ShareIndexPause("photo"); },
      [] { ShareIndexResume("photo"); },
      [] { ShareIndexRename("photo", "pic", "/db"); },
      [] { ShareIndexMigrate("photo", "/db"); },
      [] { IndexDel("photo", "/v/s/a"); },
      [] { IndexDelDir("photo", "/v/s/a"); },
      [] { IndexUpsert("photo", "/v/s/a", true); },
      [] { IndexAttr("photo", "/v/s/a"); },
      [] { IndexRename("photo", "/v/s/b", "/v/s/a"); },
      [] {
        std::vector<std::string> paths;
        IndexGetByPrefixPath("i", "/v/s", paths);
      },
      [] { IndexCommit("photo"); },
      [] {
        std::vector<std::string> dbs;
        ListUnAvailTermSuggDB(dbs);
      },
      [] { UpdateTermSuggestion("db", {}); },
  };
  for (const auto& operation : operations) {
    FakeConnections().Reply(R"({"success":false,"error":{"code":1299,"msg":"m"}})");
    EXPECT_EQ("1299 Request failed, msg=m", ErrorOf(operation));
  }

  EXPECT_THAT(Requests(), SizeIs(operations.size()));
}

TEST_F(ElasticControl, AFailedCommitWithRoomLeftIsTheDaemonsError) {
  FakeConnections().Reply(R"({"success":false,"error":{"code":608,"msg":"paused"}})");

  EXPECT_EQ("608 Request failed, msg=paused", ErrorOf([] { IndexCommit("photo"); }));

  EXPECT_FALSE(std::filesystem::exists("/var/packages/Orbisk/etc/fileindex.status"));
}

TEST_F(ElasticControl, AFailedCommitOnAFullVolumeAsksForAReindex) {
  FakeConnections().Reply(R"({"success":false,"error":{"code":608,"msg":"paused"}})");
  FakeQuota().FailAlways(NIMO_ERR_VOLUME_FULL);

  EXPECT_EQ("1003 Share (photo) space not enough", ErrorOf([] { IndexCommit("photo"); }));

  EXPECT_EQ(R"({"share":{"photo":1}})", orbisk::test::ReadFile("/var/packages/Orbisk/etc/fileindex.status"));
  EXPECT_THAT(log_.texts().back(), HasSubstr("reason: Share (photo) space not enough"));
}

TEST_F(ElasticControl, AFailedCommitOfAMissingShareFailsAsTheShareDoes) {
  FakeConnections().Reply(R"({"success":false,"error":{"code":608,"msg":"paused"}})");

  EXPECT_EQ("800 music", ErrorOf([] { IndexCommit("music"); }));
}

TEST_F(ElasticControl, UnavailableSuggestionDatabasesAreAppended) {
  FakeConnections().Reply(R"({"success":true,"data":{"unavail":["a","b"]}})");
  std::vector<std::string> dbs = {"kept"};

  ListUnAvailTermSuggDB(dbs);

  EXPECT_THAT(dbs, ElementsAre("kept", "a", "b"));
  EXPECT_EQ(R"({"command":"list_term_sugg_db","data":{}})", toString(OnlyRequest()));
}

TEST_F(ElasticControl, ANumberIsASuggestionDatabaseInDigits) {
  FakeConnections().Reply(R"({"success":true,"data":{"unavail":[7]}})");
  std::vector<std::string> dbs;

  ListUnAvailTermSuggDB(dbs);

  EXPECT_THAT(dbs, ElementsAre("7"));
}

TEST_F(ElasticControl, AnAnswerWithoutSuggestionDatabasesIsError916) {
  for (const char* const reply :
       {R"({"success":true})", R"({"success":true,"data":[]})", R"({"success":true,"data":{"unavail":{}}})",
        R"({"success":true,"data":{"unavail":[[]]}})"}) {
    FakeConnections().Reply(reply);
    std::vector<std::string> dbs;
    EXPECT_EQ("916 ", ErrorOf([&] { ListUnAvailTermSuggDB(dbs); })) << reply;
  }
}

TEST_F(ElasticControl, SuggestionsAreUpdatedInOneRequest) {
  UpdateTermSuggestion("db", {"/v/s/a", "/v/s/b"});

  EXPECT_EQ(R"({"compound":[{"command":"update_term_suggestion","data":{"db_name":"db","doc_id_field":"/v/s/a"}},)"
            R"({"command":"update_term_suggestion","data":{"db_name":"db","doc_id_field":"/v/s/b"}}]})",
            toString(OnlyRequest()));
}

TEST_F(ElasticControl, NoDocumentsForSuggestionsAreSentAsAnEmptyCompound) {
  UpdateTermSuggestion("db", {});

  EXPECT_EQ(R"({"compound":[]})", FakeConnections().requests().at(0));
}

}  // namespace
}  // namespace orbisk::fileindex::elastic
