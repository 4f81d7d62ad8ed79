// Both query languages, by tables: what is found, and what is refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "services/search/query.h"
#include "tests/unit/search/engine_support.h"

namespace search::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int64_t kDay = 86'400;
constexpr int64_t kNoon = 1'620'043'200;  // 2021-05-03 12:00 UTC

class QueryTest : public testing::Test {
 protected:
  QueryTest() {
    setenv("TZ", "UTC", 1);
    tzset();
    Add("/v/annual_report-2021.pdf", "The quick brown foxes were running over lazy dogs", 5'000'000, 0);
    Add("/v/docs/notes.txt", "A well-known e-mail about the fox", 100, 1);
    Add("/v/docs/\u4e2d\u6587\u6587\u4ef6.txt", "\u8fd9\u662f\u4e2d\u6587\u5168\u6587\u7d22\u5f15", 2'048, 40);
    Add("/v/docs/r\u00e9sum\u00e9.doc", "M\u00fcller trinkt Kaffee im Caf\u00e9 4711", 300, 400);
    Add("/v/IMG_20210503.JPG", "", 3'000'000, 2);
    Json::Value song = Document("/v/music/song.mp3");
    song["NIMOMDTitle"] = "Yellow \"Submarine\"";
    song["NIMOMDAuthors"] = Json_("['Lennon,J.', 'McCartney']");
    song["NIMOMDAperture"] = "F/2.8";
    song["NIMOMDSecret"] = "hidden treasure";
    song["NIMOMDDurationSecond"] = 159.5;
    song["NIMOMDKind"] = "mp3";
    index().Upsert("/v/music/song.mp3", song);
    Json::Value folder = Document("/v/music");
    folder["NIMOMDIsDir"] = true;
    index().Upsert("/v/music", folder);
    index().Commit();
  }

  void Add(const std::string& path, const std::string& content, int64_t size, int64_t days_ago) {
    Json::Value document = Document(path, content);
    document["NIMOMDFSSize"] = Json::Int64{size};
    document["NIMOMDFSContentChangeDate"] = Json::Int64{kNoon - days_ago * kDay};
    document["NIMOMDIsDir"] = false;
    if (document["NIMOMDExtension"] == "JPG") {
      document["NIMOMDExtension"] = "jpg";
    }
    index().Upsert(path, document);
  }

  Index& index() { return *fixture_.index; }

  // The names of what is found, in the order of their paths' bytes.
  std::vector<std::string> Names(const std::string& query) {
    SearchOptions options;
    options.sort = SearchOptions::Sort::kPath;
    options.now = std::chrono::system_clock::from_time_t(kNoon);
    std::vector<std::string> names;
    for (const Hit& hit : index().Search(query, options).hits) {
      names.push_back(hit.path.substr(hit.path.rfind('/') + 1));
    }
    return names;
  }

  Fixture fixture_;
};

const char kReport[] = "annual_report-2021.pdf";
const char kNotes[] = "notes.txt";
const char kChinese[] = "\u4e2d\u6587\u6587\u4ef6.txt";
const char kResume[] = "r\u00e9sum\u00e9.doc";
const char kPhoto[] = "IMG_20210503.JPG";
const char kSong[] = "song.mp3";
const char kMusic[] = "music";

TEST_F(QueryTest, PeopleFindWhatTheyMean) {
  const struct {
    const char* query;
    std::vector<std::string> names;
  } cases[] = {
      // words in any form, case and accents
      {"fox", {kReport, kNotes}},
      {"FOXES", {kReport, kNotes}},
      {"run", {kReport}},
      {"cafe", {kResume}},
      {"CAF\u00c9 muller", {kResume}},
      {"resume", {kResume}},
      // parts of names
      {"port", {kReport}},
      {"rt-20", {kReport}},
      {"IMG_2021", {kPhoto}},
      {"0503", {kPhoto}},
      {"pd", {kReport}},
      {"oxe", {}},
      // numbers are words where they are written, not where they are counted
      {"2021", {kReport, kPhoto}},
      {"4711", {kResume}},
      {"5000000", {}},
      {"NIMOMDFSSize:5000000", {kReport}},
      // hyphens
      {"well-known", {kNotes}},
      {"well known", {kNotes}},
      {"e-mail", {kNotes}},
      {"known-well", {}},
      // Chinese, by any number of characters, also the last one
      {"\u4e2d\u6587", {kChinese}},
      {"\u5168\u6587\u7d22\u5f15", {kChinese}},
      {"\u7d22", {kChinese}},
      {"\u5f15", {kChinese}},
      {"\u5f15\u7d22", {}},
      // phrases are exact
      {"\"quick brown\"", {kReport}},
      {"\"brown quick\"", {}},
      {"\"fox\"", {kNotes}},
      {"\"port\"", {}},
      {"\"annual report\"", {kReport}},
      // combinations
      {"fox quick", {kReport}},
      {"fox -quick", {kNotes}},
      {"fox NOT quick", {kNotes}},
      {"quick OR cafe", {kReport, kResume}},
      {"(quick OR cafe) -lazy", {kResume}},
      {"fox AND notes", {kNotes}},
      {"-fox -type:folder ext:txt", {kChinese}},
      {"ext:jpg OR fox", {kPhoto, kReport, kNotes}},
      {"-(ext:txt OR fox) type:document", {kResume}},
      {"a & fox", {kNotes}},
      {"fox - quick", {kReport}},
      // beginnings
      {"qui*", {kReport}},
      {"uick*", {}},
      // fields
      {"title:submarine", {kSong}},
      {"title:\"yellow submarine\"", {kSong}},
      {"author:lennon", {kSong}},
      {"NIMOMDTitle:yellow", {kSong}},
      {"name:fox", {}},
      {"content:fox", {kReport, kNotes}},
      {"f/2.8", {kSong}},
      {"NIMOMDSecret:treasure", {kSong}},
      {"treasure", {}},
      {"ext:pdf", {kReport}},
      {"ext:.PDF", {kReport}},
      {"type:image", {kPhoto}},
      {"type:mp3", {kSong}},
      {"type:music", {kSong}},
      {"type:folder", {kMusic}},
      {"folder:/v/docs", {kNotes, kResume, kChinese}},
      {"in:/v/docs/ fox", {kNotes}},
      {"folder:/v/doc", {}},
      // sizes
      {"size:>1M", {kPhoto, kReport}},
      {"size:>=2k size:<3k", {kChinese}},
      {"size:100..300", {kResume, kNotes}},
      {"size:100", {kNotes}},
      {"size:..2KiB", {kResume, kNotes, kChinese}},
      {"size:<=100b", {kNotes}},
      {"NIMOMDDurationSecond:>159", {kSong}},
      {"NIMOMDIsDir:yes", {kMusic}},
      // dates
      {"date:today", {kReport}},
      {"date:yesterday", {kNotes}},
      {"date:2021-05-01", {kPhoto}},
      {"date:2021-05", {kPhoto, kReport, kNotes}},
      {"date:2020", {kResume}},
      {"date:2019", {}},
      {"date:<2021", {kResume}},
      {"date:>2021-04", {kPhoto, kReport, kNotes}},
      {"date:2021-05-01..2021-05-02", {kPhoto, kNotes}},
      {"date:2d", {kPhoto, kReport, kNotes}},
      {"modified:>=2021-05-03", {kReport}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> expected = c.names;
    std::vector<std::string> found = Names(c.query);
    std::sort(expected.begin(), expected.end());
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, expected) << c.query;
  }
}

TEST_F(QueryTest, WhatPeopleGetWrongIsRefusedWithAMessage) {
  const struct {
    const char* query;
    const char* message;
  } cases[] = {
      {"", "nothing to look for"},
      {"   ", "nothing to look for"},
      {"\"\"", "nothing to look for"},
      {"! ?", "nothing to look for"},
      {"\"open", "quotation mark"},
      {"(fox", "parenthesis"},
      {"fox)", "parenthesis"},
      {"()", "condition"},
      {"OR fox", "condition"},
      {"fox OR", "condition"},
      {"fox AND", "condition"},
      {"fox OR OR dog", "condition"},
      {"NOT", "condition"},
      {"nosuchfield:x", "nosuchfield"},
      {"title:", "title"},
      {"size:big", "size"},
      {"size:1x", "size"},
      {"size:>", "size"},
      {"size:..", "range"},
      {"size:1e999", "size"},
      {"size:99999999999P", "size"},
      {"date:2021-13", "date"},
      {"date:2021-02-30", "date"},
      {"date:soon", "date"},
      {"NIMOMDIsDir:perhaps", "true or false"},
      {"((((((((((((((((fox))))))))))))))))", "nested"},
  };
  for (const auto& c : cases) {
    try {
      Names(c.query);
      ADD_FAILURE() << c.query << " was taken";
    } catch (const Error& error) {
      EXPECT_EQ(error.code(), ErrorCode::kBadQuery) << c.query;
      EXPECT_THAT(error.what(), HasSubstr(c.message)) << c.query;
    }
  }
  EXPECT_EQ(CodeOf([&] { Names(std::string(5000, 'a')); }), ErrorCode::kBadQuery);
  std::string many;
  for (int i = 0; i < 100; ++i) {
    many += "w" + std::to_string(i) + " ";
  }
  EXPECT_EQ(CodeOf([&] { Names(many); }), ErrorCode::kBadQuery);
}

TEST_F(QueryTest, NothingThatIsTypedIsTakenForAnotherLanguage) {
  for (const char* query : {"fox' OR 1=1 --", "fox\\", "w1 : fox", "{w1} : fox", "fox + brown", "^fox", "NEAR(fox dog)",
                            "fox*bar", "'; DROP TABLE doc; --", "%", "fox\" OR \"dog", "title:\"a\\\"b\"", "***",
                            "name:*", "\"fox *\"", "a:b", "NOT NOT fox", "--fox", "\x01\x02\x03 fox"}) {
    try {
      Names(query);
    } catch (const Error& error) {
      EXPECT_EQ(error.code(), ErrorCode::kBadQuery) << query << ": " << error.what();
    }
  }
  EXPECT_EQ(Names("fox").size(), 2u);
}

TEST_F(QueryTest, TheDeepestAndLongestQuestionsAreAnswered) {
  for (const std::string inner : {"brown OR -dog", "brown OR dog", "-brown dog", "fox* OR \"fox\""}) {
    std::string deep = "fox";
    for (int i = 0; i < 8; ++i) {
      deep = "(" + deep + " OR (" + inner + "))";
    }
    EXPECT_THAT(Names(deep), testing::Contains(kReport)) << deep;
  }
  std::string wide = "fox";
  for (int i = 0; i < 60; ++i) {
    wide += " OR word" + std::to_string(i);
  }
  EXPECT_THAT(Names(wide), testing::SizeIs(2));
}

TEST_F(QueryTest, ProgramsFindWhatTheyAskFor) {
  const struct {
    const char* qsl;
    size_t hits;
  } cases[] = {
      {"{'match_all': {}}", 7},
      {"{'term': {'NIMOMDPath': '/v/docs/notes.txt'}}", 1},
      {"{'term': {'NIMOMDPath': '/V/docs/notes.txt'}}", 0},
      {"{'term': {'NIMOMDExtension': 'txt'}}", 2},
      {"{'term': {'NIMOMDIsDir': true}}", 1},
      {"{'term': {'NIMOMDFSSize': 100}}", 1},
      {"{'term': {'NIMOMDDurationSecond': 159.5}}", 1},
      {"{'term': {'NIMOMDTextContent': 'Foxes'}}", 1},
      {"{'term': {'NIMOMDAperture': 'f/2.8'}}", 1},
      {"{'term': {'NIMOMDSearchAncestor': '/v/docs'}}", 3},
      {"{'term': {'NIMOMDSearchAncestor': '/v/'}}", 7},
      {"{'term': {'NIMOMDSearchAncestor': '/'}}", 7},
      {"{'term': {'NIMOMDSearchAncestor': '/v/do'}}", 0},
      {"{'term': {'_all': 'treasure'}}", 0},
      {"{'term': {'NIMOMDSecret': 'treasure'}}", 1},
      {"{'prefix': {'NIMOMDPath': '/v/docs/'}}", 3},
      {"{'prefix': {'NIMOMDPath': '/v/music'}}", 2},
      {"{'prefix': {'NIMOMDPath': ''}}", 7},
      {"{'prefix': {'NIMOMDTextContent': 'qui'}}", 1},
      {"{'match': {'NIMOMDTextContent': 'dog quickly'}}", 1},
      {"{'match': {'NIMOMDTextContent': 'dog coffee'}}", 0},
      {"{'match': {'NIMOMDTextContent': 'dog fox'}}", 1},
      {"{'match': {'_all': 'lennon'}}", 1},
      {"{'phrase': {'NIMOMDTextContent': 'lazy dogs'}}", 1},
      {"{'phrase': {'NIMOMDTextContent': 'lazy dog'}}", 0},
      {"{'range': {'NIMOMDFSSize': {'gte': 300, 'lt': 5000000}}}", 3},
      {"{'range': {'NIMOMDFSSize': {'gt': 300}}}", 3},
      {"{'range': {'NIMOMDFSSize': {'lte': 300}}}", 2},
      {"{'range': {'NIMOMDFSName': {'gte': 's', 'lt': 't'}}}", 1},
      {"{'bool': {'must': [{'term': {'NIMOMDExtension': 'txt'}}, {'match': {'_all': 'fox'}}]}}", 1},
      {"{'bool': {'must': {'match': {'_all': 'fox'}}, 'must_not': [{'term': {'NIMOMDExtension': 'txt'}}]}}", 1},
      {"{'bool': {'should': [{'match': {'_all': 'cafe'}}, {'term': {'NIMOMDIsDir': true}}]}}", 2},
      {"{'bool': {'filter': [{'term': {'NIMOMDExtension': 'txt'}}], 'should': [{'match': {'_all': 'zzz'}}]}}", 2},
      {"{'bool': {'must_not': [{'match': {'_all': 'fox'}}]}}", 5},
      {"{'bool': {'must_not': [{'range': {'NIMOMDFSSize': {'gt': 0}}}]}}", 2},
      {"{'bool': {}}", 7},
      {"{'bool': {'should': []}}", 7},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Get(index(), c.qsl).size(), c.hits) << c.qsl;
  }
}

TEST_F(QueryTest, WhatProgramsGetWrongIsRefused) {
  for (const char* qsl : {"[]",
                          "{}",
                          "5",
                          "null",
                          "'fox'",
                          "{'a': {}, 'b': {}}",
                          "{'fuzzy': {'NIMOMDPath': 'x'}}",
                          "{'term': {}}",
                          "{'term': 'x'}",
                          "{'term': {'NoSuchField': 'x'}}",
                          "{'term': {'NIMOMDFSSize': 'x'}}",
                          "{'term': {'NIMOMDIsDir': 1}}",
                          "{'term': {'NIMOMDPath': ['a']}}",
                          "{'prefix': {'NIMOMDFSSize': '1'}}",
                          "{'prefix': {'NIMOMDPath': 1}}",
                          "{'range': {'NIMOMDFSSize': {}}}",
                          "{'range': {'NIMOMDFSSize': {'above': 1}}}",
                          "{'range': {'NIMOMDTextContent': {'gt': 'a'}}}",
                          "{'bool': {'must': 5}}",
                          "{'bool': {'may': []}}",
                          "{'bool': []}",
                          "{'match': {'NIMOMDFSSize': 'x'}}",
                          "{'phrase': {'_all': 1}}"}) {
    EXPECT_EQ(CodeOf([&] { Get(index(), qsl); }), ErrorCode::kBadQuery) << qsl;
  }
  Json::Value deep = Json_("{'match_all': {}}");
  for (int i = 0; i < 100; ++i) {
    Json::Value outer;
    outer["bool"]["must"] = deep;
    deep = outer;
  }
  Json::Value query;
  query["qsl"] = deep;
  EXPECT_EQ(CodeOf([&] { index().DeleteByQuery(query); }), ErrorCode::kBadQuery);
  EXPECT_EQ(CodeOf([&] { index().DeleteByQuery(Json_("{'term': {'NIMOMDPath': '/v'}}")); }), ErrorCode::kBadQuery);
  EXPECT_EQ(Get(index(), "{'match_all': {}}").size(), 7u);
}

TEST_F(QueryTest, TheDeepestQslIsAnswered) {
  std::string deep = "{'match': {'_all': 'fox'}}";
  for (int i = 0; i < 15; ++i) {
    deep = "{'bool': {'must': [" + deep +
           ", {'bool': {'should': [{'match': {'_all': 'brown'}}, {'match': {'_all': 'fox'}}]}}]}}";
  }
  EXPECT_EQ(Get(index(), deep).size(), 2u);
}

TEST_F(QueryTest, NamesOutrankContent) {
  Add("/v/z1.txt", "walrus walrus walrus walrus", 1, 1);
  Add("/v/walrus.txt", "nothing", 1, 1);
  Add("/v/z2.txt", "walrus walrus walrus", 1, 1);
  index().Commit();

  const SearchResult result = index().Search("walrus");

  ASSERT_EQ(result.hits.size(), 3u);
  EXPECT_EQ(result.hits[0].path, "/v/walrus.txt");
  EXPECT_GT(result.hits[0].score, result.hits[1].score);
  EXPECT_GT(result.hits[1].score, 0);
}

TEST_F(QueryTest, RareWordsAndShortTextsRankHigher) {
  for (int i = 0; i < 30; ++i) {
    Add("/v/many" + std::to_string(i), "common " + std::string(i == 0 ? "rarity" : "filler"), 1, 1);
  }
  Add("/v/long",
      "rarity " + std::string(3000, 'x') + " and very many words stand here beside that one word of this text", 1, 1);
  index().Commit();

  const SearchResult result = index().Search("common OR rarity");

  ASSERT_GE(result.hits.size(), 3u);
  EXPECT_EQ(result.hits[0].path, "/v/many0");
  EXPECT_EQ(result.hits[1].path, "/v/long");
}

TEST_F(QueryTest, OfTooManyHitsToRankThoseInNamesComeFirst) {
  Add("/v/0 platypus.txt", "nothing", 1, 1);
  for (int i = 0; i < 3'000; ++i) {
    Add("/v/many/" + std::to_string(i), "platypus", 1, 1);
  }
  index().Commit();

  const SearchResult result = index().Search("platypus");

  EXPECT_FALSE(result.exact);
  EXPECT_FALSE(result.more);
  EXPECT_EQ(result.total, 3'001);
  EXPECT_EQ(result.hits.at(0).path, "/v/0 platypus.txt");
  EXPECT_EQ(result.hits.at(1).path, "/v/many/2999");
}

TEST_F(QueryTest, SnippetsShowMarkedWordsInOneLine) {
  std::string text;
  for (int i = 0; i < 500; ++i) {
    text += "filler" + std::to_string(i) + " ";
  }
  Add("/v/long.txt", text + "here\n\n the walruses\tsang in the caf\u00e9 " + text, 1, 1);
  index().Commit();
  SearchOptions options;
  options.mark_begin = "[";
  options.mark_end = "]";

  const std::string snippet = index().Search("walrus cafe -absent", options).hits.at(0).snippet;

  EXPECT_THAT(snippet, AllOf(HasSubstr("here the [walruses] sang in the [caf\u00e9] filler0"),
                             testing::StartsWith("\u2026"), testing::EndsWith("\u2026")));
  EXPECT_LT(snippet.size(), 300u);
}

TEST_F(QueryTest, PagesFollowOneAnotherAndTheTotalStays) {
  SearchOptions options;
  options.sort = SearchOptions::Sort::kPath;
  options.limit = 2;
  const std::vector<std::string> all = Get(index(), "{'prefix': {'NIMOMDPath': '/v/'}}");
  std::vector<std::string> paged;
  for (options.offset = 0; options.offset < 10; options.offset += 2) {
    const SearchResult page = index().Search("folder:/v", options);
    EXPECT_EQ(page.total, 7);
    for (const Hit& hit : page.hits) {
      paged.push_back(hit.path);
    }
  }
  EXPECT_EQ(paged, all);
}

TEST_F(QueryTest, SortsBySizeDateAndName) {
  const auto first = [&](SearchOptions::Sort sort, bool descending) {
    SearchOptions options;
    options.sort = sort;
    options.descending = descending;
    return index().Search("size:>0", options).hits.at(0).path;
  };
  EXPECT_EQ(first(SearchOptions::Sort::kSize, false), "/v/docs/notes.txt");
  EXPECT_EQ(first(SearchOptions::Sort::kSize, true), "/v/annual_report-2021.pdf");
  EXPECT_EQ(first(SearchOptions::Sort::kModified, false), "/v/docs/r\u00e9sum\u00e9.doc");
  EXPECT_EQ(first(SearchOptions::Sort::kModified, true), "/v/annual_report-2021.pdf");
  EXPECT_EQ(first(SearchOptions::Sort::kName, false), "/v/annual_report-2021.pdf");
  EXPECT_EQ(first(SearchOptions::Sort::kPath, false), "/v/IMG_20210503.JPG");
}

TEST_F(QueryTest, FacetsCountHitsByExtensionAndKind) {
  const SearchResult result = index().Search("folder:/v");

  EXPECT_TRUE(result.exact);
  EXPECT_THAT(result.facets.at("extension"), ElementsAre(std::pair("txt", 2), std::pair("doc", 1), std::pair("jpg", 1),
                                                         std::pair("mp3", 1), std::pair("pdf", 1)));
  EXPECT_THAT(result.facets.at("kind"), ElementsAre(std::pair("mp3", 1)));
}

TEST_F(QueryTest, BringsTheFieldsThatAreAskedFor) {
  SearchOptions options;
  options.load_fields = {"NIMOMDFSSize", "NIMOMDTextContent"};

  const Hit hit = index().Search("well-known", options).hits.at(0);

  EXPECT_EQ(hit.fields, Json_("{'NIMOMDFSSize': 100, 'NIMOMDTextContent': 'A well-known e-mail about the fox'}"));
}

TEST(QueryBoundsTest, HitsThatTakeTooMuchRoomAreRefusedListsToo) {
  Fixture fixture;
  Json::Value document = Document("/a", "heron");
  document["NIMOMDKeywords"].append(std::string(1000, 'x'));
  document["NIMOMDKeywords"].append(std::string(1000, 'y'));
  fixture.index->Upsert("/a", document);
  fixture.index->Commit();
  SearchOptions options;
  options.max_bytes = 1900;
  EXPECT_EQ(1U, fixture.index->Search("heron", options).hits.size());

  options.load_fields = {"NIMOMDKeywords"};

  EXPECT_EQ(ErrorCode::kAnswerTooLarge, CodeOf([&] { fixture.index->Search("heron", options); }));
  options.max_bytes = 3000;
  EXPECT_EQ(1U, fixture.index->Search("heron", options).hits.size());
}

TEST_F(QueryTest, SuggestsTheCommonestWordsFirst) {
  EXPECT_FALSE(index().SuggestionsAvailable());
  for (const char* path : {"/v/annual_report-2021.pdf", "/v/docs/notes.txt", "/v/docs/r\u00e9sum\u00e9.doc"}) {
    index().AddSuggestions(path);
    index().AddSuggestions(path);
  }
  index().Commit();

  EXPECT_TRUE(index().SuggestionsAvailable());
  EXPECT_THAT(index().Suggest("th"), ElementsAre("the"));
  EXPECT_THAT(index().Suggest("F"), ElementsAre("fox", "foxes"));
  EXPECT_THAT(index().Suggest("caf\u00e9"), ElementsAre("cafe"));
  EXPECT_THAT(index().Suggest("zz"), IsEmpty());
  EXPECT_EQ(CodeOf([&] { index().AddSuggestions("/v/none"); }), ErrorCode::kNoSuchDocument);
}

TEST(SuggestionTest, AnEmptyIndexLacksNone) {
  Fixture fixture;
  EXPECT_TRUE(fixture.index->SuggestionsAvailable());
}

TEST(LanguageTest, StemsFollowTheSettings) {
  Fixture german(Json_("{'languages': ['german', 'english']}"));
  german.Put("/v/a", "Die H\u00e4user running");
  german.index->Commit();

  EXPECT_THAT(Find(*german.index, "haus"), ElementsAre("/v/a"));
  EXPECT_THAT(Find(*german.index, "runs"), ElementsAre("/v/a"));
}

TEST(MappingsTest, ThatMakeNoSenseAreRefused) {
  orbisk::test::TempDir dir;
  for (const char* mappings :
       {"[]", "{}", "{'property_id': 'p'}", "{'property_id': 'p', 'properties': {}}",
        "{'property_id': 'q', 'properties': {'p': {'analyzer': 'keyword'}}}",
        "{'property_id': 'p', 'properties': {'p': {}}}", "{'property_id': 'p', 'properties': {'p': 5}}",
        "{'property_id': 'p', 'properties': {'p': {'analyzer': 'keyword', 'type': 'int'}}}",
        "{'property_id': 'p', 'properties': {'p': {'analyzer': 'keyword', 'type': 'blob'}}}",
        "{'property_id': 'p', 'properties': {'p': {'analyzer': 'unheard of'}}}",
        "{'property_id': 'p', 'properties': {'p': {'analyzer': 'keyword', 'required': 1}}}",
        "{'property_id': 'p', 'properties': {'p': {'analyzer': 'keyword', 'preprocess': ['x']}}}",
        "{'property_id': 'p', 'properties': {'p': {'analyzer': 'keyword'}, '': {}}}",
        "{'property_id': 'p', 'properties': {'p': {'analyzer': 'keyword'}, '_all': {}}}",
        "{'property_id': 'p', 'default': 5, 'properties': {'p': {'analyzer': 'keyword'}}}"}) {
    EXPECT_EQ(CodeOf([&] { Index::Create(dir / "db", Json_(mappings), Json::objectValue); }), ErrorCode::kBadMappings)
        << mappings;
  }
  EXPECT_EQ(CodeOf([&] { Index::Create(dir / "db", Mappings(), Json_("{'languages': ['klingon']}")); }),
            ErrorCode::kBadMappings);
  EXPECT_EQ(CodeOf([&] { Index::Open(dir / "db"); }), ErrorCode::kNoDatabase);
}

TEST(MappingsTest, WithoutWordsStillFindByWhatTheyHave) {
  orbisk::test::TempDir dir;
  const auto index = Index::Create(dir / "db",
                                   Json_("{'property_id': 'p', 'properties': {'p': {'analyzer': 'keyword'},"
                                         "'n': {'type': 'int'}, 'k': {'analyzer': 'keyword', '_all': false}}}"),
                                   Json::objectValue);
  index->Upsert("/v/1", Json_("{'p': '/v/1', 'n': 7, 'k': 'Red'}"));
  index->Upsert("/v/2", Json_("{'p': '/v/2', 'n': 8}"));
  index->Set("/v/2", Json_("{'n': 9, 'p': '/w/2'}"));
  index->Upsert("/v/3", Json_("{'p': '/v/3'}"));
  index->Upsert("/v/3", Json_("{'p': '/v/3', 'n': 1}"));
  index->Delete("/v/3");
  index->AddSuggestions("/v/1");
  index->Commit();

  EXPECT_THAT(Find(*index, "n:>7"), ElementsAre("/w/2"));
  EXPECT_THAT(Find(*index, "k:red"), ElementsAre("/v/1"));
  EXPECT_THAT(Find(*index, "folder:/v -n:9"), ElementsAre("/v/1"));
  EXPECT_THAT(Get(*index, "{'prefix': {'p': '/v/'}}"), ElementsAre("/v/1"));
  EXPECT_THAT(Get(*index, "{'match': {'_all': 'red'}}"), IsEmpty());
  EXPECT_EQ(CodeOf([&] { index->Search("red"); }), ErrorCode::kBadQuery);
  EXPECT_EQ(index->Stat(true).problem, "");
  EXPECT_EQ(index->Stat(false).documents, 2);
}

TEST(MappingsTest, WithNothingButAnIdWork) {
  orbisk::test::TempDir dir;
  const auto index = Index::Create(dir / "db",
                                   Json_("{'property_id': 'p', 'properties': {'p': {'analyzer': 'keyword'},"
                                         "'t': {}}}"),
                                   Json::objectValue);
  index->Upsert("1", Json_("{'p': '1', 't': 'some words'}"));
  index->Commit();

  EXPECT_EQ(index->Search("word").hits.at(0).path, "1");
  SearchOptions by_name;
  by_name.sort = SearchOptions::Sort::kName;
  EXPECT_EQ(index->Search("word", by_name).total, 1);
  EXPECT_EQ(CodeOf([&] { index->Search("ext:pdf"); }), ErrorCode::kBadQuery);
  EXPECT_EQ(CodeOf([&] { index->Search("type:folder"); }), ErrorCode::kBadQuery);
}

}  // namespace
}  // namespace search::test
