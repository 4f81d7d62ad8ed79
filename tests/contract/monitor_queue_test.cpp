// Registration with the change monitor. Runs on stock Linux alone: what is on disk is part of the contract here,
// because another program reads it.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "nimo/monitor_queue.h"
#include "tests/support/local_socket.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using NIMO::NIMOTIFYD::MONITOR_QUEUE_TYPE_APPLICATION;
using NIMO::NIMOTIFYD::MonitorQueue;

constexpr char kFolder[] = "/var/lib/nimotifyd/queues.d";
constexpr char kSocket[] = "/var/run/nimotifyd.sock";

Json::Value Description(const std::string& queue, const std::vector<std::string>& folders) {
  Json::Value description;
  description["queue"] = queue;
  description["config"] = Json::Value(Json::arrayValue);
  for (const std::string& folder : folders) {
    Json::Value entry;
    entry["path"] = folder;
    entry["mask"] = 65478;
    entry["ignore"].append("@eaDir");
    description["config"].append(entry);
  }
  return description;
}

bool Upsert(const Json::Value& description, const std::string& app = "fileindex") {
  return MonitorQueue::Upsert(MonitorQueue(description), app, MONITOR_QUEUE_TYPE_APPLICATION);
}

bool Delete(const std::string& queue, const std::string& app = "fileindex") {
  return MonitorQueue::Delete(queue, app, MONITOR_QUEUE_TYPE_APPLICATION);
}

std::vector<Json::Value> Registrations() {
  std::vector<Json::Value> result;
  if (!fs::exists(kFolder)) {
    return result;
  }
  for (const auto& item : fs::directory_iterator(kFolder)) {
    const std::string text = ReadFile(item.path());
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
    EXPECT_TRUE(std::none_of(text.begin(), text.end() - 1, [](unsigned char c) { return c < 0x20; })) << text;
    EXPECT_EQ(item.path().extension(), ".json");
    result.push_back(value);
  }
  return result;
}

class MonitorQueueTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { EnterPrivateMounts({"/var/lib/nimotifyd", "/run"}); }
  void SetUp() override { fs::remove_all("/var/lib/nimotifyd"); }
};

TEST_F(MonitorQueueTest, UpsertWritesOneReadableFileThatHoldsTheDescription) {
  const Json::Value description = Description("/volume1/@fileindex/photo/queue", {"/volume1/photo"});

  ASSERT_TRUE(Upsert(description));

  const std::vector<Json::Value> registrations = Registrations();
  ASSERT_EQ(registrations.size(), 1U);
  EXPECT_EQ(registrations[0]["queue"], description["queue"]);
  EXPECT_EQ(registrations[0]["config"], description["config"]);
  EXPECT_EQ(registrations[0]["app"], "fileindex");
  const fs::path file = fs::directory_iterator(kFolder)->path();
  EXPECT_EQ(fs::status(file).permissions(), fs::perms(0644));
}

TEST_F(MonitorQueueTest, UpsertReplacesARegistrationWhole) {
  ASSERT_TRUE(Upsert(Description("/q", {"/a", "/b"})));
  ASSERT_TRUE(Upsert(Description("/q", {"/c"})));

  const std::vector<Json::Value> registrations = Registrations();
  ASSERT_EQ(registrations.size(), 1U);
  EXPECT_EQ(registrations[0]["config"], Description("/q", {"/c"})["config"]);
}

TEST_F(MonitorQueueTest, QueuesAndApplicationsDoNotMeet) {
  ASSERT_TRUE(Upsert(Description("/q", {"/a"}), "one"));
  ASSERT_TRUE(Upsert(Description("/q", {"/a"}), "two"));
  ASSERT_TRUE(Upsert(Description("/q@two", {"/a"}), "one"));
  ASSERT_TRUE(Upsert(Description("/q", {"/a"}), "one@/q"));

  EXPECT_EQ(Registrations().size(), 4U);
  ASSERT_TRUE(Delete("/q", "two"));
  EXPECT_EQ(Registrations().size(), 3U);
}

TEST_F(MonitorQueueTest, AnyBytesInNamesMakeFilesOfTheirOwnAndComeBack) {
  std::set<std::string> queues = {"/a%2Fb", "/a/b",  "/.a",   "/..a", "/\xff",   "/\n",
                                  "/\x1f",  "/\x7f", "/\"\\", "/ü",   "/a%252Fb"};
  for (const std::string& queue : queues) {
    ASSERT_TRUE(Upsert(Description(queue, {queue + "/f\xfe"}))) << queue;
  }

  std::set<std::string> found;
  for (const Json::Value& registration : Registrations()) {
    found.insert(registration["queue"].asString());
    EXPECT_EQ(registration["config"][0]["path"].asString(), registration["queue"].asString() + "/f\xfe");
  }
  EXPECT_EQ(found, queues);
  for (const std::string& queue : queues) {
    EXPECT_TRUE(Delete(queue));
  }
  EXPECT_TRUE(Registrations().empty());
}

TEST_F(MonitorQueueTest, LongPathsAreToldApart) {
  const std::string first = "/" + std::string(3000, 'x') + "1";
  const std::string second = "/" + std::string(3000, 'x') + "2";
  ASSERT_TRUE(Upsert(Description(first, {"/a"})));
  ASSERT_TRUE(Upsert(Description(second, {"/b"})));
  EXPECT_EQ(Registrations().size(), 2U);

  ASSERT_TRUE(Delete(first));

  ASSERT_EQ(Registrations().size(), 1U);
  EXPECT_EQ(Registrations()[0]["queue"].asString(), second);
}

TEST_F(MonitorQueueTest, NoFoldersAreAFineRegistration) {
  Json::Value description;
  description["queue"] = "/q";
  EXPECT_TRUE(Upsert(description));
  description["config"] = Json::Value(Json::nullValue);
  EXPECT_TRUE(Upsert(description));
  EXPECT_EQ(Registrations().size(), 1U);
}

TEST_F(MonitorQueueTest, MalformedDescriptionIsRefusedAndChangesNothing) {
  const Json::Value good = Description("/q", {"/a"});
  ASSERT_TRUE(Upsert(good));
  std::vector<Json::Value> bad(15, good);
  bad[0] = Json::Value("text");
  bad[1].removeMember("queue");
  bad[2]["queue"] = "relative";
  bad[3]["queue"] = 7;
  bad[4]["config"] = "text";
  bad[5]["config"][0] = 3;
  bad[6]["config"][0]["path"] = "relative";
  bad[7]["config"][0]["mask"] = "all";
  bad[8]["config"][0].removeMember("mask");
  bad[9]["config"][0]["ignore"] = "@eaDir";
  bad[10]["config"][0]["ignore"][0] = "a/b";
  bad[11]["config"][0]["path"] = "/vol//share";
  bad[12]["config"][0]["path"] = "/vol/../share";
  bad[13]["config"][0]["path"] = "/vol/.";
  bad[14]["queue"] = "/q/";
  for (size_t i = 0; i < bad.size(); ++i) {
    EXPECT_FALSE(Upsert(bad[i])) << i;
  }
  EXPECT_FALSE(Upsert(good, ""));
  EXPECT_FALSE(Upsert(Description(std::string("/q\0x", 4), {"/a"})));

  ASSERT_EQ(Registrations().size(), 1U);
  EXPECT_EQ(Registrations()[0]["config"], good["config"]);
}

TEST_F(MonitorQueueTest, DeletingWhatIsNotRegisteredIsSuccess) {
  EXPECT_TRUE(Delete("/never"));
  ASSERT_TRUE(Upsert(Description("/q", {"/a"})));
  EXPECT_TRUE(Delete("/never"));
  EXPECT_EQ(Registrations().size(), 1U);
}

TEST_F(MonitorQueueTest, DeletingANameThatCannotBeRegisteredIsRefused) {
  EXPECT_FALSE(Delete("relative"));
  EXPECT_FALSE(Delete(""));
  EXPECT_FALSE(Delete("/q", ""));
}

TEST_F(MonitorQueueTest, UpsertThatCannotWriteIsRefused) {
  fs::create_directories("/var/lib/nimotifyd");
  WriteFile(kFolder, "in the way");

  EXPECT_FALSE(Upsert(Description("/q", {"/a"})));
}

TEST_F(MonitorQueueTest, SimultaneousUpsertsLeaveOneComplete) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(Upsert(Description("/q", std::vector<std::string>(static_cast<size_t>(50 * (i + 1)), "/a"))));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  const std::vector<Json::Value> registrations = Registrations();
  ASSERT_EQ(registrations.size(), 1U);
  EXPECT_EQ(registrations[0]["config"].size() % 50, 0U);
}

// A monitor that answers one connection.
class Listener {
 public:
  explicit Listener(std::string answer) : fd_(ListenAt(kSocket, 1)) {
    thread_ = std::thread([this, answer = std::move(answer)] {
      const int connection = accept(fd_, nullptr, nullptr);
      char buffer[64];
      const ssize_t count = recv(connection, buffer, sizeof(buffer), 0);
      request_.assign(buffer, count > 0 ? static_cast<size_t>(count) : 0);
      registered_ = Registrations().size();
      send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
      close(connection);
    });
  }
  ~Listener() {
    Finish();
    close(fd_);
    unlink(kSocket);
  }
  void Finish() {
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  const std::string& request() const { return request_; }
  size_t registered() const { return registered_; }

 private:
  int fd_;
  std::thread thread_;
  std::string request_;
  size_t registered_ = 0;
};

TEST_F(MonitorQueueTest, RunningMonitorIsPokedWhenTheRegistrationIsOnDisk) {
  Listener monitor("ok\n");

  EXPECT_TRUE(Upsert(Description("/q", {"/a"})));

  monitor.Finish();
  EXPECT_EQ(monitor.request(), "reload\n");
  EXPECT_EQ(monitor.registered(), 1U);
}

TEST_F(MonitorQueueTest, MonitorThatHangsUpDoesNotMakeTheRegistrationFail) {
  Listener monitor("");

  EXPECT_TRUE(Upsert(Description("/q", {"/a"})));
  EXPECT_EQ(Registrations().size(), 1U);
}

TEST_F(MonitorQueueTest, DeletePokesTheMonitorToo) {
  ASSERT_TRUE(Upsert(Description("/q", {"/a"})));
  Listener monitor("ok\n");

  EXPECT_TRUE(Delete("/q"));

  monitor.Finish();
  EXPECT_EQ(monitor.request(), "reload\n");
  EXPECT_EQ(monitor.registered(), 0U);
}

}  // namespace
}  // namespace orbisk::test
