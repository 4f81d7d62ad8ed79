// What nimo/error.h promises.
#include "nimo/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "nimo/filesystem.h"
#include "tests/contract/platform_under_test.h"

namespace orbisk::test {
namespace {

TEST(LastError, SaysWhatFailedAndWhere) {
  ASSERT_GT(0, NIMOFSDirIsMntPoint("/no/such/path"));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
  EXPECT_LT(0U, strlen(NLIBCErrorGetFile()));
  EXPECT_EQ(nullptr, strchr(NLIBCErrorGetFile(), '/')) << NLIBCErrorGetFile();
  EXPECT_LT(0, NLIBCErrorGetLine());
}

TEST(LastError, StaysWhenALaterCallSucceeds) {
  ASSERT_GT(0, NIMOFSDirIsMntPoint("/no/such/path"));
  ASSERT_EQ(0, NIMOFSDirIsMntPoint("/proc/self/fd"));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
}

TEST(LastError, IsEachThreadsOwn) {
  ASSERT_GT(0, NIMOFSDirIsMntPoint("/no/such/path"));
  int code = -1;
  int line = -1;
  std::string file = "unset";
  std::thread([&] {
    code = NLIBCErrGet();
    file = NLIBCErrorGetFile();
    line = NLIBCErrorGetLine();
  }).join();
  EXPECT_EQ(0, code);
  EXPECT_EQ("", file);
  EXPECT_EQ(0, line);
}

}  // namespace
}  // namespace orbisk::test
