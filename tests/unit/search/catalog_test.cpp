// The list of indexes, the mover, and what a start makes of each half-done change.
#include "services/search/catalog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

#include "services/search/lanes.h"
#include "services/search/mover.h"
#include "services/search/refusal.h"
#include "tests/support/temp_dir.h"

namespace nimoelasticd {
namespace {

namespace fs = std::filesystem;
using orbisk::test::ReadFile;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;

Json::Value Mappings() {
  Json::Value mappings;
  mappings["property_id"] = "NIMOMDPath";
  mappings["properties"]["NIMOMDPath"]["type"] = "string";
  mappings["properties"]["NIMOMDPath"]["analyzer"] = "keyword";
  mappings["properties"]["NIMOMDTextContent"]["type"] = "text";
  return mappings;
}

Entry EntryAt(const std::string& id, const std::string& path) {
  Entry entry;
  entry.id = id;
  entry.path = path;
  return entry;
}

TEST(Registry, RemembersEverythingOfAnEntry) {
  TempDir dir;
  Entry entry = EntryAt("a\xff\n", "/x/\xfe");
  entry.event_handler["lib_path"] = "/lib.so";
  entry.paused = true;
  entry.phase = Phase::kMoving;
  entry.new_id = "b";
  entry.new_path = "/y";
  Registry(dir / "list").Put(entry);

  const Registry again(dir / "list");

  EXPECT_EQ(std::vector<Entry>{entry}, again.Entries());
  EXPECT_EQ(entry.id, again.OwnerOf("/y"));
  EXPECT_EQ(entry.id, again.OwnerOf("/x/\xfe"));
  EXPECT_FALSE(again.OwnerOf("/z"));
}

TEST(Registry, ReplacingUnderANewIdTakesTheOldOneAway) {
  TempDir dir;
  Registry registry(dir / "list");
  registry.Put(EntryAt("a", "/a"));
  registry.Replace("a", EntryAt("b", "/b"));
  registry.Put(EntryAt("c", "/c"));
  registry.Remove("c");

  EXPECT_EQ(std::vector<Entry>{EntryAt("b", "/b")}, Registry(dir / "list").Entries());
}

TEST(Registry, ChangeThatCannotBeWrittenIsNotMade) {
  TempDir dir;
  fs::create_directory(dir / "state");
  Registry registry(dir / "state/list");
  registry.Put(EntryAt("a", "/a"));
  const std::string before = ReadFile(dir / "state/list");
  fs::create_directory(dir / "state/list.tmp");

  EXPECT_THROW(registry.Put(EntryAt("b", "/b")), std::system_error);

  EXPECT_EQ(std::vector<Entry>{EntryAt("a", "/a")}, registry.Entries());
  EXPECT_EQ(before, ReadFile(dir / "state/list"));
}

TEST(Registry, DamagedListIsRefused) {
  TempDir dir;
  for (const char* text : {"", "rubbish", "{}", "{\"format\":2,\"indexes\":[]}", "{\"format\":1,\"indexes\":[{}]}",
                           "{\"format\":1,\"indexes\":[{\"id\":\"a\",\"path\":\"/a\",\"phase\":\"odd\"}]}"}) {
    WriteFile(dir / "list", text);
    EXPECT_THROW(Registry(dir / "list"), std::runtime_error) << text;
  }
}

TEST(Mover, FolderIsRenamedWithWhateverIsInIt) {
  TempDir dir;
  fs::create_directory(dir / "from");
  WriteFile(dir / "from/data", "bytes");
  WriteFile(dir / "from/marker", "x");

  PlaceIndex(dir / "from", dir / "deep/er/to", {"data"});

  EXPECT_FALSE(fs::exists(dir / "from"));
  EXPECT_EQ("bytes", ReadFile(dir / "deep/er/to/data"));
  EXPECT_EQ("x", ReadFile(dir / "deep/er/to/marker"));
}

TEST(Mover, FolderInUseIsLeftAlone) {
  TempDir dir;
  fs::create_directory(dir / "from");
  WriteFile(dir / "from/data", "bytes");
  fs::create_directory(dir / "to");
  WriteFile(dir / "to/other", "x");

  EXPECT_THROW(PlaceIndex(dir / "from", dir / "to", {"data"}), std::system_error);

  EXPECT_EQ("bytes", ReadFile(dir / "from/data"));
  EXPECT_FALSE(fs::exists(dir / "to/data"));
}

// The states that a crash leaves, made by hand.
class CatalogStart : public testing::Test {
 protected:
  void SetUp() override {
    Catalog catalog(list_, {});
    catalog.Create("a", from_, Mappings(), Json::Value(Json::objectValue), Json::Value());
    catalog.CloseAll();
  }

  void Interrupt(Phase phase) {
    Entry entry = EntryAt("a", from_);
    entry.phase = phase;
    if (phase == Phase::kMoving) {
      entry.new_id = "b";
      entry.new_path = to_;
    }
    Registry(list_).Put(entry);
  }

  void ExpectOnly(const std::string& id, const std::string& path, const std::string& not_path) {
    Catalog catalog(list_, {});
    ASSERT_EQ(std::vector<std::string>{id}, catalog.Start());
    catalog.Open(id);
    EXPECT_EQ(State::kOpen, catalog.Require(id)->state());
    EXPECT_EQ(path, catalog.Require(id)->path());
    EXPECT_FALSE(fs::exists(not_path));
    EXPECT_FALSE(fs::exists(to_ + ".moving"));
    EXPECT_EQ(Phase::kReady, Registry(list_).Find(id)->phase);
  }

  TempDir dir_;
  const std::string list_ = dir_ / "list";
  const std::string from_ = dir_ / "from";
  const std::string to_ = dir_ / "to";
};

TEST_F(CatalogStart, MoveThatHadNotBegunIsUndone) {
  Interrupt(Phase::kMoving);
  ExpectOnly("a", from_, to_);
}

TEST_F(CatalogStart, MoveInTheMiddleOfItsCopyIsUndone) {
  Interrupt(Phase::kMoving);
  fs::create_directory(to_ + ".moving");
  WriteFile(to_ + ".moving/" + search::Index::FileNames().front(), "half");
  ExpectOnly("a", from_, to_);
}

TEST_F(CatalogStart, MoveWhoseCopyIsCompleteIsFinished) {
  Interrupt(Phase::kMoving);
  fs::copy(from_, to_, fs::copy_options::recursive);
  ExpectOnly("b", to_, from_);
}

TEST_F(CatalogStart, MoveWhoseFolderWasRenamedIsFinished) {
  Interrupt(Phase::kMoving);
  fs::rename(from_, to_);
  ExpectOnly("b", to_, from_);
}

TEST_F(CatalogStart, MoveWhoseFilesAreNowhereWaitsForThem) {
  Interrupt(Phase::kMoving);
  fs::rename(from_, dir_ / "unmounted");
  Catalog catalog(list_, {});
  ASSERT_EQ(std::vector<std::string>{"a"}, catalog.Start());
  catalog.Open("a");
  EXPECT_EQ(State::kAbsent, catalog.Require("a")->state());

  fs::rename(dir_ / "unmounted", to_);
  catalog.Open("a");

  EXPECT_EQ(nullptr, catalog.Find("a"));
  EXPECT_EQ(State::kOpen, catalog.Require("b")->state());
}

TEST_F(CatalogStart, CreationAndDeletionInTheMiddleEndWithoutTheIndex) {
  for (const Phase phase : {Phase::kCreating, Phase::kDeleting}) {
    Interrupt(phase);
    Catalog catalog(list_, {});
    EXPECT_TRUE(catalog.Start().empty());
    EXPECT_EQ(nullptr, catalog.Find("a"));
    EXPECT_FALSE(fs::exists(from_));
    EXPECT_TRUE(Registry(list_).Entries().empty());
  }
}

TEST_F(CatalogStart, IndexThatOthersMovedAlreadyIsTakenOver) {
  Catalog catalog(list_, {});
  catalog.Start();
  catalog.Open("a");
  fs::rename(from_, to_);

  catalog.Configure("a", "b", to_);

  EXPECT_EQ(State::kOpen, catalog.Require("b")->state());
  EXPECT_EQ(to_, Registry(list_).Find("b")->path);
}

TEST_F(CatalogStart, FilesOfAnUnknownIndexAreReplacedByANewOne) {
  fs::rename(from_, to_);
  Registry(list_).Remove("a");
  Catalog catalog(list_, {});
  catalog.Start();

  catalog.Create("new", to_, Mappings(), Json::Value(Json::objectValue), Json::Value());

  EXPECT_EQ(State::kOpen, catalog.Require("new")->state());
}

// The path of a library that this program has loaded.
std::string SomeLibrary() {
  const std::string maps = ReadFile("/proc/self/maps");
  const size_t end = maps.find(".so");
  const size_t start = maps.rfind(' ', end) + 1;
  return maps.substr(start, maps.find('\n', end) - start);
}

TEST(EventHandler, IsLoadedUnlessItIsMissingOrOthersMayWriteIt) {
  TempDir dir;
  fs::copy_file(SomeLibrary(), dir / "handler.so");
  Json::Value description;
  description["lib_path"] = dir / "handler.so";

  fs::permissions(dir / "handler.so", fs::perms{0644});
  EXPECT_NE(nullptr, EventHandler::Load("a", description));
  fs::permissions(dir / "handler.so", fs::perms{0664});
  EXPECT_EQ(nullptr, EventHandler::Load("a", description));
  WriteFile(dir / "rubbish.so", "no library");
  description["lib_path"] = dir / "rubbish.so";
  EXPECT_EQ(nullptr, EventHandler::Load("a", description));
  description["lib_path"] = "/nowhere.so";
  EXPECT_EQ(nullptr, EventHandler::Load("a", description));
  EXPECT_EQ(nullptr, EventHandler::Load("a", Json::Value("text")));
}

TEST(Lanes, TasksOfOneNameRunInOrderAndOfOthersBeside) {
  boost::asio::thread_pool pool(4);
  Lanes lanes(pool);
  std::vector<int> order;
  std::mutex gate;
  gate.lock();
  lanes.Post("held", [&] { const std::lock_guard wait(gate); });
  for (int i = 0; i < 1000; ++i) {
    lanes.Post("x", [&order, i] { order.push_back(i); });
  }
  while (lanes.Count("x") > 0) {
    std::this_thread::yield();
  }

  EXPECT_EQ(1U, lanes.Count("held"));
  gate.unlock();
  pool.join();
  ASSERT_EQ(1000U, order.size());
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

}  // namespace
}  // namespace nimoelasticd
