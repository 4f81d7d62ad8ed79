// Databases of earlier versions, as those have written them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/unit/search/engine_support.h"

namespace search::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class UpgradeTest : public testing::Test {
 protected:
  UpgradeTest() {
    std::filesystem::create_directory(path_);
    std::filesystem::copy(SAMPLES_DIR "/format1.sqlite", path_ + "/index.sqlite");
  }

  orbisk::test::TempDir dir_;
  const std::string path_ = dir_ / "db";
};

TEST_F(UpgradeTest, OlderDatabaseIsNotOpenedBeforeItsUpgrade) {
  EXPECT_EQ(CodeOf([&] { Index::Open(path_); }), ErrorCode::kOlderFormat);
  EXPECT_EQ(CodeOf([&] { Index::Open(path_); }), ErrorCode::kOlderFormat);
  Index::Upgrade(path_);
  EXPECT_EQ(Index::Open(path_)->Stat(true).problem, "");
}

TEST_F(UpgradeTest, KeepsEveryDocumentWithItsWords) {
  Index::Upgrade(path_);
  const auto index = Index::Open(path_);

  EXPECT_EQ(index->Stat(false).documents, 3);
  EXPECT_THAT(Find(*index, "apple"), ElementsAre("/v/0"));
  EXPECT_THAT(Get(*index, "{'range': {'n': {'gte': 1}}}"), ElementsAre("/v/1", "/v/2"));
  EXPECT_EQ(Fields(*index, "/v/2", {"p", "t", "e", "n", "beyond"}),
            Json_("{'p': '/v/2', 't': 'blue plums', 'e': 'three', 'n': 2, 'beyond': 'kept 2'}"));
}

TEST_F(UpgradeTest, GivesFieldsTheWordsThatThisVersionSeesInThem) {
  Index::Upgrade(path_);
  const auto index = Index::Open(path_);

  EXPECT_THAT(Get(*index, "{'term': {'e': 'my folder'}}"), ElementsAre("/v/1"));

  index->Delete("/v/1");
  index->Commit();
  EXPECT_THAT(Get(*index, "{'term': {'e': 'my folder'}}"), IsEmpty());
  EXPECT_THAT(Find(*index, "other OR pears"), IsEmpty());
  EXPECT_EQ(index->Stat(true).problem, "");
}

TEST_F(UpgradeTest, OfADatabaseOfThisVersionChangesNothing) {
  Index::Upgrade(path_);
  const std::string once = orbisk::test::ReadFile(path_ + "/index.sqlite");
  Index::Upgrade(path_);
  EXPECT_EQ(once, orbisk::test::ReadFile(path_ + "/index.sqlite"));
}

}  // namespace
}  // namespace search::test
