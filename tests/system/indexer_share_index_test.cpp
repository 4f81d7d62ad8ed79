// The indexing daemon's own requests to the search daemon, against what the library asks of it.
#include "services/indexer/share_index.h"

#include <gtest/gtest.h>

#include <string>

#include "orbisk/comm.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/metadata_names.h"
#include "tests/system/search_box.h"

namespace orbisk::test {
namespace {

namespace elastic = fileindex::elastic;

class IndexerShareIndex : public SearchBox {
 protected:
  void SetUp() override {
    SearchBox::SetUp();
    AddIndexedShare(OnFirst("docs"));
  }

  // What says where the share's documents stand.
  static Json::Value Places() {
    Json::Value request;
    request["command"] = "document_get_by_query";
    request["data"]["id"] = elastic::GetFileIndexID("docs");
    request["data"]["query"]["qsl"]["match_all"] = Json::Value(Json::objectValue);
    for (const char* const field :
         {elastic::kMDPath, elastic::kMDParent, elastic::kMDFSName, elastic::kMDSearchFileName,
          elastic::kMDSearchAncestor, elastic::kMDDisplayName, elastic::kMDKind, elastic::kMDExtension}) {
      request["data"]["load_field"].append(field);
    }
    Json::Value answer;
    SendRequest(answer, request);
    return answer["data"];
  }

  fileindexd::Extractions extractions_{1};
};

TEST_F(IndexerShareIndex, ADocumentThatIsMovedAloneSaysWhatTheLibraryHasItSay) {
  const std::string from = OnFirst("docs/a.txt");
  fileindexd::ShareIndex index("docs", extractions_);
  for (const char* const name : {"deep/Two.PDF", "plain", ".hidden", "c.tar.gz"}) {
    const std::string to = OnFirst("docs/") + name;
    Index("docs", from, "kingfisher");
    elastic::IndexRename("docs", to, from);
    elastic::IndexCommit("docs");
    const Json::Value wanted = Places();
    index.RemoveOne(to);
    index.Commit();
    ASSERT_EQ(Places().size(), 0U);
    Index("docs", from, "kingfisher");

    index.MoveOne(from, to);
    index.Commit();

    ASSERT_EQ(wanted.size(), 1U);
    EXPECT_EQ(Places(), wanted) << name;
    index.RemoveOne(to);
    index.Commit();
  }
}

}  // namespace
}  // namespace orbisk::test
