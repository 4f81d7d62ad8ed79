// The library sends the requests of the table, to the byte, and makes of each answer what the table says.
#include "tests/support/search_steps.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/fake_daemon_connection.h"
#include "tests/support/fake_share.h"
#include "tests/support/fake_time.h"
#include "tests/support/private_mounts.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

TEST(SearchSteps, TheLibrarySendsTheRequestsOfTheTable) {
  EnterPrivateMounts({"/var/packages/Orbisk/etc", "/var/run"});
  WriteFile("/var/run/nimoelasticd.sock", "");
  const RecordCapture log;

  for (const SearchStep& step : SearchSteps("/volume1")) {
    const FakePlatform platform;
    const FakeTime time;
    FakeShares().Add("photo", "/volume1/photo");
    std::vector<std::string> requests;
    for (const SearchExchange& exchange : step.exchanges) {
      FakeConnections().Reply(exchange.answer);
      requests.push_back(exchange.request);
    }

    EXPECT_EQ(step.outcome, step.call()) << step.name;

    EXPECT_EQ(requests, FakeConnections().requests()) << step.name;
    EXPECT_THAT(time.waits(), testing::IsEmpty()) << step.name;
    for (const SeamCall& call : FakeConnections().send.calls()) {
      EXPECT_FALSE(call.sdk_mutex_held) << step.name << " may keep other threads from the box for many minutes";
    }
  }
}

}  // namespace
}  // namespace orbisk::test
