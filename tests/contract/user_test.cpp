// What nimo/user.h promises.
#include "nimo/user.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "nimo/error.h"
#include "tests/contract/platform_under_test.h"

namespace orbisk::test {
namespace {

TEST(UserGet, GivesTheIdsOfAnAccount) {
  const Account account = KnownAccount();
  NIMOUSER* user = nullptr;
  ASSERT_LE(0, NIMOUserGet(account.name.c_str(), &user));
  ASSERT_NE(nullptr, user);
  EXPECT_EQ(account.name, user->szName);
  EXPECT_EQ(account.uid, user->nUid);
  EXPECT_EQ(account.gid, user->nGid);
  NIMOUserFree(user);
}

TEST(UserGet, GivesEachCallerARecordOfItsOwn) {
  const Account account = KnownAccount();
  NIMOUSER* one = nullptr;
  NIMOUSER* two = nullptr;
  ASSERT_LE(0, NIMOUserGet(account.name.c_str(), &one));
  ASSERT_LE(0, NIMOUserGet(account.name.c_str(), &two));
  EXPECT_NE(one, two);
  NIMOUserFree(one);
  EXPECT_EQ(account.name, two->szName);
  NIMOUserFree(two);
}

TEST(UserGet, FailsForAnUnknownAccountAndStoresNull) {
  NIMOUSER unused{};
  NIMOUSER* user = &unused;
  EXPECT_GT(0, NIMOUserGet("no such account", &user));
  EXPECT_EQ(nullptr, user);
  EXPECT_EQ(ENOENT, NLIBCErrGet());
}

TEST(UserGet, RefusesAnEmptyNameAndNullPointers) {
  NIMOUSER* user = nullptr;
  EXPECT_GT(0, NIMOUserGet("", &user));
  EXPECT_GT(0, NIMOUserGet(nullptr, &user));
  EXPECT_GT(0, NIMOUserGet("root", nullptr));
  EXPECT_EQ(EINVAL, NLIBCErrGet());
}

TEST(UserFree, IgnoresNull) {
  NIMOUserFree(nullptr);
}

}  // namespace
}  // namespace orbisk::test
