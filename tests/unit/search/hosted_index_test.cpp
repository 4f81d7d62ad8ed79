// What an index tells those who ask while it is being upgraded or repaired, and what is remembered of damage.
#include "services/search/hosted_index.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <thread>

#include "services/search/catalog.h"
#include "services/search/commands.h"
#include "services/search/refusal.h"
#include "tests/support/foreign_connection.h"
#include "tests/support/temp_dir.h"

namespace nimoelasticd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::ForeignConnection;
using For = HostedIndex::Use::For;

// 0 if the index can be used so, else the code of the refusal.
int CodeOf(HostedIndex& host, For purpose, std::string* message = nullptr) {
  try {
    const HostedIndex::Use use(host, purpose);
    return 0;
  } catch (const Refusal& refusal) {
    if (message != nullptr) {
      *message = refusal.what();
    }
    return static_cast<int>(refusal.code());
  }
}

class HostedIndexTest : public testing::Test {
 protected:
  // A database that the first version wrote.
  void PlaceOldDatabase() {
    fs::create_directory(path_);
    fs::copy(SAMPLES_DIR "/format1.sqlite", path_ + "/index.sqlite");
  }

  void MakeDocuments(int count) {
    Json::Value mappings;
    mappings["property_id"] = "p";
    mappings["properties"]["p"]["analyzer"] = "keyword";
    mappings["properties"]["t"]["type"] = "text";
    const auto index = search::Index::Create(path_, mappings, Json::Value(Json::objectValue));
    for (int i = 0; i < count; ++i) {
      Json::Value document;
      document["p"] = "/v/" + std::to_string(i);
      document["t"] = "every word" + std::to_string(i) + " of some that are long enough to take a while";
      index->Upsert(document["p"].asString(), document);
    }
    index->Commit();
  }
  std::optional<int64_t> AskWhileRepairing(int documents);

  orbisk::test::TempDir dir_;
  const std::string path_ = dir_ / "db";
  HostedIndex host_{path_, State::kOpening, {}};
};

TEST_F(HostedIndexTest, OlderDatabaseIsUpgradedAndRequestsAreToldSoMeanwhile) {
  PlaceOldDatabase();
  ForeignConnection other(path_);
  other.Exec("BEGIN IMMEDIATE");  // the upgrade waits for this to end
  std::thread opening([&] { host_.Open(); });
  while (host_.state() == State::kOpening) {
    std::this_thread::yield();
  }

  EXPECT_EQ(State::kUpgrading, host_.state());
  EXPECT_STREQ("upgrading", NameOf(host_.state()));
  for (const For purpose : {For::kAsking, For::kReading, For::kChanging}) {
    EXPECT_EQ(607, CodeOf(host_, purpose));
  }

  other.Exec("ROLLBACK");
  opening.join();
  ASSERT_EQ(State::kOpen, host_.state());
  EXPECT_EQ("", host_.problem());
  const HostedIndex::Use use(host_);
  EXPECT_EQ("/v/1", use->Search("pears").hits.at(0).path);
}

TEST_F(HostedIndexTest, OlderDatabaseWhoseUpgradeFindsDamageIsRepaired) {
  PlaceOldDatabase();
  ForeignConnection(path_).Exec("UPDATE texts SET data = x'00' WHERE id = 2");

  host_.Open();

  ASSERT_EQ(State::kOpen, host_.state()) << host_.problem();
  EXPECT_NE(std::string::npos, host_.problem().find("not all documents could be read")) << host_.problem();
  EXPECT_FALSE(fs::exists(path_ + "/damaged"));
  const HostedIndex::Use use(host_);
  EXPECT_EQ("/v/2", use->Search("plums").hits.at(0).path);
  EXPECT_EQ(3, use->Stat(true).documents);
}

TEST_F(HostedIndexTest, NewerDatabaseIsAskedForAgainWithAReasonAndLeftAlone) {
  PlaceOldDatabase();
  ForeignConnection(path_).Exec("UPDATE meta SET value = 99 WHERE name = 'format'");
  const std::string before = orbisk::test::ReadFile(path_ + "/index.sqlite");
  std::string message;

  host_.Open();

  EXPECT_EQ(State::kNewer, host_.state());
  EXPECT_EQ(606, CodeOf(host_, For::kChanging, &message));
  EXPECT_NE(std::string::npos, message.find("a later version wrote the database: it has format 99")) << message;
  EXPECT_EQ(before, orbisk::test::ReadFile(path_ + "/index.sqlite"));
}

TEST_F(HostedIndexTest, DamagedIndexAnswersQuestionsUntilItIsRepaired) {
  MakeDocuments(10);
  host_.Open();

  EXPECT_TRUE(host_.MarkDamaged());
  EXPECT_FALSE(host_.MarkDamaged());

  EXPECT_TRUE(host_.Answers());
  EXPECT_EQ(0, CodeOf(host_, For::kAsking));
  EXPECT_EQ(609, CodeOf(host_, For::kReading));
  EXPECT_EQ(609, CodeOf(host_, For::kChanging));
  host_.Repair();
  EXPECT_EQ(0, CodeOf(host_, For::kChanging));
  EXPECT_FALSE(fs::exists(path_ + "/damaged"));
}

// What a damaged index of `documents` documents told of one of them during its repair; nothing if that was over first.
std::optional<int64_t> HostedIndexTest::AskWhileRepairing(int documents) {
  fs::remove_all(path_);
  MakeDocuments(documents);
  orbisk::test::WriteFile(path_ + "/damaged", "");
  HostedIndex host(path_, State::kOpening, {});
  std::thread opening([&] { host.Open(); });
  while (host.state() == State::kOpening || (host.state() == State::kRepairing && !host.Answers())) {
    std::this_thread::yield();
  }

  std::optional<int64_t> found;
  try {
    const HostedIndex::Use use(host, For::kAsking);  // keeps the repair from ending
    if (const int64_t total = use->Search("word77").total; host.state() == State::kRepairing) {
      found = total;
    }
  } catch (const Refusal& refusal) {
    ADD_FAILURE() << refusal.what();
  }
  opening.join();
  EXPECT_EQ(State::kOpen, host.state());
  return found;
}

TEST_F(HostedIndexTest, IndexThatIsFoundDamagedAtOpeningAnswersQuestionsMeanwhile) {
  std::optional<int64_t> found;

  for (int documents = 2'500; !found && documents <= 40'000; documents *= 2) {
    found = AskWhileRepairing(documents);
  }

  ASSERT_TRUE(found) << "every repair was over before the question";
  EXPECT_EQ(1, *found);
}

TEST_F(HostedIndexTest, DamageThatCannotBeRepairedNowIsRememberedAcrossARestart) {
  MakeDocuments(10);
  host_.Open();
  host_.MarkDamaged();
  fs::create_directory(path_ + "/index.sqlite.repairing");  // where the repair has its new database

  host_.Repair();
  EXPECT_EQ(State::kAbsent, host_.state());
  HostedIndex restarted(path_, State::kOpening, {});
  restarted.Open();
  EXPECT_EQ(State::kAbsent, restarted.state());

  fs::remove(path_ + "/index.sqlite.repairing");
  restarted.Open();
  EXPECT_EQ(State::kOpen, restarted.state());
  EXPECT_FALSE(fs::exists(path_ + "/damaged"));
}

TEST_F(HostedIndexTest, RepairThatFindsNoRoomGivesBackWhatItTook) {
  MakeDocuments(5'000);
  orbisk::test::WriteFile(path_ + "/damaged", "");
  search::OpenOptions small;
  small.max_database_bytes = 100'000;
  small.cache_bytes = 64 << 10;
  HostedIndex host(path_, State::kOpening, small);

  host.Open();

  EXPECT_EQ(State::kAbsent, host.state());
  EXPECT_NE(std::string::npos, host.problem().find("full")) << host.problem();
  EXPECT_TRUE(fs::exists(path_ + "/damaged"));
  for (const fs::directory_entry& file : fs::directory_iterator(path_)) {
    EXPECT_EQ(std::string::npos, file.path().filename().string().find("repair")) << file.path();
  }
}

TEST_F(HostedIndexTest, FailedRepairIsNotBegunAnewByEachRequest) {
  Catalog catalog(dir_ / "list", {});
  Json::Value mappings;
  mappings["property_id"] = "p";
  mappings["properties"]["p"]["analyzer"] = "keyword";
  catalog.Create("a", path_, mappings, Json::Value(Json::objectValue), Json::Value());
  catalog.Pause("a");
  orbisk::test::WriteFile(path_ + "/damaged", "");
  fs::create_directory(path_ + "/index.sqlite.repairing");  // where the repair has its new database
  EXPECT_THROW(catalog.Resume("a"), Refusal);
  const HostPtr host = catalog.Require("a");
  host->SetState(State::kAbsent);
  fs::remove(path_ + "/index.sqlite.repairing");

  catalog.Open("a");

  EXPECT_EQ(State::kAbsent, host->state());
  std::string message;
  EXPECT_EQ(1221, CodeOf(*host, For::kChanging, &message));
  EXPECT_NE(std::string::npos, message.find("index.sqlite.repairing")) << message;
  EXPECT_FALSE(host->MayTryAgain());
  EXPECT_TRUE(host->MayTryAgain(std::chrono::steady_clock::now() + std::chrono::minutes(1)));
  catalog.Pause("a");
  catalog.Resume("a");
  EXPECT_EQ(State::kOpen, host->state()) << "who asks for it need not wait";
}

TEST_F(HostedIndexTest, NewIndexIsNotTakenForTheDamagedOneBeforeIt) {
  fs::create_directory(path_);
  orbisk::test::WriteFile(path_ + "/damaged", "");
  Json::Value mappings;
  mappings["property_id"] = "p";
  mappings["properties"]["p"]["analyzer"] = "keyword";

  host_.Create(mappings, Json::Value(Json::objectValue));

  EXPECT_FALSE(fs::exists(path_ + "/damaged"));
}

TEST(IndexStat, CheckOfAnIndexThatIsNotOpenYetIsToldToComeBack) {
  orbisk::test::TempDir dir;
  Json::Value mappings;
  mappings["property_id"] = "p";
  mappings["properties"]["p"]["analyzer"] = "keyword";
  {
    Catalog catalog(dir / "list", {});
    catalog.Create("a", dir / "db", mappings, Json::Value(Json::objectValue), Json::Value());
    catalog.CloseAll();
  }
  Catalog catalog(dir / "list", {});
  catalog.Start();
  Commands commands(catalog);
  Json::Value data;
  data["id"] = "a";
  const auto stat = [&] {
    Command command{"index_stat", data, std::nullopt};
    return commands.Run(command);
  };
  EXPECT_NE(std::string::npos, stat().find("\"state\":\"opening\""));
  data["check"] = true;

  try {
    ADD_FAILURE() << "answered without a check: " << stat();
  } catch (const Refusal& refusal) {
    EXPECT_EQ(Code::kNotReady, refusal.code());
  }

  catalog.Open("a");
  EXPECT_NE(std::string::npos, stat().find("\"checked\":true"));
}

}  // namespace
}  // namespace nimoelasticd
