// What nimo/service.h promises.
#include "nimo/service.h"

#include <gtest/gtest.h>

#include "nimo/error.h"
#include "tests/contract/platform_under_test.h"

namespace orbisk::test {
namespace {

constexpr char kName[] = "nimocontentextractd";

class Service : public testing::Test {
 protected:
  void SetUp() override {
    if (!ForgetServices()) {
      GTEST_SKIP() << "private mounts are not allowed here";
    }
    AddService(kName);
  }
  void TearDown() override {
    if (!IsSkipped()) {
      NLIBServiceStop(kName, FALSE);
    }
  }
};

TEST_F(Service, StartsAndStopsAService) {
  EXPECT_LE(0, NLIBServiceStart(kName, TRUE));
  EXPECT_TRUE(IsServiceRunning(kName));
  EXPECT_LE(0, NLIBServiceStop(kName, FALSE));
  EXPECT_FALSE(IsServiceRunning(kName));
}

TEST_F(Service, StartingOneThatRunsAndStoppingOneThatDoesNotSucceeds) {
  EXPECT_LE(0, NLIBServiceStop(kName, FALSE));
  EXPECT_LE(0, NLIBServiceStart(kName, TRUE));
  EXPECT_LE(0, NLIBServiceStart(kName, TRUE));
  EXPECT_TRUE(IsServiceRunning(kName));
  EXPECT_LE(0, NLIBServiceStop(kName, FALSE));
  EXPECT_LE(0, NLIBServiceStop(kName, FALSE));
  EXPECT_FALSE(IsServiceRunning(kName));
}

TEST_F(Service, RestartingLeavesItRunning) {
  EXPECT_LE(0, NLIBServiceRestart(kName)) << "it did not run";
  EXPECT_TRUE(IsServiceRunning(kName));
  EXPECT_LE(0, NLIBServiceRestart(kName));
  EXPECT_TRUE(IsServiceRunning(kName));
}

TEST_F(Service, StartsAndStopsAServiceOfAPackage) {
  AddService("pkg-Orbisk-fileindexd");
  EXPECT_LE(0, NLIBServicectlStart("pkg-Orbisk-fileindexd", NLIB_SERVICECTL_UPSTART));
  EXPECT_TRUE(IsServiceRunning("pkg-Orbisk-fileindexd"));
  EXPECT_FALSE(IsServiceRunning(kName));
  EXPECT_LE(0, NLIBServicectlStop("pkg-Orbisk-fileindexd", NLIB_SERVICECTL_UPSTART));
  EXPECT_FALSE(IsServiceRunning("pkg-Orbisk-fileindexd"));
}

TEST_F(Service, OneThatIsNotThereIsAFailure) {
  for (const char* const name : {"unknown", "", "-x", "../nimocontentextractd", static_cast<const char*>(nullptr)}) {
    EXPECT_GT(0, NLIBServiceStart(name, TRUE));
    EXPECT_NE(0, NLIBCErrGet());
    EXPECT_GT(0, NLIBServiceStop(name, FALSE));
    EXPECT_GT(0, NLIBServiceRestart(name));
    EXPECT_GT(0, NLIBServicectlStart(name, NLIB_SERVICECTL_UPSTART));
    EXPECT_GT(0, NLIBServicectlStop(name, NLIB_SERVICECTL_UPSTART));
  }
}

TEST_F(Service, AKindOfControllerThatNobodyKnowsIsAFailure) {
  EXPECT_GT(0, NLIBServicectlStart(kName, NLIB_SERVICECTL_UPSTART + 1));
  EXPECT_FALSE(IsServiceRunning(kName));
  EXPECT_GT(0, NLIBServicectlStop(kName, NLIB_SERVICECTL_UPSTART + 1));
}

}  // namespace
}  // namespace orbisk::test
