// What code that has taken a worker over can reach.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/temp_dir.h"
#include "tests/system/extractor_support.h"

namespace orbisk::test {
namespace {

constexpr int kDied = 3;
constexpr int kMemory = 5;
constexpr int kRefused = 6;

class ExtractorSandbox : public testing::Test {
 protected:
  void SetUp() override { box_.Start({"--memory", "64", "--workers", "1"}); }

  // After each deed the daemon serves the next file as if nothing had been.
  void ExpectGoodNeighbour() {
    const Json::Value answer = box_.Do("plain words");
    EXPECT_TRUE(answer["success"].asBool());
    EXPECT_EQ(answer["data"]["NIMOMDTextContent"], "plain words");
  }

  std::string TitleAfter(const std::string& deed) { return box_.Do(deed)["data"]["NIMOMDTitle"].asString(); }

  ExtractorBox box_;
};

class EndingDeed : public ExtractorSandbox, public testing::WithParamInterface<std::pair<const char*, int>> {};

TEST_P(EndingDeed, FailsItsOwnFileWithAReasonAndNothingElse) {
  const auto [deed, code] = GetParam();
  if (EXTRACTOR_SHADOW_MEMORY != 0 && std::string(deed).starts_with("allocate")) {
    GTEST_SKIP() << "a worker with a sanitizer has no bound on memory";
  }

  const Json::Value answer = box_.Do(deed);

  EXPECT_FALSE(answer["success"].asBool()) << answer;
  EXPECT_EQ(answer["error"]["code"].asInt(), code) << answer;
  EXPECT_FALSE(answer["error"]["msg"].asString().empty());
  ExpectGoodNeighbour();
}

INSTANTIATE_TEST_SUITE_P(Hostile, EndingDeed,
                         testing::Values(std::pair{"crash", kDied}, std::pair{"abort", kDied}, std::pair{"exit", kDied},
                                         std::pair{"allocate", kMemory}, std::pair{"allocate_or_abort", kDied},
                                         std::pair{"socket", kRefused}, std::pair{"unix_socket", kRefused},
                                         std::pair{"exec", kRefused}, std::pair{"memfd", kRefused},
                                         std::pair{"ptrace", kRefused}, std::pair{"kill_parent", kRefused}),
                         [](const auto& one) { return std::string(one.param.first); });

class RefusedDeed : public ExtractorSandbox, public testing::WithParamInterface<const char*> {};

TEST_P(RefusedDeed, IsRefusedByTheKernel) {
  const std::string title = TitleAfter(GetParam());

  EXPECT_EQ(title, "Operation not permitted");
  ExpectGoodNeighbour();
}

INSTANTIATE_TEST_SUITE_P(Hostile, RefusedDeed,
                         testing::Values("open /etc/passwd", "write /tmp/nimoce-escaped", "mkdir /tmp/nimoce-escaped",
                                         "unlink /tmp/nimoce-escaped", "access /etc/passwd", "reopen", "chmod",
                                         "write_file", "fork", "shared_memory", "run_code", "more_memory"),
                         [](const auto& one) {
                           const std::string deed = one.param;
                           return deed.substr(0, deed.find(' '));
                         });

TEST_F(ExtractorSandbox, StartsNoThread) {
  EXPECT_THAT(TitleAfter("thread"), testing::AnyOf("Operation not permitted", "Resource temporarily unavailable"));
}

TEST_F(ExtractorSandbox, SeesNoFileEvenWithTheOneCallThatTheFilterCannotJudge) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "an empty root folder needs root";
  }

  EXPECT_THAT(TitleAfter("stat /etc/passwd"), testing::AnyOf("No such file or directory", "Permission denied"));
}

TEST_F(ExtractorSandbox, IsNobody) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can become somebody else";
  }

  EXPECT_EQ(TitleAfter("whoami"), "65534");
}

TEST_F(ExtractorSandbox, HoldsTheNullDeviceTheChannelAndItsFile) {
  EXPECT_EQ(TitleAfter("descriptors"), "0 1 2 3 4 ");
}

TEST_F(ExtractorSandbox, DoesNotHoldTheFileBeforeThatAReaderForgotToClose) {
  box_.Do("leak");

  EXPECT_EQ(TitleAfter("descriptors"), "0 1 2 3 4 ");
}

TEST_F(ExtractorSandbox, LetsLibrariesPrint) {
  EXPECT_TRUE(box_.Do("print")["success"].asBool());
  EXPECT_EQ(box_.Stop().output, "");
}

TEST_F(ExtractorSandbox, LeavesNothingBehindInTheFolderForTemporaryFiles) {
  ExpectGoodNeighbour();

  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    EXPECT_FALSE(entry.path().filename().string().starts_with("nimoce")) << entry.path();
  }
}

TEST_F(ExtractorSandbox, IsNotBelievedAboutTheFileItself) {
  const Json::Value data = box_.Do("lie")["data"];

  EXPECT_EQ(data["NIMOMDPath"], box_ / "file1");
  EXPECT_EQ(data["NIMOMDOwnerUserID"], std::to_string(geteuid()));
  EXPECT_EQ(data["NIMOMDIsDir"], false);
  EXPECT_FALSE(data.isMember("Invented"));
  EXPECT_FALSE(data.isMember("NIMOMDAuthors"));
  EXPECT_EQ(data["NIMOMDTitle"], "kept");
}

TEST_F(ExtractorSandbox, MayTellTheContentsOwnDate) {
  EXPECT_EQ(box_.Do("date")["data"]["NIMOMDContentCreationDate"], 12345);
}

}  // namespace
}  // namespace orbisk::test
