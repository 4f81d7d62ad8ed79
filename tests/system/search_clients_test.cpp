// The search daemon as a program, and among clients that mean harm.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <thread>

#include "tests/system/search_support.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using std::chrono::seconds;

bool Answers(const SearchBox& box) {
  return box.CodeOf("index_list", Json::objectValue) == 0;
}

TEST(SearchProgram, HelpNamesTheOptionsAndVersionIsOneLine) {
  const ProcessResult help = RunProcess({SearchDaemonProgram(), "--help"});
  const ProcessResult version = RunProcess({SearchDaemonProgram(), "--version"});

  EXPECT_EQ(0, help.exit_status);
  for (const char* option : {"--socket", "--state-dir", "--log-level", "--memory-limit-mib", "--max-waiting"}) {
    EXPECT_NE(std::string::npos, help.output.find(option)) << option;
  }
  EXPECT_EQ(0U, version.output.find("nimoelasticd "));
}

TEST(SearchProgram, WrongUsageIsExitStatus2) {
  EXPECT_EQ(2, RunProcess({SearchDaemonProgram(), "--no-such-option"}).exit_status);
  EXPECT_EQ(2, RunProcess({SearchDaemonProgram(), "--log-level", "loud"}).exit_status);
  EXPECT_EQ(2, RunProcess({SearchDaemonProgram(), "--max-waiting", "0"}).exit_status);
}

TEST(SearchProgram, SecondDaemonForOneListOfIndexesNamesTheFirst) {
  SearchBox box;
  box.Start();

  const ProcessResult second =
      RunProcess({SearchDaemonProgram(), "--socket", box.root() + "/other", "--state-dir", box.root() + "/state"});

  EXPECT_EQ(1, second.exit_status);
  EXPECT_NE(std::string::npos, second.errors.find("process " + std::to_string(box.daemon().pid()))) << second.errors;
  EXPECT_TRUE(Answers(box));
}

TEST(SearchProgram, DamagedListOfIndexesIsKeptAndNotStartedFrom) {
  SearchBox box;
  fs::create_directories(box.root() + "/state");
  WriteFile(box.root() + "/state/indexes.json", "rubbish");

  const ProcessResult result =
      RunProcess({SearchDaemonProgram(), "--socket", box.socket(), "--state-dir", box.root() + "/state"});

  EXPECT_EQ(1, result.exit_status);
  EXPECT_EQ("rubbish", ReadFile(box.root() + "/state/indexes.json"));
}

TEST(SearchProgram, DaemonWithoutASocketTouchesNoIndex) {
  SearchBox box;
  box.Start();
  box.CreateIndex("a");
  box.Stop();
  const std::string list = box.root() + "/state/indexes.json";
  std::string text = ReadFile(list);
  const std::string ready = R"("phase":"ready")";
  ASSERT_NE(std::string::npos, text.find(ready)) << text;
  WriteFile(list, text.replace(text.find(ready), ready.size(), R"("phase":"deleting")"));
  fs::create_directory(box.root() + "/taken");

  const ProcessResult result =
      RunProcess({SearchDaemonProgram(), "--socket", box.root() + "/taken", "--state-dir", box.root() + "/state"});

  EXPECT_EQ(1, result.exit_status);
  EXPECT_TRUE(fs::exists(box.volume() + "/a/index.sqlite"));
  box.Start();
  EXPECT_FALSE(fs::exists(box.volume() + "/a")) << "a start with a socket ends the deletion";
}

TEST(SearchProgram, SocketIsForRootAndGroupAndGoneAfterTheEnd) {
  SearchBox box;
  box.Start();
  struct stat info {};
  ASSERT_EQ(0, stat(box.socket().c_str(), &info));
  EXPECT_EQ(0660U, info.st_mode & 0777);

  EXPECT_EQ(0, box.Stop().exit_status);
  EXPECT_FALSE(fs::exists(box.socket()));
}

TEST(SearchProgram, SocketBelongsToTheGroupThatItWasTold) {
  SearchBox box;
  if (ReadFile("/proc/self/setgroups") == "deny\n") {
    GTEST_SKIP() << "only root can give a socket to any group";
  }
  box.Start({"--group", "daemon"});
  struct stat info {};
  ASSERT_EQ(0, stat(box.socket().c_str(), &info));

  EXPECT_EQ(1U, info.st_gid);  // in every Debian
}

TEST(SearchProgram, TermEndsItWithinASecondAndKeepsNothingUncommitted) {
  SearchBox box;
  box.Start();
  box.CreateIndex("a");
  box.Put("a", "/v/kept", "one");
  box.CodeOf("commit", Object("{'id':'a'}"));
  box.Put("a", "/v/half", "two");

  const auto start = std::chrono::steady_clock::now();
  const ProcessResult result = box.Stop();
  const auto took = std::chrono::steady_clock::now() - start;

  EXPECT_EQ(0, result.exit_status);
  EXPECT_LT(took, milliseconds(1500));  // a second, and what a busy machine adds
  box.Start();
  EXPECT_EQ(std::vector<std::string>{"/v/kept"}, box.PathsBelow("a", "/v"));
}

TEST(SearchProgram, CommitAfterARestartTellsOnceThatChangesAreGone) {
  SearchBox box;
  box.Start();
  box.CreateIndex("a");
  box.Put("a", "/v/half", "one");
  box.Kill();
  box.Start();
  box.Put("a", "/v/more", "two");

  EXPECT_EQ(1224, box.CodeOf("commit", Object("{'id':'a'}")));
  EXPECT_EQ(0, box.CodeOf("commit", Object("{'id':'a'}")));

  EXPECT_EQ(std::vector<std::string>{"/v/more"}, box.PathsBelow("a", "/v"));
  box.Kill();
  box.Start();
  box.Put("a", "/v/last", "three");
  EXPECT_EQ(0, box.CodeOf("commit", Object("{'id':'a'}"))) << "everything was committed before this kill";
}

TEST(SearchProgram, MissingEventHandlerIsRecordedOnce) {
  SearchBox box;
  box.Start();
  box.CreateIndex("a");
  box.Put("a", "/v/x", "one");
  box.CodeOf("index_pause", Object("{'id':'a'}"));
  box.CodeOf("index_resume", Object("{'id':'a'}"));

  const std::string records = box.Stop().errors;

  const size_t first = records.find("event_handler_missing");
  ASSERT_NE(std::string::npos, first) << records;
  EXPECT_EQ(std::string::npos, records.find("event_handler_missing", first + 1));
}

// An index that has room to give back once its documents are deleted.
class Shrinking : public testing::Test {
 protected:
  // Fewer deletions than these are not worth the work.
  void Fill() {
    box_.CreateIndex("a");
    for (int i = 0; i < 1500; ++i) {
      std::string text;
      for (int word = 0; word < 100; ++word) {
        text += "w" + std::to_string(i * 1009 + word * 7919) + " ";
      }
      box_.Put("a", "/v/" + std::to_string(i), text);
    }
    box_.CodeOf("commit", Object("{'id':'a'}"));
    ASSERT_TRUE(Eventually([&] { return Bytes() > 500'000; }));
    before_ = Bytes();
  }
  void Delete() {
    box_.CodeOf("document_del_by_query", Object("{'id':'a','query':{'qsl':{'prefix':{'NIMOMDPath':'/v/'}}}}"));
    box_.CodeOf("commit", Object("{'id':'a'}"));
  }
  Json::Int64 Bytes() const { return box_.Ask("index_stat", Object("{'id':'a'}"))["data"]["bytes"].asInt64(); }
  void ExpectHalf() const {
    EXPECT_TRUE(Eventually([&] { return Bytes() < before_ / 2; })) << before_ << " " << Bytes();
  }

  SearchBox box_;
  Json::Int64 before_ = 0;
};

TEST_F(Shrinking, ComesAfterDeletionsWhenNobodyAsks) {
  box_.Start({"--quiet-ms", "200"});
  Fill();

  Delete();

  ExpectHalf();
}

TEST_F(Shrinking, ComesAlsoWhenTheDaemonEndedBeforeItCould) {
  box_.Start();
  Fill();
  Delete();
  box_.Stop();

  box_.Start({"--quiet-ms", "200"});

  ExpectHalf();
}

long Switches(pid_t pid) {
  long switches = 0;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    const std::string status = ReadFile(task.path() / "status");
    for (const char* name : {"\nvoluntary_ctxt_switches:", "\nnonvoluntary_ctxt_switches:"}) {
      switches += strtol(status.c_str() + status.find(name) + strlen(name), nullptr, 10);
    }
  }
  return switches;
}

// The thread sanitizer runs a thread of its own in the daemon, which wakes up.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORBISK_UNDER_TSAN
#endif
#endif

TEST(SearchProgram, IdleDaemonNeitherWakesUpNorWrites) {
#ifdef ORBISK_UNDER_TSAN
  GTEST_SKIP() << "the thread sanitizer wakes the daemon up";
#endif
  SearchBox box;
  box.Start({"--client-timeout-ms", "500"});
  box.CreateIndex("a");
  box.Put("a", "/v/x", "one");
  box.CodeOf("commit", Object("{'id':'a'}"));
  std::this_thread::sleep_for(seconds(3));  // the last timers run out
  const std::string io = "/proc/" + std::to_string(box.daemon().pid()) + "/io";

  const long switches = Switches(box.daemon().pid());
  const std::string before = ReadFile(io);
  std::this_thread::sleep_for(seconds(10));

  EXPECT_EQ(switches, Switches(box.daemon().pid()));
  EXPECT_EQ(before, ReadFile(io));
}

TEST(SearchClients, LengthOverTheBoundIsRefusedBeforeAnythingIsRead) {
  SearchBox box;
  box.Start();
  RawClient client(box.socket());

  client.SendLength((std::uint64_t{1} << 30) + 1);
  const std::optional<std::string> answer = client.ReceiveMessage();

  ASSERT_TRUE(answer);
  EXPECT_NE(std::string::npos, answer->find("\"code\":1201"));
  EXPECT_TRUE(Answers(box));
}

long ResidentKib(pid_t pid) {
  const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
  return strtol(status.c_str() + status.find("VmRSS:") + 6, nullptr, 10);
}

TEST(SearchClients, HugeAnnouncedLengthTakesNoMemory) {
  SearchBox box;
  box.Start();
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 100; ++i) {
    clients.push_back(std::make_unique<RawClient>(box.socket()));
    clients.back()->SendLength(std::uint64_t{1} << 30);
  }

  ASSERT_TRUE(Answers(box));
  EXPECT_LT(ResidentKib(box.daemon().pid()), 200 * 1024);
}

TEST(SearchClients, SilentAndSlowClientsAreCutOff) {
  SearchBox box;
  box.Start({"--client-timeout-ms", "300"});
  RawClient silent(box.socket());
  RawClient halfway(box.socket());
  halfway.SendLength(100);
  halfway.Send("{");

  EXPECT_EQ("", silent.ReceiveAll(seconds(10)));
  EXPECT_EQ("", halfway.ReceiveAll(seconds(10)));
}

TEST(SearchClients, ClientThatTakesNoAnswerIsCutOffAndOthersAreServed) {
  SearchBox box;
  box.Start({"--client-timeout-ms", "300"});
  box.CreateIndex("a");
  for (int i = 0; i < 40; ++i) {
    box.Put("a", "/v/" + std::string(200, 'n') + std::to_string(i), std::string(20'000, 't'));
  }
  RawClient deaf(box.socket());
  const std::string request =
      JsonLine(Object("{'command':'document_get_by_query','data':{'id':'a','load_field':['NIMOMDTextContent'],"
                      "'query':{'qsl':{'match_all':{}}}}}"));
  deaf.SendLength(request.size());
  deaf.Send(request);
  std::this_thread::sleep_for(milliseconds(1500));

  EXPECT_TRUE(Answers(box));
  EXPECT_FALSE(deaf.ReceiveMessage()) << "the answer ends in the middle";
}

TEST(SearchClients, SilentClientsMakeRoomForThoseWhoAsk) {
  SearchBox box;
  box.Start({"--max-connections", "8"});
  std::vector<std::unique_ptr<RawClient>> silent;
  for (int i = 0; i < 100; ++i) {
    silent.push_back(std::make_unique<RawClient>(box.socket()));
  }

  EXPECT_TRUE(Answers(box));
  EXPECT_EQ("", silent.front()->ReceiveAll(seconds(10)));
}

// A million take a minute or two, in a release build alone: ORBISK_CONNECTIONS=1000000. What a sanitizer keeps grows.
int Connections() {
  const char* const wanted = getenv("ORBISK_CONNECTIONS");
  return wanted != nullptr ? atoi(wanted) : 5000;
}

TEST(SearchClients, ManyConnectionsInTurnLeaveNothingBehind) {
  SearchBox box;
  box.Start();
  ASSERT_TRUE(Answers(box));
  const std::string descriptors = "/proc/" + std::to_string(box.daemon().pid()) + "/fd";
  const auto count = [&] { return std::distance(fs::directory_iterator(descriptors), fs::directory_iterator()); };
  const auto before = count();
  const long resident_kib = ResidentKib(box.daemon().pid());

  for (int i = 0; i < Connections(); ++i) {
    RawClient client(box.socket());
    if (i % 3 == 0) {
      client.SendLength(5);
    } else if (i % 3 == 1) {
      client.SendLength(2);
      client.Send("{}");
    }
  }

  EXPECT_TRUE(Answers(box));
  EXPECT_TRUE(Eventually([&] { return count() == before; }));
  EXPECT_LT(ResidentKib(box.daemon().pid()), resident_kib + 32 * 1024);  // a sanitizer keeps some of what is freed
}

TEST(SearchClients, RequestOverTheMemoryBoundIsReadAndToldToComeBack) {
  SearchBox box;
  box.Start({"--memory-limit-mib", "1"});
  box.CreateIndex("a");
  const std::string half(900 * 1024, ' ');
  RawClient first(box.socket());
  first.SendLength(half.size() + 100);
  first.Send(half);
  std::this_thread::sleep_for(milliseconds(300));

  RawClient second(box.socket());
  second.SendLength(half.size());
  ASSERT_TRUE(second.Send(half));
  const std::optional<std::string> answer = second.ReceiveMessage();

  ASSERT_TRUE(answer);
  EXPECT_NE(std::string::npos, answer->find("\"code\":1401")) << *answer;
  EXPECT_EQ(0, box.Put("a", "/v/x", "one")) << "short requests go on";
}

TEST(SearchClients, LoneRequestOverTheMemoryBoundIsServed) {
  SearchBox box;
  box.Start({"--memory-limit-mib", "1"});
  box.CreateIndex("a");

  EXPECT_EQ(0, box.Put("a", "/v/x", std::string(3 << 20, 'x')));
}

// Asks for `count` documents below /v of the index "a", in one request.
void SendLongChange(RawClient& client, int count, const std::string& text) {
  std::string compound = "{\"compound\":[";
  for (int i = 0; i < count; ++i) {
    const std::string path = "/v/" + std::to_string(i);
    compound += (i > 0 ? "," : "") +
                JsonLine(Object("{'command':'document_upsert_by_id','data':{'id':'a','doc_id':'" + path +
                                "','data':{'NIMOMDPath':'" + path + "','NIMOMDTextContent':'" + text + "'}}}"));
  }
  compound += "]}";
  client.SendLength(compound.size());
  client.Send(compound);
}

TEST(SearchClients, TooManyWaitingAreToldToComeBack) {
  SearchBox box;
  box.Start({"--max-waiting", "4"});
  box.CreateIndex("a");
  RawClient busy(box.socket());
  SendLongChange(busy, 20'000, "some words");
  // The long request takes its place once it is read whole; what comes before is served at once. So round after round
  // asks until one meets it at work.
  const std::string commit = JsonLine(Object("{'command':'commit','data':{'id':'a'}}"));
  int refused = 0;
  for (int round = 0; round < 500 && refused == 0; ++round) {
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 20; ++i) {
      clients.push_back(std::make_unique<RawClient>(box.socket()));
      clients.back()->SendLength(commit.size());
      clients.back()->Send(commit);
    }
    for (const auto& client : clients) {
      const std::optional<std::string> answer = client->ReceiveMessage(seconds(60));
      ASSERT_TRUE(answer);
      refused += answer->find("\"code\":1400") != std::string::npos ? 1 : 0;
    }
  }
  EXPECT_GT(refused, 0);
  EXPECT_LT(refused, 20);
  const std::optional<std::string> done = busy.ReceiveMessage(seconds(60));
  ASSERT_TRUE(done);
  EXPECT_NE(std::string::npos, done->find("\"has_fail\":false"));
  EXPECT_EQ(20'000U, box.PathsBelow("a", "/v").size());
}

// Whether a change of the index has begun and is not committed.
bool IsBeingChanged(const SearchBox& box, const std::string& id) {
  Json::Value data;
  data["id"] = id;
  return box.Ask("index_stat", data)["data"]["uncommitted"].asBool();
}

TEST(SearchClients, SearchDoesNotWaitForALongChange) {
  SearchBox box;
  box.Start();
  box.CreateIndex("a");
  box.Put("a", "/v/first", "pear");
  box.CodeOf("commit", Object("{'id':'a'}"));
  RawClient busy(box.socket());
  SendLongChange(busy, 60'000, "pear");
  ASSERT_TRUE(Eventually([&box] { return IsBeingChanged(box, "a"); }));

  const Json::Value found = box.Ask("document_search", Object("{'id':'a','query':'pear'}"));
  const bool still_busy = !busy.ReceiveMessage(milliseconds(1)).has_value();

  EXPECT_EQ(1, found["data"]["total"].asInt());
  EXPECT_TRUE(still_busy) << "the change was too short to prove anything";
}

TEST(SearchClients, ChangeOfAnotherIndexDoesNotWaitForALongOne) {
  SearchBox box;
  box.Start();
  box.CreateIndex("a");
  box.CreateIndex("b");
  RawClient busy(box.socket());
  SendLongChange(busy, 60'000, "pear");
  ASSERT_TRUE(Eventually([&box] { return IsBeingChanged(box, "a"); }));

  const int put = box.Put("b", "/v/x", "pear");
  const int committed = box.CodeOf("commit", Object("{'id':'b'}"));
  const bool still_busy = !busy.ReceiveMessage(milliseconds(1)).has_value();

  EXPECT_EQ(0, put);
  EXPECT_EQ(0, committed);
  EXPECT_TRUE(still_busy) << "the change was too short to prove anything";
}

TEST(SearchClients, ChangeOfTheSameIndexComesBehindTheLongOneBeforeIt) {
  SearchBox box;
  box.Start();
  box.CreateIndex("a");
  RawClient busy(box.socket());
  SendLongChange(busy, 20'000, "pear");
  ASSERT_TRUE(Eventually([&box] { return IsBeingChanged(box, "a"); }));

  const Json::Value deleted =
      box.Ask("document_del_by_query", Object("{'id':'a','query':{'qsl':{'prefix':{'NIMOMDPath':'/v/'}}}}"));

  EXPECT_EQ(20'000, deleted["data"]["deleted"].asInt());
  EXPECT_TRUE(busy.ReceiveMessage());
}

}  // namespace
}  // namespace orbisk::test
