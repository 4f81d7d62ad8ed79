// Documents: storing, changing, moving, deleting, and what a failure leaves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/search/engine_support.h"

namespace search::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string MessageOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& error) {
    return error.what();
  }
  return "";
}

TEST(DocumentTest, ComesBackAsItWentIn) {
  Fixture fixture;
  Json::Value document = Document("/v/a.txt", "some text");
  document["NIMOMDFSSize"] = Json::Int64{9'000'000'000};
  document["NIMOMDIsDir"] = false;
  document["NIMOMDDurationSecond"] = 1.5;
  document["NIMOMDKeywords"] = Json_("['one', 'two']");
  document["NIMOMDDisplayName"] = Json_("{'unknown': [1, null, true]}");

  fixture.index->Upsert("/v/a.txt", document);

  EXPECT_EQ(Fields(*fixture.index, "/v/a.txt", document.getMemberNames()), document);
}

TEST(DocumentTest, IsOnlySeenByOthersAfterCommit) {
  Fixture fixture;
  fixture.Put("/v/a.txt", "word");

  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}", View::kLatest), ElementsAre("/v/a.txt"));
  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}", View::kCommitted), IsEmpty());
  EXPECT_THAT(Find(*fixture.index, "word"), IsEmpty());
  EXPECT_TRUE(fixture.index->HasUncommitted());

  fixture.index->Commit();

  EXPECT_THAT(Find(*fixture.index, "word"), ElementsAre("/v/a.txt"));
  EXPECT_FALSE(fixture.index->HasUncommitted());
}

TEST(DocumentTest, IsReplacedByAnUpsertOfItsPath) {
  Fixture fixture;
  fixture.Put("/v/a.txt", "first");
  fixture.Put("/v/a.txt", "second");
  fixture.index->Commit();

  EXPECT_THAT(Find(*fixture.index, "first"), IsEmpty());
  EXPECT_THAT(Find(*fixture.index, "second"), ElementsAre("/v/a.txt"));
  EXPECT_EQ(fixture.index->Stat(true).documents, 1);
  EXPECT_EQ(fixture.index->Stat(true).problem, "");
}

TEST(DocumentTest, UpsertOfAnIdWithAnotherPathLeavesTheDocumentAtThatPathAlone) {
  Fixture fixture;
  fixture.Put("/v/old", "first");
  fixture.Put("/v/new", "second");

  fixture.index->Upsert("/v/old", Document("/v/new", "third"));
  fixture.index->Commit();

  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}"), ElementsAre("/v/new"));
  EXPECT_THAT(Find(*fixture.index, "first OR second"), IsEmpty());
  EXPECT_THAT(Find(*fixture.index, "third"), ElementsAre("/v/new"));
}

TEST(DocumentTest, NullMembersAreAbsent) {
  Fixture fixture;
  Json::Value document = Document("/v/a", "text");
  document["NIMOMDSearchAncestor"] = Json::Value();
  document["NIMOMDTitle"] = Json::Value();
  document["NIMOMDUnknown"] = Json::Value();

  fixture.index->Upsert("/v/a", document);

  const Json::Value fields =
      Fields(*fixture.index, "/v/a", {"NIMOMDSearchAncestor", "NIMOMDTitle", "NIMOMDUnknown", "NIMOMDPath"});
  EXPECT_EQ(fields, Json_("{'NIMOMDPath': '/v/a'}"));
}

TEST(DocumentTest, OfAWrongTypeIsRefusedWithTheFieldsName) {
  Fixture fixture;
  const char* wrong[] = {
      "{'NIMOMDFSSize': 'big'}",  "{'NIMOMDFSSize': 1.5}",   "{'NIMOMDFSSize': true}",
      "{'NIMOMDIsDir': 1}",       "{'NIMOMDIsDir': 'true'}", "{'NIMOMDDurationSecond': '1'}",
      "{'NIMOMDTitle': 1}",       "{'NIMOMDTitle': [1]}",    "{'NIMOMDTitle': {}}",
      "{'NIMOMDFSName': 5}",      "{'NIMOMDFSName': ['a']}", "{'NIMOMDFSSize': 18446744073709551615}",
      "{'NIMOMDPath': ['/v/a']}", "{'NIMOMDPath': ''}",      "{'NIMOMDPath': null}",
  };
  for (const char* text : wrong) {
    Json::Value document = Document("/v/a");
    const Json::Value members = Json_(text);
    const std::string name = members.getMemberNames().front();
    document[name] = members[name];
    const auto upsert = [&] { fixture.index->Upsert("/v/a", document); };
    EXPECT_EQ(CodeOf(upsert), ErrorCode::kBadDocument) << text;
    EXPECT_THAT(MessageOf(upsert), HasSubstr(name)) << text;
  }
  EXPECT_EQ(CodeOf([&] { fixture.index->Upsert("/v/a", Json_("{'NIMOMDFSName': 'a'}")); }), ErrorCode::kBadDocument);
  EXPECT_EQ(CodeOf([&] { fixture.index->Upsert("/v/a", Json_("[]")); }), ErrorCode::kBadDocument);
  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}"), IsEmpty());
}

TEST(DocumentTest, IsReadAsItStandsWhateverBytesItBeginsWith) {
  Fixture fixture;
  // What the full text is told itself begins with such bytes.
  for (char mode = 1; mode < 16; ++mode) {
    fixture.Put("/v/" + std::to_string(mode), std::string(1, mode) + "0 falcon");
  }
  fixture.index->Commit();

  EXPECT_EQ(Find(*fixture.index, "falcon").size(), 15U);
  EXPECT_EQ(fixture.index->Stat(true).problem, "");
}

TEST(DocumentTest, OverItsBoundIsRefusedAlone) {
  OpenOptions options;
  options.max_document_bytes = 1000;
  Fixture fixture(Json::objectValue, options);
  fixture.Put("/v/small", "x");

  EXPECT_EQ(CodeOf([&] { fixture.Put("/v/large", std::string(2000, 'x')); }), ErrorCode::kTooMuchMemory);

  fixture.index->Commit();
  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}"), ElementsAre("/v/small"));
}

TEST(DocumentTest, SetChangesMembersAndLeavesOthers) {
  Fixture fixture;
  Json::Value document = Document("/v/a.txt", "the text");
  document["NIMOMDOther"] = "kept";
  fixture.index->Upsert("/v/a.txt", document);

  fixture.index->Set("/v/a.txt", Json_("{'NIMOMDFSSize': 7, 'NIMOMDTitle': 'Heading', 'NIMOMDExtension': null}"));
  fixture.index->Commit();

  EXPECT_EQ(Fields(*fixture.index, "/v/a.txt",
                   {"NIMOMDFSSize", "NIMOMDTitle", "NIMOMDExtension", "NIMOMDTextContent", "NIMOMDOther"}),
            Json_("{'NIMOMDFSSize': 7, 'NIMOMDTitle': 'Heading', 'NIMOMDTextContent': 'the text',"
                  " 'NIMOMDOther': 'kept'}"));
  EXPECT_THAT(Find(*fixture.index, "title:heading text"), ElementsAre("/v/a.txt"));
}

TEST(DocumentTest, SetOfAMissingIdIs1200) {
  Fixture fixture;
  EXPECT_EQ(CodeOf([&] { fixture.index->Set("/v/none", Json_("{}")); }), ErrorCode::kNoSuchDocument);
  EXPECT_EQ(static_cast<int>(ErrorCode::kNoSuchDocument), 1200);
}

TEST(DocumentTest, SetOfAWrongTypeChangesNothing) {
  Fixture fixture;
  fixture.Put("/v/a");

  EXPECT_EQ(CodeOf([&] { fixture.index->Set("/v/a", Json_("{'NIMOMDPath': '/v/b', 'NIMOMDIsDir': 3}")); }),
            ErrorCode::kBadDocument);

  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}"), ElementsAre("/v/a"));
}

TEST(DocumentTest, IsMovedBySettingItsPath) {
  Fixture fixture;
  fixture.Put("/v/old/name.txt", "content stays");

  const SetResult result =
      fixture.index->Set("/v/old/name.txt", Json_("{'NIMOMDPath': '/v/new/name.txt', 'NIMOMDParent': '/v/new'}"));
  fixture.index->Commit();

  EXPECT_FALSE(result.replaced);
  EXPECT_THAT(Find(*fixture.index, "content"), ElementsAre("/v/new/name.txt"));
  EXPECT_EQ(CodeOf([&] { fixture.index->Set("/v/old/name.txt", Json_("{}")); }), ErrorCode::kNoSuchDocument);
}

TEST(DocumentTest, MovedOntoAnotherReplacesIt) {
  Fixture fixture;
  fixture.Put("/v/a.txt", "mover");
  fixture.Put("/v/b.txt", "target");

  const SetResult result =
      fixture.index->Set("/v/a.txt", Json_("{'NIMOMDPath': '/v/b.txt', 'NIMOMDSearchFileName': 'b.txt'}"));
  fixture.index->Commit();

  EXPECT_TRUE(result.replaced);
  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}"), ElementsAre("/v/b.txt"));
  EXPECT_THAT(Find(*fixture.index, "mover"), ElementsAre("/v/b.txt"));
  EXPECT_THAT(Find(*fixture.index, "target"), IsEmpty());
  EXPECT_EQ(fixture.index->Stat(true).problem, "");
}

TEST(DocumentTest, SetToItsOwnPathReplacesNothing) {
  Fixture fixture;
  fixture.Put("/v/a.txt", "x");

  EXPECT_FALSE(fixture.index->Set("/v/a.txt", Json_("{'NIMOMDPath': '/v/a.txt'}")).replaced);

  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}"), ElementsAre("/v/a.txt"));
}

TEST(DocumentTest, RenamedIsFoundByItsNewNameOnly) {
  Fixture fixture;
  fixture.Put("/v/before.txt", "text");

  fixture.index->Set("/v/before.txt", Json_("{'NIMOMDPath': '/v/after.txt', 'NIMOMDSearchFileName': 'after.txt'}"));
  fixture.index->Commit();

  EXPECT_THAT(Find(*fixture.index, "efor"), IsEmpty());
  EXPECT_THAT(Find(*fixture.index, "fter"), ElementsAre("/v/after.txt"));
  EXPECT_THAT(Find(*fixture.index, "text"), ElementsAre("/v/after.txt"));
}

TEST(DocumentTest, DeletedIsFoundNoMore) {
  Fixture fixture;
  fixture.Put("/v/a", "word");

  EXPECT_TRUE(fixture.index->Delete("/v/a"));
  EXPECT_FALSE(fixture.index->Delete("/v/a"));
  fixture.index->Commit();

  EXPECT_THAT(Find(*fixture.index, "word"), IsEmpty());
}

TEST(DocumentTest, DeleteOfASubtreeLeavesTheFolderAndItsSiblings) {
  Fixture fixture;
  for (const char* path : {"/v/a", "/v/a/x", "/v/a/y/z", "/v/ab", "/v/a.txt", "/v/a0"}) {
    fixture.Put(path);
  }

  EXPECT_EQ(fixture.index->DeleteByQuery(Json_("{'qsl': {'prefix': {'NIMOMDPath': '/v/a/'}}}")), 2);

  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}"), ElementsAre("/v/a", "/v/a.txt", "/v/a0", "/v/ab"));
}

TEST(DocumentTest, UncommittedIsGivenUpAtClose) {
  Fixture fixture;
  fixture.Put("/v/a", "one");
  fixture.index->Commit();
  fixture.Put("/v/b", "two");

  fixture.Reopen();

  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}"), ElementsAre("/v/a"));
}

TEST(DocumentTest, WithoutNamedFieldsComesWithThoseThatNeedNoText) {
  Fixture fixture;
  Json::Value document = Document("/v/a.txt", "long");
  document["NIMOMDOther"] = 5;
  fixture.index->Upsert("/v/a.txt", document);
  Json::Value hit;

  fixture.index->Get(Json_("{'qsl': {'match_all': {}}}"), std::nullopt, [&](Json::Value&& found) { hit = found; });

  EXPECT_EQ(hit["NIMOMDFSName"], "a.txt");
  EXPECT_EQ(hit["NIMOMDOther"], 5);
  EXPECT_FALSE(hit.isMember("NIMOMDTextContent"));
}

TEST(NameBytesTest, EveryByteInANameIsStoredFoundAndReturned) {
  Fixture fixture;
  std::vector<std::string> paths;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/') {
      paths.push_back(std::string("/v/x") + static_cast<char>(byte) + "y");
      fixture.Put(paths.back());
    }
  }
  fixture.index->Commit();

  EXPECT_EQ(Get(*fixture.index, "{'prefix': {'NIMOMDPath': '/v/'}}"), paths);
  for (const std::string& path : paths) {
    const Json::Value fields = Fields(*fixture.index, path, {"NIMOMDPath", "NIMOMDFSName", "NIMOMDSearchFileName"});
    EXPECT_EQ(fields["NIMOMDPath"].asString(), path);
    EXPECT_EQ(fields["NIMOMDFSName"].asString(), path.substr(3));
    EXPECT_EQ(fields["NIMOMDSearchFileName"].asString(), path.substr(3));
  }
}

TEST(NameBytesTest, LongNamesAndPathsAreWhole) {
  Fixture fixture;
  const std::string name(255, 'n');
  std::string path = "/v";
  while (path.size() + 256 < 4096) {
    path += "/" + name;
  }
  path += "/" + std::string(4095 - path.size(), '\n');
  fixture.Put(path, "deep");
  fixture.Put("/v/" + std::string(254, 'm') + "\xff", "wide");
  fixture.index->Commit();

  EXPECT_THAT(Find(*fixture.index, "deep"), ElementsAre(path));
  EXPECT_THAT(Find(*fixture.index, "wide"), ElementsAre("/v/" + std::string(254, 'm') + "\xff"));
  EXPECT_THAT(Find(*fixture.index, std::string(200, 'm')), ElementsAre("/v/" + std::string(254, 'm') + "\xff"));
}

TEST(NameBytesTest, ComposedAndDecomposedNamesAreFoundByBoth) {
  Fixture fixture;
  fixture.Put("/v/caf\u00e9.txt");
  fixture.Put("/v/cafe\u0301.txt");
  fixture.index->Commit();
  const std::vector<std::string> both = {"/v/cafe\u0301.txt", "/v/caf\u00e9.txt"};

  EXPECT_EQ(Find(*fixture.index, "caf\u00e9"), both);
  EXPECT_EQ(Find(*fixture.index, "cafe\u0301"), both);
  EXPECT_EQ(Find(*fixture.index, "CAFE"), both);
  EXPECT_THAT(Get(*fixture.index, "{'term': {'NIMOMDPath': '/v/caf\u00e9.txt'}}"), ElementsAre("/v/caf\u00e9.txt"));
}

}  // namespace
}  // namespace search::test
