// A question for somebody to many indexes, one of which has more files than can be checked in time.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "services/base/json_text.h"
#include "services/search/catalog.h"
#include "services/search/commands.h"
#include "tests/support/temp_dir.h"

namespace {

// A slow disk: of as many files as are checked at once, one takes this long.
std::atomic<int> milliseconds_of_one{0};

}  // namespace

// Stands before the C library's function of this name.
extern "C" int statx(int folder, const char* path, int flags, unsigned wanted, struct statx* info) noexcept {
  constexpr int kCheckedAtOnce = 256;
  static std::atomic<int> calls{0};
  if (milliseconds_of_one > 0 && ++calls % kCheckedAtOnce == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds_of_one));
  }
  return static_cast<int>(syscall(SYS_statx, folder, path, flags, wanted, info));
}

namespace nimoelasticd {
namespace {

constexpr int kSmallIndexes = 6;
constexpr int kFilesOfTheLarge = 2560;
// Checking the large one takes 1.2 s; half of the limit, shared by all indexes, is less than 0.9 s for each.
constexpr int kSlow = 120;
constexpr int kLimit = 12'000;

class ManyIndexes : public testing::Test {
 protected:
  void SetUp() override {
    for (int i = 0; i < kSmallIndexes; ++i) {
      Fill("m" + std::to_string(i), 1);
    }
  }
  void TearDown() override {
    milliseconds_of_one = 0;
    catalog_.CloseAll();
  }

  void Fill(const std::string& id, int files) {
    Json::Value mappings;
    mappings["property_id"] = "p";
    mappings["properties"]["p"]["analyzer"] = "keyword";
    mappings["properties"]["t"]["type"] = "text";
    catalog_.Create(id, dir_ / id, mappings, Json::Value(Json::objectValue), Json::Value());
    Json::Value data;
    data["id"] = id;
    data["data"]["t"] = "heron";
    for (int i = 0; i < files; ++i) {
      const std::string path = dir_ / (id + "-" + std::to_string(i));
      orbisk::test::WriteFile(path, "heron");
      data["doc_id"] = data["data"]["p"] = path;
      Run("document_upsert_by_id", data);
    }
    Run("commit", data);
  }

  Json::Value Run(const std::string& name, const Json::Value& data) {
    Command command{name, data, std::nullopt};
    return service::FromText(commands_.Run(command)).value_or(Json::Value());
  }

  // For whom the daemon may always act, while the disk is slow.
  Json::Value Search() {
    const passwd* const account = getpwuid(geteuid());
    Json::Value data;
    data["query"] = "heron";
    data["as"] = account == nullptr ? "root" : account->pw_name;
    data["time_limit_ms"] = kLimit;
    data["limit"] = 10'000;
    milliseconds_of_one = kSlow;
    return Run("document_search", data);
  }

  static int HitsOf(const Json::Value& answer, const std::string& id) {
    int hits = 0;
    for (const Json::Value& hit : answer["hits"]) {
      hits += hit["id"].asString() == id ? 1 : 0;
    }
    return hits;
  }

  orbisk::test::TempDir dir_;
  Catalog catalog_{dir_ / "list", {}};
  Commands commands_{catalog_};
};

TEST_F(ManyIndexes, ALargeOneTakesNoMoreThanItsShareOfTheTimeForChecking) {
  Fill("large", kFilesOfTheLarge);  // is asked first

  const Json::Value answer = Search();

  EXPECT_TRUE(answer["more"].asBool());
  EXPECT_LT(HitsOf(answer, "large"), kFilesOfTheLarge);
  EXPECT_GT(HitsOf(answer, "large"), 0);
  for (int i = 0; i < kSmallIndexes; ++i) {
    EXPECT_EQ(1, HitsOf(answer, "m" + std::to_string(i))) << i;
  }
}

TEST_F(ManyIndexes, WhatOthersLeaveUnusedIsForTheLastOne) {
  Fill("very large", kFilesOfTheLarge);

  const Json::Value answer = Search();

  EXPECT_FALSE(answer.isMember("more"));
  EXPECT_EQ(kFilesOfTheLarge, HitsOf(answer, "very large"));
}

}  // namespace
}  // namespace nimoelasticd
