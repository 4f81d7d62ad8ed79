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

TEST(UserGetByUID, GivesTheSameRecordAsTheName) {
  const Account account = KnownAccount();
  NIMOUSER* user = nullptr;
  ASSERT_LE(0, NIMOUserGetByUID(account.uid, &user));
  ASSERT_NE(nullptr, user);
  EXPECT_EQ(account.name, user->szName);
  EXPECT_EQ(account.uid, user->nUid);
  EXPECT_EQ(account.gid, user->nGid);
  NIMOUserFree(user);
}

TEST(UserGetByUID, FailsForAnUnknownNumberAndStoresNull) {
  NIMOUSER unused{};
  NIMOUSER* user = &unused;
  EXPECT_GT(0, NIMOUserGetByUID(3999999999U, &user));
  EXPECT_EQ(nullptr, user);
  EXPECT_EQ(ENOENT, NLIBCErrGet());
  EXPECT_GT(0, NIMOUserGetByUID(0, nullptr));
}

TEST(AdminGroup, HoldsRootAndItsMembersOnly) {
  if (!ForgetSharesAndAccounts()) {
    GTEST_SKIP() << "private mounts are not allowed here";
  }
  AddAccount({"boss", 1101, 1101}, true);
  AddAccount({"guest", 1102, 1102});
  EXPECT_EQ(1, NLIBGroupIsAdminGroupMem("root", 0));
  EXPECT_EQ(1, NLIBGroupIsAdminGroupMem("boss", 0));
  EXPECT_EQ(0, NLIBGroupIsAdminGroupMem("guest", 0));
}

TEST(AdminGroup, CannotBeKnownOfAnUnknownAccount) {
  EXPECT_GT(0, NLIBGroupIsAdminGroupMem("no such account", 0));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
  EXPECT_GT(0, NLIBGroupIsAdminGroupMem("", 0));
  EXPECT_GT(0, NLIBGroupIsAdminGroupMem(nullptr, 0));
}

TEST(ResetCredentials, RefusesAnUnknownAccount) {
  EXPECT_FALSE(ResetCredentialsByName("no such account"));
  EXPECT_EQ(ENOENT, NLIBCErrGet());
  EXPECT_FALSE(ResetCredentialsByName(""));
}

TEST(UserFree, IgnoresNull) {
  NIMOUserFree(nullptr);
}

}  // namespace
}  // namespace orbisk::test
