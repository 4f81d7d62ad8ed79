// Registration with the change monitor, as every platform answers it.
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "nimo/monitor_queue.h"
#include "tests/contract/platform_under_test.h"

namespace orbisk::test {
namespace {

using NIMO::NIMOTIFYD::MONITOR_QUEUE_TYPE_APPLICATION;
using NIMO::NIMOTIFYD::MonitorQueue;

Json::Value Description(const std::string& queue, const std::string& folder) {
  Json::Value description;
  description["queue"] = queue;
  description["config"][0]["path"] = folder;
  description["config"][0]["mask"] = 65478;
  description["config"][0]["ignore"].append("@eaDir");
  return description;
}

bool Upsert(const Json::Value& description, const std::string& app = "fileindex") {
  return MonitorQueue::Upsert(MonitorQueue(description), app, MONITOR_QUEUE_TYPE_APPLICATION);
}

bool Delete(const std::string& queue, const std::string& app = "fileindex") {
  return MonitorQueue::Delete(queue, app, MONITOR_QUEUE_TYPE_APPLICATION);
}

class MonitorRegistration : public testing::Test {
 protected:
  void SetUp() override {
    if (!ForgetRegistrations()) {
      GTEST_SKIP() << "no private mounts here";
    }
  }
};

TEST_F(MonitorRegistration, ReplacesAQueuesRegistrationWhole) {
  EXPECT_TRUE(Upsert(Description("/q", "/first")));
  EXPECT_TRUE(Upsert(Description("/q", "/second")));
  ASSERT_EQ(1U, RegisteredConfigs().size());
  EXPECT_EQ("/second", RegisteredConfigs()[0][0]["path"].asString());
}

TEST_F(MonitorRegistration, KeepsQueuesAndApplicationsApart) {
  EXPECT_TRUE(Upsert(Description("/q", "/a")));
  EXPECT_TRUE(Upsert(Description("/r", "/a")));
  EXPECT_TRUE(Upsert(Description("/q", "/a"), "other"));
  EXPECT_EQ(3U, RegisteredConfigs().size());
  EXPECT_TRUE(Delete("/q"));
  EXPECT_EQ(2U, RegisteredConfigs().size());
}

TEST_F(MonitorRegistration, RefusesAMalformedDescriptionAndChangesNothing) {
  const Json::Value good = Description("/q", "/a");
  ASSERT_TRUE(Upsert(good));
  std::vector<Json::Value> bad(7, good);
  bad[0] = Json::Value("text");
  bad[1].removeMember("queue");
  bad[2]["queue"] = "relative";
  bad[3]["config"] = "text";
  bad[4]["config"][0].removeMember("mask");
  bad[5]["config"][0]["path"] = "relative";
  bad[6]["config"][0]["ignore"][0] = "a/b";
  for (size_t i = 0; i < bad.size(); ++i) {
    EXPECT_FALSE(Upsert(bad[i])) << i;
  }
  EXPECT_FALSE(Upsert(good, ""));
  ASSERT_EQ(1U, RegisteredConfigs().size());
  EXPECT_EQ(good["config"], RegisteredConfigs()[0]);
}

TEST_F(MonitorRegistration, RefusesPathsThatAreNotPlain) {
  const Json::Value good = Description("/q", "/a");
  for (const char* const path : {"/v//a", "//a", "/v/./a", "/v/.", "/v/../a", "/v/..", "/./"}) {
    Json::Value bad = good;
    bad["config"][0]["path"] = path;
    EXPECT_FALSE(Upsert(bad)) << path;
    EXPECT_FALSE(Upsert(Description(path, "/a"))) << path;
    EXPECT_FALSE(Delete(path)) << path;
  }
  EXPECT_FALSE(Upsert(Description("/q/", "/a")));
  EXPECT_FALSE(Delete("/q/"));
  EXPECT_EQ(0U, RegisteredConfigs().size());

  EXPECT_TRUE(Upsert(Description("/.v/q..", "/v/a/")));
}

TEST_F(MonitorRegistration, TakesDeletingWhatIsNotThereForSuccessAndRefusesWhatCannotBe) {
  EXPECT_TRUE(Delete("/never"));
  EXPECT_FALSE(Delete("relative"));
  EXPECT_FALSE(Delete("/q", ""));
}

}  // namespace
}  // namespace orbisk::test
