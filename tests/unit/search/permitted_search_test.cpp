// Searches for somebody's eyes: an index with forbidden documents answers like one that never had them.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "services/search/viewer.h"
#include "tests/unit/search/engine_support.h"

namespace search::test {
namespace {

// Forbids what lies below /forbidden.
class FolderViewer : public Viewer {
 public:
  std::vector<bool> MaySee(const std::vector<Candidate>& candidates) override {
    std::this_thread::sleep_for(asked.empty() ? first_takes : std::chrono::milliseconds(0));
    std::vector<bool> shown;
    for (const Candidate& candidate : candidates) {
      asked.push_back(candidate);
      shown.push_back(candidate.path.rfind("/forbidden/", 0) != 0);
    }
    return shown;
  }

  std::vector<Candidate> asked;
  std::chrono::milliseconds first_takes{0};
};

struct Answer {
  std::string text;
  SearchResult result;
};

// Everything that an answer tells.
Answer Ask(Index& index, const std::string& query, SearchOptions options) {
  FolderViewer viewer;
  options.viewer = &viewer;
  Answer answer{"", index.Search(query, options)};
  std::string& text = answer.text;
  text = "total " + std::to_string(answer.result.total) + (answer.result.more ? " more" : "") +
         (answer.result.exact ? " exact" : "") + "\n";
  for (const Hit& hit : answer.result.hits) {
    text += hit.path + " " + std::to_string(hit.score) + " " + hit.snippet + " " + hit.fields.toStyledString();
  }
  for (const auto& [name, facet] : answer.result.facets) {
    for (const auto& [value, count] : facet) {
      text += name + ": " + value + " " + std::to_string(count) + "\n";
    }
  }
  return answer;
}

// What both indexes have, in this order.
void PutPermitted(Fixture& fixture) {
  fixture.Put("/open/heron.txt", "A grey heron came to the weir.");
  fixture.Put("/open/b.pdf", "The heron, the heron and the weir at dawn");
  fixture.Put("/open/c.txt", "No bird was there but at the weir a duck");
  fixture.Put("/open/d.md", "heron " + std::string(3000, 'x') + " weir");
}

void PutForbidden(Fixture& fixture, int count) {
  for (int i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    fixture.Put("/forbidden/heron" + number + ".exe", "heron heron weir secret" + number);
  }
}

TEST(PermittedSearch, AnswersAsIfTheForbiddenDocumentsWereNotThere) {
  Fixture mixed;
  Fixture alone;
  PutForbidden(mixed, 30);
  PutPermitted(mixed);
  PutForbidden(mixed, 1200);  // more, and newer ones, than are ranked
  PutPermitted(alone);
  mixed.index->Commit();
  alone.index->Commit();
  using Sort = SearchOptions::Sort;

  for (const char* const query :
       {"heron", "heron weir", "heron OR duck", "her*", "\"the weir\"", "name:heron", "secret7", "-secret7", "ext:exe",
        "ext:exe OR ext:md", "-duck OR ext:exe", "folder:/forbidden", "folder:/", "weir -duck", "seCret*"}) {
    for (const Sort sort : {Sort::kRelevance, Sort::kName, Sort::kPath, Sort::kSize, Sort::kModified}) {
      for (const size_t offset : {size_t{0}, size_t{1}}) {
        SearchOptions options;
        options.sort = sort;
        options.offset = offset;
        options.limit = 2;
        options.load_fields = {"NIMOMDFSName", "NIMOMDTextContent"};
        options.descending = offset > 0;
        EXPECT_EQ(Ask(*alone.index, query, options).text, Ask(*mixed.index, query, options).text)
            << query << " sort " << static_cast<int>(sort) << " offset " << offset;
      }
    }
  }
}

TEST(PermittedSearch, RanksTheBestOfManyFirst) {
  Fixture fixture;
  PutPermitted(fixture);
  for (int i = 0; i < 1100; ++i) {
    fixture.Put("/open/many/" + std::to_string(i), "one heron among " + std::string(200, 'y'));
  }
  PutForbidden(fixture, 5);
  fixture.index->Commit();

  const SearchResult result = Ask(*fixture.index, "heron", {}).result;

  EXPECT_EQ(1103, result.total);
  EXPECT_FALSE(result.exact);
  EXPECT_FALSE(result.more);
  ASSERT_FALSE(result.hits.empty());
  EXPECT_EQ("/open/heron.txt", result.hits[0].path);
  EXPECT_GT(result.hits[0].score, result.hits[1].score);
}

TEST(PermittedSearch, WithNothingPermittedIsEmpty) {
  Fixture fixture;
  PutForbidden(fixture, 3);
  fixture.index->Commit();

  const Answer answer = Ask(*fixture.index, "heron", {});

  EXPECT_EQ("total 0 exact\n", answer.text);
}

TEST(PermittedSearch, TellsTheViewerWhichFileADocumentStandsFor) {
  Json::Value mappings = Mappings();
  mappings["properties"]["NIMOMDFSCreationDate"]["type"] = "int";
  mappings["properties"]["NIMOMDOwnerUserID"]["analyzer"] = "keyword";
  mappings["properties"]["NIMOMDOwnerUserID"]["_all"] = false;
  const orbisk::test::TempDir dir;
  const auto index = Index::Create(dir / "db", mappings, Json::Value(Json::objectValue));
  Json::Value document = Document("/open/a", "heron");
  index->Upsert("/open/a", document);
  document["NIMOMDPath"] = "/open/b";
  document["NIMOMDFSCreationDate"] = 1234567890;
  document["NIMOMDOwnerUserID"] = "1001";
  index->Upsert("/open/b", document);
  index->Commit();
  FolderViewer viewer;
  SearchOptions options;
  options.viewer = &viewer;

  index->Search("heron", options);

  ASSERT_EQ(2U, viewer.asked.size());
  EXPECT_EQ("/open/b", viewer.asked[0].path);
  EXPECT_EQ(1234567890, viewer.asked[0].created);
  EXPECT_EQ("1001", viewer.asked[0].owner);
  EXPECT_EQ(std::nullopt, viewer.asked[1].created);
  EXPECT_EQ("", viewer.asked[1].owner);
}

TEST(PermittedSearch, StopsCheckingWhenTheTimeForThatIsOverAndSaysSo) {
  Fixture fixture;
  for (int i = 0; i < 1500; ++i) {
    fixture.Put("/open/" + std::to_string(i), "heron");
  }
  fixture.index->Commit();
  FolderViewer viewer;
  viewer.first_takes = std::chrono::milliseconds(20);
  SearchOptions options;
  options.viewer = &viewer;
  options.viewer_limit = std::chrono::milliseconds(10);
  options.time_limit = std::chrono::minutes(10);

  const SearchResult result = fixture.index->Search("heron", options);

  EXPECT_TRUE(result.more);
  EXPECT_FALSE(result.exact);
  EXPECT_EQ(256, result.total) << "one batch";
  EXPECT_EQ(20U, result.hits.size());
}

TEST(PermittedSuggestions, AreThoseOfAnIndexWithoutTheForbiddenDocuments) {
  Fixture mixed;
  Fixture alone;
  PutForbidden(mixed, 30);
  PutPermitted(mixed);
  PutForbidden(mixed, 400);  // more, and newer ones, than are checked at once
  PutPermitted(alone);
  mixed.index->Commit();
  alone.index->Commit();

  for (const char* const prefix : {"he", "W", "sec", "secret", "heron", "", "wei", "gr\u00e9", "grey heron", "zzz"}) {
    FolderViewer viewer;
    FolderViewer other;
    EXPECT_EQ(alone.index->SuggestFor(viewer, prefix), mixed.index->SuggestFor(other, prefix)) << prefix;
  }
  FolderViewer viewer;
  EXPECT_EQ(std::vector<std::string>({"weir", "was"}), mixed.index->SuggestFor(viewer, "w")) << "most documents first";
  EXPECT_EQ(std::vector<std::string>({"weir"}), mixed.index->SuggestFor(viewer, "w", 1));
  EXPECT_EQ(std::vector<std::string>(), mixed.index->SuggestFor(viewer, "secret"));
  EXPECT_EQ(std::vector<std::string>({"grey"}), mixed.index->SuggestFor(viewer, "Gr\u00e9")) << "case and accents";
}

TEST(PermittedSuggestions, AreOfTheNewestHundredDocuments) {
  Fixture fixture;
  fixture.Put("/open/old", "herring");
  for (int i = 0; i < 100; ++i) {
    fixture.Put("/open/" + std::to_string(i), "heron");
  }
  fixture.index->Commit();
  FolderViewer viewer;

  EXPECT_EQ(std::vector<std::string>({"heron"}), fixture.index->SuggestFor(viewer, "her"));
  EXPECT_EQ(std::vector<std::string>({"herring"}), fixture.index->SuggestFor(viewer, "herr"));
}

TEST(PermittedSearch, FailsIfTheViewerDoes) {
  class Failing : public Viewer {
    std::vector<bool> MaySee(const std::vector<Candidate>&) override { throw Error(ErrorCode::kStorage, "no"); }
  };
  Fixture fixture;
  fixture.Put("/open/a", "heron");
  fixture.index->Commit();
  Failing viewer;
  SearchOptions options;
  options.viewer = &viewer;

  EXPECT_EQ(ErrorCode::kStorage, CodeOf([&] { fixture.index->Search("heron", options); }));

  EXPECT_EQ(1, fixture.index->Search("heron").total) << "the same reader";
}

}  // namespace
}  // namespace search::test
