// The entry of every test program: each test case gets a hard time limit, because some waits are endless by design.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>

namespace {

// Seconds for one test case, unless ORBISK_TEST_LIMIT says otherwise; storms and sanitizer runs stay well below.
constexpr unsigned kDefaultLimitSeconds = 300;

unsigned LimitSeconds() {
  const char* text = getenv("ORBISK_TEST_LIMIT");
  const long limit = text != nullptr ? strtol(text, nullptr, 10) : 0;
  return limit > 0 ? static_cast<unsigned>(limit) : kDefaultLimitSeconds;
}

void OnAlarm(int) {
  static constexpr char kMessage[] = "test case exceeded its time limit\n";
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, kMessage, sizeof(kMessage) - 1);
  _exit(124);
}

class TimeLimit : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { alarm(LimitSeconds()); }
  void OnTestEnd(const testing::TestInfo&) override { alarm(0); }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  signal(SIGALRM, OnAlarm);
  testing::UnitTest::GetInstance()->listeners().Append(new TimeLimit);
  return RUN_ALL_TESTS();
}
