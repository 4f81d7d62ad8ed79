// The search daemon is killed at random instants: what was committed is there, and every database opens.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <random>
#include <set>
#include <thread>

#include "tests/support/private_mounts.h"
#include "tests/system/search_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

constexpr int kKills = 200;
constexpr int kChangesLost = 1224;

// Kills the daemon after `delay` while `work` goes on asking it.
template <typename Work>
void KillDuring(SearchBox& box, std::chrono::microseconds delay, const Work& work) {
  std::atomic<bool> killed{false};
  std::thread worker([&] {
    while (!killed && work()) {
    }
  });
  std::this_thread::sleep_for(delay);
  box.daemon().Kill(SIGKILL);
  killed = true;
  worker.join();
  box.Kill();
}

TEST(SearchKill, EveryCommittedDocumentIsFoundAfterEachOf200Kills) {
  SearchBox box;
  std::mt19937 random(20261121);
  std::set<std::string> committed;
  std::set<std::string> sent;
  int next = 0;
  box.Start();
  box.CreateIndex("a");

  for (int kill = 0; kill < kKills; ++kill) {
    KillDuring(box, std::chrono::microseconds(random() % 40'000), [&] {
      std::vector<std::string> batch;
      for (int i = 0; i < 3; ++i) {
        const std::string path = "/v/" + std::to_string(next++);
        sent.insert(path);
        if (box.Put("a", path, "word" + std::to_string(next) + " common") != 0) {
          return false;
        }
        batch.push_back(path);
      }
      const int code = box.CodeOf("commit", Object("{'id':'a'}"));
      if (code == kChangesLost) {
        return true;  // what the daemon before this one had not committed; an indexer sends its batch again
      }
      if (code != 0) {
        return false;
      }
      committed.insert(batch.begin(), batch.end());
      return true;
    });
    box.Start();
    ASSERT_EQ("", box.AskPatiently("index_stat", Object("{'id':'a'}"))["data"]["problem"].asString());
    if (kill % 20 == 19) {
      const std::vector<std::string> paths = box.PathsBelow("a", "/v");
      const std::set<std::string> found(paths.begin(), paths.end());
      ASSERT_TRUE(std::includes(found.begin(), found.end(), committed.begin(), committed.end())) << "kill " << kill;
      ASSERT_TRUE(std::includes(sent.begin(), sent.end(), found.begin(), found.end()));
    }
  }
  EXPECT_GT(committed.size(), 100U) << "the kills came too early to prove anything";
  const Json::Value checked = box.AskPatiently("index_stat", Object("{'id':'a','check':true}"));
  EXPECT_EQ("", checked["data"]["problem"].asString());
  const Json::Value found = box.AskPatiently("document_search", Object("{'id':'a','query':'common','limit':1}"));
  EXPECT_GE(found["data"]["total"].asUInt64(), committed.size());
}

TEST(SearchKill, MoveIsWholeOrNotAtAllWheneverItIsKilled) {
  SearchBox box;
  fs::create_directories(box.volume("other"));
  MountEmptyFileSystem(box.volume("other"), size_t{256} << 20);
  std::mt19937 random(7);
  box.Start();
  box.CreateIndex("a");
  for (int i = 0; i < 50; ++i) {
    box.Put("a", "/v/" + std::to_string(i), std::string(20'000, 'x') + std::to_string(i));
  }
  box.CodeOf("commit", Object("{'id':'a'}"));
  int arrived = 0;

  for (int kill = 0; kill < 40; ++kill) {
    bool there = false;
    KillDuring(box, std::chrono::microseconds(random() % 30'000), [&] {
      const std::string place = there ? box.volume("vol") + "/a" : box.volume("other") + "/deep/db";
      const std::string name = there ? "a" : "b";
      const std::string other = there ? "b" : "a";
      there = !there;
      return box.CodeOf("index_config_set",
                        Object("{'id':'" + other + "','data':{'id':'" + name + "','path':'" + place + "'}}")) == 0;
    });
    box.Start();
    const Json::Value list = box.Ask("index_list", Json::objectValue)["data"];
    ASSERT_EQ(1U, list.size());
    const std::string id = list[0]["id"].asString();
    const std::string path = list[0]["path"].asString();
    ASSERT_EQ(id == "a" ? box.volume("vol") + "/a" : box.volume("other") + "/deep/db", path);
    ASSERT_EQ(50U, box.PathsBelow(id, "/v").size()) << "kill " << kill;
    ASSERT_FALSE(fs::exists(id == "a" ? box.volume("other") + "/deep/db" : box.volume("vol") + "/a"));
    ASSERT_FALSE(fs::exists(path + ".moving"));
    arrived += id == "b" ? 1 : 0;
    if (id == "b") {
      ASSERT_EQ(0, box.CodeOf("index_config_set",
                              Object("{'id':'b','data':{'id':'a','path':'" + box.volume("vol") + "/a'}}")));
    }
  }
  EXPECT_GT(arrived, 0);
  EXPECT_LT(arrived, 40);
}

TEST(SearchKill, KilledCreationsAndDeletionsLeaveAllOrNothing) {
  SearchBox box;
  std::mt19937 random(11);
  box.Start();

  for (int kill = 0; kill < 30; ++kill) {
    KillDuring(box, std::chrono::microseconds(random() % 30'000), [&] {
      Json::Value data;
      data["id"] = "a";
      data["path"] = box.volume() + "/a";
      data["mappings"] = SmallMappings();
      const int made = box.CodeOf("index_create", data);
      return (made == 0 || made == 1220) && box.CodeOf("index_delete", Object("{'id':'a'}")) == 0;
    });
    box.Start();
    const bool listed = box.Ask("index_list", Json::objectValue)["data"].size() == 1;
    ASSERT_EQ(listed, fs::exists(box.volume() + "/a"));
    if (listed) {
      ASSERT_EQ(0, box.Put("a", "/v/x", "one"));
    }
  }
}

}  // namespace
}  // namespace orbisk::test
