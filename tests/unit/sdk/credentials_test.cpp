// Acting as another account for a scope: who is switched to, when it is switched back, and what is said of failures.
#include "orbisk/sdk/credentials.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/sdk/sdk_mutex.h"
#include "tests/support/fake_user.h"
#include "tests/support/record_capture.h"
#include "tests/unit/record_match.h"

namespace orbisk::sdk::test {
namespace {

using namespace orbisk::test;
using Words = std::vector<std::string>;

constexpr char kLookupCondition[] = "0 > NIMOUserGetByUID(euid_, &user_info) || !user_info";

class CredentialsTest : public testing::Test {
 protected:
  CredentialsTest() {
    FakeUsers().Add("ann", 1001, 2001);
    FakeUsers().Add("bob", 1002, 2002);
    FakeUsers().Add("boss", 1003, 2003);
    FakeUsers().AddAdmin("boss");
    errno = 0;
  }
  ~CredentialsTest() override { EXPECT_EQ(0, FakeUsers().outstanding()); }

  static void BecomeAnn() { TheFakeIdentity() = {1001, 2001}; }
  // "1001:2001" for ann.
  static std::string Identity() { return std::to_string(geteuid()) + ":" + std::to_string(getegid()); }

  // "503 " and the reason of the Error that `action` throws.
  static std::string ErrorOf(const std::function<void()>& action) {
    try {
      action();
    } catch (const Error& error) {
      return std::to_string(error.code()) + " " + error.reason();
    }
    return "none";
  }

  // The accounts switched to, as "name, group flag"; each switch was made under the lock.
  static Words Switches() {
    Words switches;
    for (const SeamCall& call : FakeUsers().reset_credentials.calls()) {
      switches.push_back(call.arguments[0] + ", " + call.arguments[1]);
      EXPECT_TRUE(call.sdk_mutex_held);
    }
    return switches;
  }

  FakePlatform platform_;
};

TEST_F(CredentialsTest, ADefaultGuardLooksUpWhoItIsUnderTheLockAndSwitchesNothing) {
  BecomeAnn();
  {
    const SDKCredentials guard;
    ASSERT_EQ(2U, FakePlatform::call_count());
    EXPECT_EQ((Words{"1001", "pointer"}), FakePlatform::calls()[0].arguments);
    EXPECT_EQ("NIMOUserGetByUID", FakePlatform::calls()[0].function);
    EXPECT_EQ("NIMOUserFree", FakePlatform::calls()[1].function);
    EXPECT_TRUE(FakePlatform::calls()[0].sdk_mutex_held);
    EXPECT_TRUE(FakePlatform::calls()[1].sdk_mutex_held);
  }
  EXPECT_EQ(2U, FakePlatform::call_count()) << "nothing to go back from";
  EXPECT_EQ("1001:2001", Identity());
}

TEST_F(CredentialsTest, ADefaultGuardGoesBackToWhoItWas) {
  BecomeAnn();
  {
    SDKCredentials guard;
    guard.AsUser("bob");
    EXPECT_EQ("1002:2002", Identity());
  }
  EXPECT_EQ("1001:2001", Identity());
  EXPECT_EQ((Words{"bob, 1", "ann, 1"}), Switches());
}

TEST_F(CredentialsTest, ADefaultGuardGoesBackOverSeveralSwitches) {
  {
    SDKCredentials guard;
    guard.AsUser("ann");
    guard.AsUser("bob");
  }
  EXPECT_EQ("0:0", Identity());
  EXPECT_EQ((Words{"ann, 1", "bob, 1", "root, 1"}), Switches());
}

TEST_F(CredentialsTest, AGuardGoesBackWhenOnlyTheGroupIsAnother) {
  {
    const SDKCredentials guard;
    TheFakeIdentity().egid = 2001;
  }
  EXPECT_EQ("0:0", Identity());
}

TEST_F(CredentialsTest, AGuardGoesBackWhenOnlyTheUserIsAnother) {
  {
    const SDKCredentials guard;
    TheFakeIdentity().euid = 1001;
  }
  EXPECT_EQ("0:0", Identity());
}

TEST_F(CredentialsTest, RootThatActsAsRootStaysRoot) {
  {
    const SDKCredentials guard("root");
    EXPECT_EQ("0:0", Identity());
  }
  EXPECT_EQ((Words{"root, 1"}), Switches()) << "at construction, though it is root already; none at the end";
}

TEST_F(CredentialsTest, AGuardMadeWithANameAppliesItAgainAtItsEnd) {
  {
    const SDKCredentials guard("ann");
    EXPECT_EQ("1001:2001", Identity());
  }
  EXPECT_EQ("1001:2001", Identity()) << "and does not go back";
  EXPECT_EQ((Words{"ann, 1", "ann, 1"}), Switches());
  EXPECT_EQ(0U, FakeUsers().get_by_uid.calls().size());
}

TEST_F(CredentialsTest, AGuardMadeWithAnAdministratorsNameEndsAsThatAccount) {
  BecomeAnn();
  {
    const SDKCredentials guard("boss");
    EXPECT_EQ("0:0", Identity());
  }
  EXPECT_EQ("1003:2003", Identity());
  EXPECT_EQ((Words{"root, 1", "boss, 1"}), Switches());
}

TEST_F(CredentialsTest, AdministratorsActAsRoot) {
  BecomeAnn();
  SDKCredentials guard;
  guard.AsUser("boss");
  EXPECT_EQ("0:0", Identity());
  ASSERT_EQ(1U, FakeUsers().is_admin.calls().size());
  EXPECT_EQ((Words{"boss", "0"}), FakeUsers().is_admin.calls()[0].arguments);
  EXPECT_TRUE(FakeUsers().is_admin.calls()[0].sdk_mutex_held);
}

TEST_F(CredentialsTest, OnlyTheAnswerOneMakesAnAdministrator) {
  for (const int answer : {0, 2, -1}) {
    SDKCredentials guard;
    FakeUsers().is_admin.Next([=](const char*, int) { return answer; });
    guard.AsUser("ann");
    EXPECT_EQ("1001:2001", Identity()) << answer;
  }
}

TEST_F(CredentialsTest, AnUnknownAccountFailsAndKeepsTheIdentity) {
  BecomeAnn();
  const RecordCapture capture;
  SDKCredentials guard;
  EXPECT_EQ("503 ", ErrorOf([&] { guard.AsUser("nobody-knows"); }));
  EXPECT_EQ("1001:2001", Identity());
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "credentials.cpp", "AsUser", "!ResetCredentialsByName(target_username)", "");
}

TEST_F(CredentialsTest, AGuardThatCannotBeMadeWithItsNameSwitchesNothingBack) {
  EXPECT_EQ("503 ", ErrorOf([] { const SDKCredentials guard("nobody-knows"); }));
  EXPECT_EQ((Words{"nobody-knows, 1"}), Switches());
}

TEST_F(CredentialsTest, ARecordShowsTheSystemsErrorAndClearsIt) {
  const RecordCapture capture;
  FakeUsers().reset_credentials.Next([](const std::string&, bool) {
    errno = EPERM;
    return false;
  });
  EXPECT_EQ("503 ", ErrorOf([] { const SDKCredentials guard("ann"); }));
  EXPECT_EQ(0, errno);
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "credentials.cpp", "AsUser", "!ResetCredentialsByName(target_username)", "",
                "Operation not permitted");
}

TEST_F(CredentialsTest, AFailedSwitchBackIsRecordedAndThrown) {
  const RecordCapture capture;
  EXPECT_EQ("503 ", ErrorOf([] {
              SDKCredentials guard;
              guard.AsUser("ann");
              FakeUsers().reset_credentials.FailAt(1);
            }));
  EXPECT_EQ("1001:2001", Identity()) << "the switched identity stays";
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "credentials.cpp", "~SDKCredentials", "!ResetCredentialsByName(username_)", "");
  EXPECT_TRUE(SDKMutex().TryLock());
  SDKMutex().Unlock();
}

TEST_F(CredentialsTest, AFailedSwitchBackLeavesAnExceptionUnderWayAlone) {
  const RecordCapture capture;
  const auto fail_in_scope = [] {
    SDKCredentials guard;
    guard.AsUser("ann");
    FakeUsers().reset_credentials.FailAt(1);
    throw std::runtime_error("under way");
  };
  EXPECT_THROW(fail_in_scope(), std::runtime_error);
  EXPECT_EQ("1001:2001", Identity());
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "credentials.cpp", "~SDKCredentials", "!ResetCredentialsByName(username_)", "");
}

TEST_F(CredentialsTest, AGuardGoesBackWhenAnExceptionEndsItsScope) {
  const auto fail_in_scope = [] {
    SDKCredentials guard;
    guard.AsUser("ann");
    throw std::runtime_error("under way");
  };
  EXPECT_THROW(fail_in_scope(), std::runtime_error);
  EXPECT_EQ("0:0", Identity());
}

TEST_F(CredentialsTest, AnAccountWithoutARecordFailsLikeAMissingOne) {
  const RecordCapture capture;
  FakeUsers().get_by_uid.Next([](uid_t, NIMOUSER** user) {
    *user = nullptr;
    return 0;
  });
  EXPECT_EQ("503 NIMOUserGetByUID failed, err=", ErrorOf([] { const SDKCredentials guard; }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "credentials.cpp", "SDKCredentials", kLookupCondition,
                "NIMOUserGetByUID failed, err=");
  EXPECT_EQ(Words(), Switches());
}

struct Lookup {
  int error;
  const char* reason;
};

class CredentialsLookup : public CredentialsTest, public testing::WithParamInterface<Lookup> {};

TEST_P(CredentialsLookup, FailsWithItsTextLessAsManyCharactersAsTheErrorsNumber) {
  const RecordCapture capture;
  FakeUsers().get_by_uid.Next([](uid_t, NIMOUSER** user) {
    *user = nullptr;
    return FailPlatform(GetParam().error);
  });
  EXPECT_EQ(std::string("503 ") + GetParam().reason, ErrorOf([] { const SDKCredentials guard; }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "credentials.cpp", "SDKCredentials", kLookupCondition, GetParam().reason);
  EXPECT_EQ("NLIBCErrGet", FakePlatform::calls().back().function);
  EXPECT_TRUE(FakePlatform::calls().back().sdk_mutex_held);
}

INSTANTIATE_TEST_SUITE_P(Errors, CredentialsLookup,
                         testing::Values(Lookup{0, "NIMOUserGetByUID failed, err="},
                                         Lookup{2, "MOUserGetByUID failed, err="},
                                         Lookup{5, "serGetByUID failed, err="}, Lookup{28, "="}, Lookup{29, ""},
                                         Lookup{0x2900, ""}, Lookup{-1, ""}));

}  // namespace
}  // namespace orbisk::sdk::test
