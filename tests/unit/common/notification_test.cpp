// What the library has the box's notification tool say.
#include "orbisk/notification.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/fake_box.h"
#include "tests/support/record_capture.h"

namespace orbisk::fileindex {
namespace {

using test::FakePlatform;
using test::FakeProcess;

constexpr char kTool[] = "/usr/nimo/bin/nimonxmnotify";

TEST(Notification, OfNoRoomOpensTheApplicationsPreferences) {
  const FakePlatform platform;
  SendNXMNotify();
  ASSERT_EQ(1U, FakePlatform::call_count());
  EXPECT_EQ((std::vector<std::string>{
                kTool, "187",
                "-c|NIMO.Scoutly.Application|-b|true|-e|false|@administrators|app:displayname|error:index_no_space|"
                "<a data-nimo-app=\"NIMO.Scoutly.Application\" data-nimo-fn=\"preference\">|</a>"}),
            FakePlatform::calls()[0].arguments);
  EXPECT_FALSE(FakePlatform::calls()[0].sdk_mutex_held);
}

TEST(Notification, OfScarceMemoryIsShort) {
  const FakePlatform platform;
  NotifyLackOfMemory();
  ASSERT_EQ(1U, FakePlatform::call_count());
  EXPECT_EQ((std::vector<std::string>{
                kTool, "187", "-c|NIMO.Scoutly.Application|@administrators|app:displayname|error:lack_of_memory"}),
            FakePlatform::calls()[0].arguments);
  EXPECT_FALSE(FakePlatform::calls()[0].sdk_mutex_held);
}

TEST(Notification, ReturnsTheToolsResultAndReportsNoFailure) {
  const FakePlatform platform;
  const test::RecordCapture capture;
  for (const int result : {0, 1, 127, -1}) {
    FakeProcess().execl.Always([=](const std::string&, unsigned, const std::vector<std::string>&) { return result; });
    EXPECT_EQ(result, SendNXMNotify());
    EXPECT_EQ(result, NotifyLackOfMemory());
  }
  EXPECT_EQ(0U, capture.records().size());
}

}  // namespace
}  // namespace orbisk::fileindex
