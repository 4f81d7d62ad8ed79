// The extractor daemon as a program: files of all kinds, clients good and bad, start, idling, stop.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <thread>

#include "services/base/json_text.h"
#include "services/extractor/frame.h"
#include "tests/support/temp_dir.h"
#include "tests/system/extractor_support.h"

namespace orbisk::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kMalformed = 1;
constexpr int kOpen = 2;

class ExtractorProgram : public testing::Test {
 protected:
  bool IsServed() { return box_.Do("plain words")["data"]["NIMOMDTextContent"] == "plain words"; }

  ExtractorBox box_;
};

TEST_F(ExtractorProgram, TellsAttributesAloneWithoutNeedMeta) {
  box_.Start();
  WriteFile(box_ / "Letter.TXT", "crash");

  const Json::Value data = box_.Parse(box_ / "Letter.TXT", false)["data"];

  EXPECT_EQ(data["NIMOMDPath"], box_ / "Letter.TXT");
  EXPECT_EQ(data["NIMOMDParent"].asString() + "/Letter.TXT", box_ / "Letter.TXT");
  EXPECT_EQ(data["NIMOMDExtension"], "txt");
  EXPECT_FALSE(data.isMember("NIMOMDTextContent"));
  EXPECT_FALSE(data.isMember("NIMOMDContentCreationDate"));
  EXPECT_TRUE(box_.Status()["workers"].empty());
}

TEST_F(ExtractorProgram, NamesTheDocumentByThePseudoPath) {
  box_.Start();
  WriteFile(box_ / "a", "words");

  const Json::Value data =
      box_.Ask(R"({"path":")" + (box_ / "a") + R"(","need_meta":true,"pseudo_path":"/volume1/photo/B.PDF"})")["data"];

  EXPECT_EQ(data["NIMOMDPath"], "/volume1/photo/B.PDF");
  EXPECT_EQ(data["NIMOMDParent"], "/volume1/photo");
  EXPECT_EQ(data["NIMOMDFSName"], "B.PDF");
  EXPECT_EQ(data["NIMOMDExtension"], "pdf");
  EXPECT_EQ(data["NIMOMDSubject"], "B.PDF") << "the reader is told that name too";
  EXPECT_EQ(data["NIMOMDTextContent"], "words");
}

TEST_F(ExtractorProgram, TellsAttributesOfWhatIsNoRegularFile) {
  box_.Start();
  std::filesystem::create_directory(box_ / "folder");
  ASSERT_EQ(mkfifo((box_ / "pipe").c_str(), 0600), 0);

  const Json::Value folder = box_.Parse(box_ / "folder");
  const Json::Value pipe = box_.Parse(box_ / "pipe");
  const Json::Value device = box_.Parse("/dev/zero");

  EXPECT_EQ(folder["data"]["NIMOMDIsDir"], true);
  EXPECT_EQ(pipe["data"]["NIMOMDFSName"], "pipe");
  EXPECT_EQ(device["data"]["NIMOMDFSName"], "zero");
  EXPECT_TRUE(box_.Status()["workers"].empty());
}

TEST_F(ExtractorProgram, DoesNotFollowALinkAsTheLastName) {
  box_.Start();
  WriteFile(box_ / "secret", "the secret");
  std::filesystem::create_symlink(box_ / "secret", box_ / "link");

  const Json::Value answer = box_.Parse(box_ / "link");

  EXPECT_TRUE(answer["success"].asBool());
  EXPECT_EQ(answer["data"]["NIMOMDFSName"], "link");
  EXPECT_FALSE(answer["data"].isMember("NIMOMDTextContent"));
}

TEST_F(ExtractorProgram, DoesNotFollowALinkThatAUserPutInPlaceOfAFolder) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can make a link of somebody else";
  }
  box_.Start();
  std::filesystem::create_directory(box_ / "folder");
  WriteFile(box_ / "folder/secret", "the secret");
  std::filesystem::create_symlink(box_ / "folder", box_ / "link");
  ASSERT_EQ(lchown((box_ / "link").c_str(), 1234, 1234), 0);

  const Json::Value answer = box_.Parse(box_ / "link/secret");

  EXPECT_EQ(answer["error"]["code"], kOpen) << answer;
}

TEST_F(ExtractorProgram, FollowsALinkThatRootPutInPlaceOfAFolder) {
  box_.Start();
  std::filesystem::create_directory(box_ / "folder");
  WriteFile(box_ / "folder/file", "words");
  std::filesystem::create_symlink(box_ / "folder", box_ / "absolute");
  std::filesystem::create_symlink("./absolute/../folder", box_ / "relative");

  EXPECT_EQ(box_.Parse(box_ / "absolute/file")["data"]["NIMOMDTextContent"], "words");
  EXPECT_EQ(box_.Parse(box_ / "relative/file")["data"]["NIMOMDTextContent"], "words");
}

TEST_F(ExtractorProgram, GivesUpOnLinksInACircle) {
  box_.Start();
  std::filesystem::create_symlink(box_ / "b", box_ / "a");
  std::filesystem::create_symlink(box_ / "a", box_ / "b");

  EXPECT_EQ(box_.Parse(box_ / "a/file")["error"]["code"], kOpen);
}

TEST_F(ExtractorProgram, LeavesTheDateOfLastUseAlone) {
  box_.Start();
  WriteFile(box_ / "file", "words");
  const timespec times[] = {{1'000'000, 0}, {2'000'000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (box_ / "file").c_str(), times, 0), 0);

  box_.Parse(box_ / "file");

  EXPECT_EQ(box_.Parse(box_ / "file")["data"]["NIMOMDLastUsedDate"], 1'000'000);
}

TEST_F(ExtractorProgram, ReturnsNamesOfEveryByteUnchanged) {
  box_.Start();
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '/') {
      continue;
    }
    const std::string name = std::string("x") + static_cast<char>(byte) + "y";
    WriteFile(box_ / name, "words");

    const Json::Value answer = box_.Parse(box_ / name);

    ASSERT_TRUE(answer["data"]["NIMOMDFSName"].asString() == name) << byte << answer;
    ASSERT_TRUE(answer["data"]["NIMOMDSubject"].asString() == name) << byte;
  }
}

TEST_F(ExtractorProgram, ReadsTheLongestNamesAndPaths) {
  box_.Start();
  std::string path = box_ / std::string(255, 'n');
  std::filesystem::create_directory(path);
  while (path.size() + 1 + 255 < 4095) {
    path += "/" + std::string(255, '\xfe');
    std::filesystem::create_directory(path);
  }
  path += "/" + std::string(4095 - path.size() - 1, 'f');
  WriteFile(path, "deep");

  EXPECT_EQ(box_.Parse(path)["data"]["NIMOMDTextContent"], "deep");
  EXPECT_EQ(box_.Parse(path + "x")["error"]["code"], kOpen);
}

TEST_F(ExtractorProgram, SaysThatAFileIsMissing) {
  box_.Start();

  const Json::Value answer = box_.Parse(box_ / "missing");

  EXPECT_EQ(answer["error"]["code"], kOpen);
  EXPECT_THAT(answer["error"]["msg"].asString(), testing::HasSubstr("No such file"));
  EXPECT_EQ(box_.Status()["failures"]["open"], 1);
}

TEST_F(ExtractorProgram, AnswersRequestsThatAreNone) {
  box_.Start();

  for (const char* request :
       {"", "x", "[]", "{}", "null", R"({"path":1})", R"({"path":"relative"})", R"({"path":"/a\u0000b"})",
        R"({"path":"/a","need_meta":1})", R"({"path":"/a","pseudo_path":"b"})", R"({"path":"/a"} x)"}) {
    EXPECT_EQ(box_.Ask(request)["error"]["code"], kMalformed) << request;
  }
}

TEST_F(ExtractorProgram, RefusesALongFrameBeforeItComes) {
  box_.Start();
  ExtractorClient client(box_.socket());

  client.SendRaw(std::string(8, '\x7f'));

  EXPECT_THAT(client.Receive(), testing::HasSubstr("too long"));
  EXPECT_EQ(client.Receive(), "");
}

TEST_F(ExtractorProgram, ServesSeveralRequestsOfAConnection) {
  box_.Start();
  WriteFile(box_ / "a", "first");
  WriteFile(box_ / "b", "second");
  ExtractorClient client(box_.socket());

  client.Send(ParseText(box_ / "a"));
  client.Send(ParseText(box_ / "b"));

  EXPECT_THAT(client.Receive(), testing::HasSubstr("first"));
  EXPECT_THAT(client.Receive(), testing::HasSubstr("second"));
}

TEST_F(ExtractorProgram, Serves2000ConnectionsInTurn) {
  box_.Start();
  WriteFile(box_ / "file", "words");
  const auto descriptors = [&] {
    const auto folder = std::filesystem::directory_iterator("/proc/" + std::to_string(box_.daemon().pid()) + "/fd");
    return std::distance(begin(folder), end(folder));
  };
  box_.Parse(box_ / "file");
  const auto before = descriptors();

  for (int i = 0; i < 2000; ++i) {
    ASSERT_EQ(box_.Parse(box_ / "file")["data"]["NIMOMDTextContent"], "words") << i;
  }

  EXPECT_TRUE(Eventually([&] { return descriptors() <= before; }));
}

TEST_F(ExtractorProgram, ServesOthersWhileClientsAreSilent) {
  box_.Start({"--patience", "1"});
  std::vector<std::unique_ptr<ExtractorClient>> silent;
  for (int i = 0; i < 200; ++i) {
    silent.push_back(std::make_unique<ExtractorClient>(box_.socket()));
    silent.back()->SendRaw("\x05");
  }

  EXPECT_TRUE(IsServed());
  EXPECT_EQ(silent.front()->Receive(), "");
}

TEST_F(ExtractorProgram, ServesOthersWhileAClientDoesNotTakeItsAnswer) {
  box_.Start({"--patience", "0.5"});
  WriteFile(box_ / "big", std::string(size_t{3} << 20, 'x'));
  ExtractorClient lazy(box_.socket());
  lazy.Send(ParseText(box_ / "big"));

  EXPECT_TRUE(IsServed());
  EXPECT_TRUE(Eventually([&] { return box_.Status()["state"] == "idle"; }));
}

TEST_F(ExtractorProgram, OutlivesClientsThatHangUpAtAnyPoint) {
  box_.Start();
  WriteFile(box_ / "slow", "sleep_ms 20");
  const std::string request = extractor::Framed(ParseText(box_ / "slow"));

  for (size_t sent = 0; sent <= request.size(); ++sent) {
    ExtractorClient client(box_.socket());
    client.SendRaw(request.substr(0, sent));
  }

  EXPECT_TRUE(IsServed());
}

TEST_F(ExtractorProgram, LetsOnlyRootConnect) {
  box_.Start();

  struct stat attributes {};
  ASSERT_EQ(stat(box_.socket().c_str(), &attributes), 0);

  EXPECT_EQ(attributes.st_mode & 0777, 0600U);
}

TEST_F(ExtractorProgram, LetsAGroupConnectIfToldTo) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a socket to any group";
  }
  box_.Start({"--socket-group", "daemon"});

  struct stat attributes {};
  ASSERT_EQ(stat(box_.socket().c_str(), &attributes), 0);

  EXPECT_EQ(attributes.st_mode & 0777, 0660U);
  EXPECT_EQ(attributes.st_gid, 1U);
}

TEST_F(ExtractorProgram, LetsNoSecondOneStart) {
  box_.Start();
  Subprocess second(box_.Command({}));

  const ProcessResult result = second.Wait(std::chrono::seconds(20));

  EXPECT_EQ(result.exit_status, 1);
  EXPECT_THAT(result.errors, testing::HasSubstr("process " + std::to_string(box_.daemon().pid())));
  EXPECT_TRUE(IsServed());
}

TEST_F(ExtractorProgram, StartsOverWhatAKilledOneLeft) {
  box_.Start();
  box_.daemon().Kill(SIGKILL);
  box_.daemon().Wait(std::chrono::seconds(5));
  ASSERT_TRUE(std::filesystem::exists(box_.socket()));

  box_.Start();

  EXPECT_TRUE(IsServed());
  EXPECT_EQ(ReadFile(box_.pid_file()), std::to_string(box_.daemon().pid()) + "\n");
}

TEST_F(ExtractorProgram, StopsInASecondUnderLoadAndLeavesNothing) {
  box_.Start({"--workers", "2"});
  WriteFile(box_ / "slow", "stall");
  std::vector<std::unique_ptr<ExtractorClient>> clients;
  for (int i = 0; i < 10; ++i) {
    clients.push_back(std::make_unique<ExtractorClient>(box_.socket()));
    clients.back()->Send(ParseText(box_ / "slow"));
  }
  ASSERT_TRUE(Eventually([&] { return box_.Status()["in_work"].size() == 2; }));
  const pid_t worker = box_.Status()["workers"][0].asInt();
  const auto start = Clock::now();

  const ProcessResult result = box_.Stop();

  EXPECT_EQ(result.exit_status, 0);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
  EXPECT_TRUE(Eventually([&] { return !IsRunning(worker); }));
  EXPECT_FALSE(std::filesystem::exists(box_.socket()));
  EXPECT_FALSE(std::filesystem::exists(box_.pid_file()));
}

// The processor time and the switches of a process so far.
std::string UseOf(pid_t pid) {
  const std::string folder = "/proc/" + std::to_string(pid);
  const std::string status = ReadFile(folder + "/status");
  return status.substr(status.find("voluntary_ctxt_switches"));
}

TEST_F(ExtractorProgram, DoesNotWakeUpWhenIdle) {
  box_.Start({"--workers", "1"});
  ASSERT_TRUE(IsServed());
  const pid_t daemon = box_.daemon().pid();
  const pid_t worker = box_.Status()["workers"][0].asInt();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the last connection closes
  const std::string before = UseOf(daemon) + UseOf(worker);

  std::this_thread::sleep_for(std::chrono::seconds(3));

  EXPECT_EQ(UseOf(daemon) + UseOf(worker), before);
}

TEST_F(ExtractorProgram, RefusesWrongUsage) {
  EXPECT_EQ(RunProcess({ProgramBeside("hostile_extractor"), "--memory", "1"}).exit_status, 2);
  EXPECT_EQ(RunProcess({ProgramBeside("hostile_extractor"), "--bogus"}).exit_status, 2);
  EXPECT_EQ(RunProcess({ProgramBeside("hostile_extractor"), "--help"}).exit_status, 0);
  EXPECT_THAT(RunProcess({ProgramBeside("hostile_extractor"), "--version"}).output,
              testing::StartsWith("nimocontentextractd "));
}

}  // namespace
}  // namespace orbisk::test
