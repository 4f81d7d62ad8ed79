// What is left after a kill, a full disk, a damaged file; repair and tidying up.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "services/search/database.h"
#include "services/search/sqlite.h"
#include "services/search/store.h"
#include "tests/unit/search/engine_support.h"

namespace search::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::string PathOf(int number) {
  return "/v/d" + std::to_string(number) + ".txt";
}

std::string TextOf(int number) {
  std::string text = "every one number" + std::to_string(number);
  for (int i = 0; i < 40; ++i) {
    text += " w" + std::to_string((number * 31 + i * 17) % 997);
  }
  return text;
}

void Overwrite(const std::string& file, off_t offset, const std::string& bytes) {
  const int descriptor = open(file.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(pwrite(descriptor, bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()));
  close(descriptor);
}

// Writes batches of ten documents for ever and tells the number of each that is committed.
[[noreturn]] void WriteForEver(const std::string& path, int first, int told) {
  const auto index = Index::Open(path);
  for (int number = first;; number += 10) {
    for (int i = number; i < number + 10; ++i) {
      index->Upsert(PathOf(i), Document(PathOf(i), TextOf(i)));
    }
    index->Set(PathOf(number), Json_("{'NIMOMDPath': '/v/moved/" + std::to_string(number) + "'}"));
    index->Commit();
    if (write(told, &number, sizeof(number)) != sizeof(number)) {
      _exit(1);
    }
  }
}

// Runs WriteForEver in a process of its own and kills it after a while. Returns the last batch that it told of.
int WriteAndKill(const std::string& path, int first, std::chrono::microseconds after) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    WriteForEver(path, first, ends[1]);
  }
  close(ends[1]);
  std::this_thread::sleep_for(after);
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status));
  int last = first - 10;
  while (read(ends[0], &last, sizeof(last)) == sizeof(last)) {
  }
  close(ends[0]);
  return last;
}

TEST(KillTest, LosesNothingThatWasCommitted) {
  Fixture fixture;
  fixture.index.reset();
  std::mt19937 random(7);
  std::uniform_int_distribution<int> wait(0, 40'000);
  int next = 0;
  // More rounds, and longer ones, where a slow build writes little in each.
  for (int round = 0; round < 60 || (next <= 100 && round < 600); ++round) {
    const int last = WriteAndKill(fixture.path(), next, std::chrono::microseconds(wait(random) * (1 + round / 60)));
    next = last + 10;
    fixture.index = Index::Open(fixture.path());
    const auto paths = Get(*fixture.index, "{'match_all': {}}");
    // One more batch may be committed that the child had no time to tell of; never a part of one.
    ASSERT_GE(paths.size(), static_cast<size_t>(next));
    ASSERT_EQ(paths.size() % 10, 0u);
    next = static_cast<int>(paths.size());
    if (next > 0) {
      ASSERT_THAT(Find(*fixture.index, "number" + std::to_string(next - 1)), ElementsAre(PathOf(next - 1)));
      ASSERT_THAT(Find(*fixture.index, "number" + std::to_string(next - 10)),
                  ElementsAre("/v/moved/" + std::to_string(next - 10)));
    }
    fixture.index.reset();
  }
  EXPECT_GT(next, 100) << "it shows little";
  fixture.index = Index::Open(fixture.path());
  EXPECT_EQ(fixture.index->Stat(true).problem, "");
}

TEST(DiskFullTest, LeavesTheLastCommitAndSaysSoUntilTheNext) {
  OpenOptions options;
  options.max_database_bytes = 600'000;
  options.batch_bytes = 64 << 10;
  options.cache_bytes = 64 << 10;
  Fixture fixture(Json::objectValue, options);
  fixture.Put("/v/kept", "kept");
  fixture.index->Commit();
  std::mt19937 random(1);

  ErrorCode code{};
  for (int i = 0; i < 10'000 && code == ErrorCode{}; ++i) {
    std::string noise;
    for (int word = 0; word < 200; ++word) {
      noise += std::to_string(random()) + " ";
    }
    try {
      fixture.Put("/v/" + std::to_string(i), noise);
    } catch (const Error& error) {
      code = error.code();
    }
  }
  EXPECT_EQ(code, ErrorCode::kDiskFull);
  EXPECT_EQ(CodeOf([&] { fixture.index->Commit(); }), ErrorCode::kDiskFull);
  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}"), ElementsAre("/v/kept"));
  EXPECT_THAT(Find(*fixture.index, "kept"), ElementsAre("/v/kept"));

  fixture.Put("/v/small", "small");
  fixture.index->Commit();
  EXPECT_THAT(Find(*fixture.index, "small"), ElementsAre("/v/small"));
  EXPECT_EQ(fixture.index->Stat(true).problem, "");
}

TEST(DamageTest, OfTheHeaderIsFoundAtOpening) {
  Fixture fixture;
  fixture.Put("/v/a", "x");
  fixture.index->Commit();
  fixture.index.reset();
  Overwrite(fixture.path() + "/index.sqlite", 0, std::string(100, 'x'));

  EXPECT_EQ(CodeOf([&] { Index::Open(fixture.path()); }), ErrorCode::kCorrupt);
  EXPECT_EQ(CodeOf([&] { Index::Repair(fixture.path(), nullptr); }), ErrorCode::kCorrupt);
}

// Damages every fourth page behind the first ones, but for the last.
void DamagePages(const std::string& file) {
  const auto size = static_cast<off_t>(std::filesystem::file_size(file));
  for (off_t page = 40; (page + 1) * 4096 < size; page += 4) {
    Overwrite(file, page * 4096, std::string(64, '\xee'));
  }
}

TEST(DamageTest, OfPagesIsFoundByACheckAndRepairedFromTheDocuments) {
  Fixture fixture;
  for (int i = 0; i < 5'000; ++i) {
    fixture.Put(PathOf(i), TextOf(i));
  }
  fixture.index->Commit();
  fixture.index.reset();
  DamagePages(fixture.path() + "/index.sqlite");

  fixture.index = Index::Open(fixture.path());
  EXPECT_NE(fixture.index->Stat(true).problem, "");
  fixture.index.reset();
  bool lost = false;
  const int64_t saved = Index::Repair(fixture.path(), &lost);

  EXPECT_TRUE(lost);
  EXPECT_GT(saved, 1'000);
  fixture.index = Index::Open(fixture.path());
  EXPECT_EQ(fixture.index->Stat(true).problem, "");
  EXPECT_EQ(fixture.index->Stat(true).documents, saved);
  const auto paths = Get(*fixture.index, "{'match_all': {}}");
  EXPECT_THAT(paths, SizeIs(static_cast<size_t>(saved)));
  const Json::Value fields = Fields(*fixture.index, paths.back(), {"NIMOMDFSName"});
  EXPECT_THAT(Find(*fixture.index, "name:\"" + fields["NIMOMDFSName"].asString() + "\""),
              testing::Contains(paths.back()));
}

TEST(DamageTest, IsFoundAtOpeningAfterAnUncleanEnd) {
  Fixture fixture;
  for (int i = 0; i < 5'000; ++i) {
    fixture.Put(PathOf(i), TextOf(i));
  }
  fixture.index->Commit();
  fixture.index.reset();
  WriteAndKill(fixture.path(), 10'000, std::chrono::milliseconds(300));
  ASSERT_GT(std::filesystem::file_size(fixture.path() + "/index.sqlite-wal"), 0u);
  DamagePages(fixture.path() + "/index.sqlite");

  EXPECT_EQ(CodeOf([&] { Index::Open(fixture.path()); }), ErrorCode::kCorrupt);
}

TEST(DamageTest, OfOneByteNeverEndsInAnythingButAnErrorOfOurs) {
  Fixture fixture;
  for (int i = 0; i < 300; ++i) {
    fixture.Put(PathOf(i), TextOf(i));
  }
  fixture.index->Commit();
  fixture.index.reset();
  const std::string file = fixture.path() + "/index.sqlite";
  const std::string whole = orbisk::test::ReadFile(file);
  std::mt19937 random(3);
  for (int round = 0; round < 150; ++round) {
    const auto offset = static_cast<off_t>(random() % whole.size());
    Overwrite(file, offset, std::string(1, static_cast<char>(random())));
    try {
      const auto index = Index::Open(fixture.path());
      index->Stat(true);
      Find(*index, "every one");
      Get(*index, "{'match_all': {}}");
      index->DeleteByQuery(Json_("{'qsl': {'prefix': {'NIMOMDPath': '/v/d1'}}}"));
    } catch (const Error&) {
    }
    Overwrite(file, offset, std::string(1, whole[static_cast<size_t>(offset)]));
  }
  EXPECT_THAT(Get(*Index::Open(fixture.path()), "{'match_all': {}}"), SizeIs(300));
}

TEST(RepairTest, OfAHealthyIndexKeepsEverything) {
  Fixture fixture;
  Json::Value document = Document("/v/a.txt", "the text");
  document["NIMOMDKeywords"] = Json_("['one', 'two']");
  document["NIMOMDOther"] = "kept";
  fixture.index->Upsert("/v/a.txt", document);
  fixture.index->Commit();
  fixture.index.reset();
  bool lost = true;

  EXPECT_EQ(Index::Repair(fixture.path(), &lost), 1);

  EXPECT_FALSE(lost);
  fixture.index = Index::Open(fixture.path());
  EXPECT_EQ(Fields(*fixture.index, "/v/a.txt", document.getMemberNames()), document);
  EXPECT_THAT(Find(*fixture.index, "text two"), ElementsAre("/v/a.txt"));
}

TEST(RepairTest, ThatWasCutShortIsFinishedByOpening) {
  Fixture fixture;
  fixture.Put("/v/a", "old");
  fixture.index->Commit();
  orbisk::test::TempDir other;
  {
    const auto repaired = Index::Create(other / "db", Mappings(), Json::objectValue);
    repaired->Upsert("/v/b", Document("/v/b", "new"));
    repaired->Commit();
  }
  fixture.index.reset();
  std::filesystem::copy(other / "db/index.sqlite", fixture.path() + "/index.sqlite.repaired");

  fixture.index = Index::Open(fixture.path());

  EXPECT_THAT(Find(*fixture.index, "new"), ElementsAre("/v/b"));
  EXPECT_FALSE(std::filesystem::exists(fixture.path() + "/index.sqlite.repaired"));
}

TEST(FilesTest, BelongToTheirOwnerAndGoWithTheIndex) {
  Fixture fixture;
  fixture.Put("/v/a");
  fixture.index->Commit();
  struct stat status {};
  ASSERT_EQ(stat((fixture.path() + "/index.sqlite-wal").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);

  EXPECT_EQ(CodeOf([&] { Index::Create(fixture.path(), Mappings(), Json::objectValue); }), ErrorCode::kIndexExists);
  fixture.index.reset();
  EXPECT_FALSE(std::filesystem::exists(fixture.path() + "/index.sqlite-wal"));
  orbisk::test::WriteFile(fixture.path() + "/other", "x");
  Index::Remove(fixture.path());
  EXPECT_TRUE(std::filesystem::exists(fixture.path() + "/other"));
  std::filesystem::remove(fixture.path() + "/other");
  Index::Remove(fixture.path());
  EXPECT_FALSE(std::filesystem::exists(fixture.path()));
  Index::Remove(fixture.path());
}

TEST(FilesTest, OfALaterFormatAreLeftAlone) {
  Fixture fixture;
  fixture.index.reset();
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open((fixture.path() + "/index.sqlite").c_str(), &database), SQLITE_OK);
  sqlite3_exec(database, "UPDATE meta SET value = 99 WHERE name = 'format'", nullptr, nullptr, nullptr);
  sqlite3_close(database);

  EXPECT_EQ(CodeOf([&] { Index::Open(fixture.path()); }), ErrorCode::kNewerFormat);
}

TEST(CompactTest, TheFileShrinksWhenHalfIsDeleted) {
  Fixture fixture;
  for (int i = 0; i < 10'000; ++i) {
    fixture.Put(PathOf(i), TextOf(i));
  }
  fixture.index->Commit();
  while (fixture.index->Compact(std::chrono::milliseconds(50))) {
  }
  const int64_t before = fixture.index->Stat(false).bytes;
  for (int i = 0; i < 5'000; ++i) {
    fixture.index->Delete(PathOf(i));
  }
  EXPECT_TRUE(fixture.index->Compact(std::chrono::seconds(1)));  // not in the middle of changes
  EXPECT_TRUE(fixture.index->HasUncommitted());
  fixture.index->Commit();

  while (fixture.index->Compact(std::chrono::milliseconds(50))) {
  }

  EXPECT_LT(fixture.index->Stat(false).bytes, before * 7 / 10);
  EXPECT_THAT(Find(*fixture.index, "every"), SizeIs(5'000));
  EXPECT_EQ(fixture.index->Stat(true).problem, "");
}

int64_t PiecesThatAreJoined(Connection& connection) {
  return connection.QueryInt("SELECT v FROM fts_config WHERE k = 'automerge'");
}

TEST(CompactTest, WordsAreJoinedAgainAfterADeletionThatFailed) {
  Fixture fixture;
  fixture.index.reset();
  Database database(DatabaseFile(fixture.path()));
  Connection& connection = database.connection();
  connection.Exec("BEGIN");
  try {
    const WordMergingPause pause(connection);
    EXPECT_EQ(PiecesThatAreJoined(connection), 0);
    throw Error(ErrorCode::kQueryTimeout, "it leaves the transaction open");
  } catch (const Error&) {
    EXPECT_EQ(PiecesThatAreJoined(connection), 4);
  }
}

TEST(CompactTest, WordsAreJoinedAgainAfterADeletionOfMany) {
  Fixture fixture;
  for (int i = 0; i < 2'000; ++i) {
    fixture.Put(PathOf(i), "word");
  }
  fixture.index->DeleteByQuery(Json_("{'qsl': {'match_all': {}}}"));
  fixture.index->Commit();
  fixture.index.reset();

  Connection connection(fixture.path() + "/index.sqlite", SQLITE_OPEN_READWRITE);
  EXPECT_EQ(PiecesThatAreJoined(connection), 4);
}

TEST(CompactTest, WhatWasDeletedIsRememberedAcrossARestart) {
  Fixture fixture;
  for (int i = 0; i < 4'000; ++i) {
    fixture.Put(PathOf(i), TextOf(i));
  }
  fixture.index->Commit();
  while (fixture.index->Compact(std::chrono::milliseconds(50))) {
  }
  const int64_t before = fixture.index->Stat(false).bytes;
  fixture.index->DeleteByQuery(Json_("{'qsl': {'match_all': {}}}"));
  fixture.Put("/v/last", "word");
  fixture.index->Commit();
  for (int i = 0; i < 2'000; ++i) {
    fixture.Put(PathOf(i), TextOf(i));
  }

  fixture.Reopen();  // what was not committed is gone, and with it its deletions
  while (fixture.index->Compact(std::chrono::milliseconds(50))) {
  }

  EXPECT_LT(fixture.index->Stat(false).bytes, before / 4);
  fixture.Reopen();
  const int64_t after = fixture.index->Stat(false).bytes;
  EXPECT_FALSE(fixture.index->Compact(std::chrono::milliseconds(50))) << "there is nothing left to do";
  EXPECT_EQ(fixture.index->Stat(false).bytes, after);
  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}"), ElementsAre("/v/last"));
}

// What a disk keeps of the log when the power fails while it is written: its beginning, and then anything.
TEST(PowerCutTest, ATornLogLeavesAWholeCommitAndNoDamage) {
  Fixture fixture;
  for (int i = 0; i < 200; ++i) {
    fixture.Put(PathOf(i), TextOf(i));
    if (i % 10 == 9) {
      fixture.index->Commit();
    }
  }
  const std::string file = fixture.path() + "/index.sqlite";
  const std::string database = orbisk::test::ReadFile(file);
  const std::string log = orbisk::test::ReadFile(file + "-wal");
  ASSERT_GT(log.size(), 400'000u);
  std::mt19937 random(11);
  size_t fewest = 200;
  size_t most = 0;
  for (int round = 0; round < 60; ++round) {
    const orbisk::test::TempDir disk;
    std::string torn = log.substr(0, random() % log.size());
    for (size_t i = random() % 3 * 3'000; i > 0; --i) {
      torn += static_cast<char>(random());
    }
    orbisk::test::WriteFile(disk / "index.sqlite", database);
    orbisk::test::WriteFile(disk / "index.sqlite-wal", torn);

    const auto index = Index::Open(disk.path());

    const size_t documents = Get(*index, "{'match_all': {}}").size();
    ASSERT_EQ(documents % 10, 0u);
    ASSERT_EQ(index->Stat(true).problem, "");
    fewest = std::min(fewest, documents);
    most = std::max(most, documents);
  }
  EXPECT_LT(fewest, 100u);
  EXPECT_GT(most, 120u);
}

TEST(ThreadTest, AReaderNeverWaitsForTheWriter) {
  Fixture fixture;
  fixture.Put("/v/a", "word");
  fixture.index->Commit();
  fixture.Put("/v/b", "word");
  std::atomic<bool> inside = false;
  std::atomic<bool> done = false;
  // A writing-side call that does not end before the searches have.
  std::thread holder([&] {
    fixture.index->Get(Json_("{'qsl': {'match_all': {}}}"), std::nullopt, [&](Json::Value&&) {
      inside = true;
      while (!done) {
        std::this_thread::yield();
      }
    });
  });
  while (!inside) {
    std::this_thread::yield();
  }

  EXPECT_THAT(Find(*fixture.index, "word"), ElementsAre("/v/a"));
  EXPECT_THAT(Get(*fixture.index, "{'match_all': {}}", View::kCommitted), ElementsAre("/v/a"));
  EXPECT_THAT(fixture.index->Suggest("w"), IsEmpty());

  done = true;
  holder.join();
}

TEST(ThreadTest, ManyReadersAndWritersSeeWholeCommits) {
  Fixture fixture;
  std::atomic<bool> stop = false;
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      while (!stop) {
        const size_t count = Find(*fixture.index, "every").size();
        EXPECT_EQ(count % 10, 0u);
      }
    });
  }
  for (int i = 0; i < 300; ++i) {
    fixture.Put(PathOf(i), TextOf(i));
    if (i % 10 == 9) {
      fixture.index->Commit();
    }
  }
  stop = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_THAT(Find(*fixture.index, "every"), SizeIs(300));
}

TEST(TimeLimitTest, EndsASearchThatTakesTooLong) {
  Fixture fixture;
  for (int i = 0; i < 5'000; ++i) {
    fixture.Put(PathOf(i));
  }
  fixture.index->Commit();
  SearchOptions options;
  options.time_limit = std::chrono::milliseconds(0);

  EXPECT_EQ(CodeOf([&] { fixture.index->Search("NIMOMDFSName:absent folder:/v", options); }), ErrorCode::kQueryTimeout);
  EXPECT_THAT(Find(*fixture.index, "d77"), testing::Contains("/v/d77.txt"));
}

}  // namespace
}  // namespace search::test
