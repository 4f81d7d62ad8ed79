// The gateway to shares: what it asks of the box, under which lock, and how failures come out.
#include "orbisk/sdk/share.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/sdk/sdk_mutex.h"
#include "tests/support/fake_box.h"
#include "tests/support/fake_share.h"
#include "tests/support/fake_string_list.h"
#include "tests/support/record_capture.h"
#include "tests/unit/record_match.h"

namespace orbisk::sdk::test {
namespace {

using namespace orbisk::test;
using Names = std::set<std::string>;
using Words = std::vector<std::string>;

class ShareTest : public testing::Test {
 protected:
  ShareTest() {
    FakeShares().Add(photo_);
    errno = 0;
  }
  ~ShareTest() override {
    EXPECT_EQ(0, FakeShares().outstanding());
    EXPECT_EQ(0, FakeStringLists().outstanding());
  }

  // The Error of `action` is this one, its record is the only one, and the lock is free.
  static void ExpectError(const std::function<void()>& action, int code, const std::string& reason,
                          const std::string& function, const std::string& condition, const std::string& error = "") {
    const RecordCapture capture;
    try {
      action();
      ADD_FAILURE() << "no Error " << code;
    } catch (const Error& thrown) {
      EXPECT_EQ(code, thrown.code());
      EXPECT_EQ(reason, thrown.reason());
    }
    ASSERT_EQ(1U, capture.records().size());
    ExpectFailure(capture.records()[0], "share.cpp", function, condition, reason, error);
    EXPECT_TRUE(SDKMutex().TryLock());
    SDKMutex().Unlock();
  }

  // The calls but for the first `forget`, as "function(argument, ...)", with " locked" behind those under the lock.
  static Words Calls(size_t forget = 0) {
    Words texts;
    for (const SeamCall& call : FakePlatform::calls()) {
      std::string text = call.function + "(";
      for (const std::string& argument : call.arguments) {
        text += (text.back() == '(' ? "" : ", ") + argument;
      }
      texts.push_back(text + ")" + (call.sdk_mutex_held ? " locked" : ""));
    }
    return {texts.begin() + static_cast<std::ptrdiff_t>(std::min(forget, texts.size())), texts.end()};
  }

  FakePlatform platform_;
  const FakeShare photo_ = {.name = "photo", .path = "/volume1/photo", .ftp_privilege = -7};
};

// What a setting's question stores, and what it returns.
std::function<int(NIMOSHARE*, int*)> Answers(int value, int result = 0) {
  return [=](NIMOSHARE*, int* out) {
    *out = value;
    return result;
  };
}

TEST_F(ShareTest, IsLookedUpAndReleasedUnderTheLock) {
  {
    const SDKShare share("photo");
    EXPECT_EQ(1, FakeShares().outstanding());
    EXPECT_EQ((Words{"NIMOShareGet(photo, pointer) locked"}), Calls());
  }
  EXPECT_EQ((Words{"NIMOShareFree(photo) locked"}), Calls(1));
}

TEST_F(ShareTest, GivesTheBoxesNameAndPath) {
  FakeShares().Add({.name = "Photo", .path = "/volume2/Photo"});
  FakeShares().get.Always([](const char*, NIMOSHARE** share) { return FakeShares().get.Usual("Photo", share); });
  const SDKShare share("PHOTO");
  EXPECT_EQ("Photo", share.GetName());
  EXPECT_EQ("/volume2/Photo", share.GetPath());
}

constexpr char kGetCondition[] = "0 > NIMOShareGet(share_name.c_str(), &share_info_) || !share_info_";

TEST_F(ShareTest, ThatDoesNotExistFailsWithItsBareName) {
  ExpectError([] { const SDKShare share("video"); }, 800, "video", "SDKShare", kGetCondition);
  EXPECT_EQ((Words{"NIMOShareGet(video, pointer) locked"}), Calls()) << "nothing is released";
}

TEST_F(ShareTest, WithoutARecordFailsLikeAMissingOne) {
  FakeShares().get.Always([](const char*, NIMOSHARE** share) {
    *share = nullptr;
    return 0;
  });
  ExpectError([] { const SDKShare share("photo"); }, 800, "photo", "SDKShare", kGetCondition);
}

TEST_F(ShareTest, ShowsTheSystemsErrorInTheRecordAndClearsIt) {
  FakeShares().get.Always([](const char*, NIMOSHARE** share) {
    *share = nullptr;
    errno = EACCES;
    return -1;
  });
  ExpectError([] { const SDKShare share("photo"); }, 800, "photo", "SDKShare", kGetCondition, "Permission denied");
  EXPECT_EQ(0, errno);
}

TEST_F(ShareTest, CanBeIndexedOnlyWhenItIsNeitherEncryptedNorReadOnly) {
  for (const bool encrypted : {false, true}) {
    for (const bool read_only : {false, true}) {
      FakeShares().Add({.name = "photo", .path = "/volume1/photo", .encrypted = encrypted, .read_only = read_only});
      EXPECT_EQ(!encrypted && !read_only, SDKShare("photo").CanBeIndexed());
    }
  }
}

TEST_F(ShareTest, CanBeIndexedOnlyWhenBothAnswersAreExactlyZero) {
  const SDKShare share("photo");
  for (const int value : {1, 2, -1}) {
    FakeShares().is_encrypted.Next(Answers(value));
    EXPECT_FALSE(share.CanBeIndexed());
    FakeShares().is_read_only.Next(Answers(value));
    EXPECT_FALSE(share.CanBeIndexed());
  }
}

TEST_F(ShareTest, TakesAnyResultThatIsNotNegativeForSuccess) {
  const SDKShare share("photo");
  FakeShares().is_encrypted.Always(Answers(0, 1));
  FakeShares().is_read_only.Always(Answers(0, 1));
  FakeShares().is_encryption.Always(Answers(1, 1));
  FakeShares().recycle_status.Always(Answers(1, 1));
  FakeShares().hide_unreadable.Always(Answers(1, 1));
  EXPECT_TRUE(share.CanBeIndexed());
  EXPECT_TRUE(share.IsEncryption());
  EXPECT_TRUE(share.IsEnableRecycleBin());
  EXPECT_TRUE(share.IsHideUnReadable());
}

TEST_F(ShareTest, AsksWhetherItCanBeIndexedUnderTheLock) {
  FakeShares().Add({.name = "photo", .path = "/volume1/photo", .encrypted = true});
  const SDKShare share("photo");
  share.CanBeIndexed();
  EXPECT_EQ((Words{"NLIBShareIsEncryptedGet(photo, pointer) locked", "NLIBShareIsReadOnlyGet(photo, pointer) locked"}),
            Calls(1));
}

TEST_F(ShareTest, FailsWhenItsEncryptionCannotBeAsked) {
  const SDKShare share("photo");
  FakeShares().is_encrypted.FailAt(1);
  ExpectError([&] { share.CanBeIndexed(); }, 502, "NLIBShareis_encryptedGet failed, share=photo", "CanBeIndexed",
              "0 > NLIBShareIsEncryptedGet(share_info_, &is_encrypted)");
  EXPECT_EQ(0U, FakeShares().is_read_only.calls().size());
  EXPECT_TRUE(share.CanBeIndexed()) << "and stays usable";
}

TEST_F(ShareTest, FailsWhenItsReadOnlyStateCannotBeAsked) {
  const SDKShare share("photo");
  FakeShares().is_read_only.FailAt(1);
  ExpectError([&] { share.CanBeIndexed(); }, 502, "NLIBShareis_readonlyGet failed, share=photo", "CanBeIndexed",
              "0 > NLIBShareIsReadOnlyGet(share_info_, &is_readonly)");
  EXPECT_TRUE(share.CanBeIndexed()) << "and stays usable";
}

TEST_F(ShareTest, IsOfTheEncryptedKindOnlyWhenTheAnswerIsExactlyOne) {
  const SDKShare share("photo");
  for (const int value : {0, 1, 2, -1}) {
    FakeShares().is_encryption.Next(Answers(value));
    EXPECT_EQ(value == 1, share.IsEncryption()) << value;
  }
  EXPECT_EQ("NLIBShareIsEncryptionGet(photo, pointer) locked", Calls().back());
}

TEST_F(ShareTest, FailsWhenItsKindCannotBeAsked) {
  const SDKShare share("photo");
  FakeShares().is_encryption.FailAt(1);
  ExpectError([&] { share.IsEncryption(); }, 502, "NLIBShareIsEncryptionGet failed, share=photo", "IsEncryption",
              "0 > NLIBShareIsEncryptionGet(share_info_, &is_encryption)");
  EXPECT_FALSE(share.IsEncryption());
}

TEST_F(ShareTest, HasItsRecycleBinOnOnlyWhenTheAnswerIsExactlyOne) {
  const SDKShare share("photo");
  for (const int value : {0, 1, 2, -1}) {
    FakeShares().recycle_status.Next(Answers(value));
    EXPECT_EQ(value == 1, share.IsEnableRecycleBin()) << value;
  }
  EXPECT_EQ("NLIBShareRecycleStatusGet(photo, pointer) locked", Calls().back());
}

TEST_F(ShareTest, FailsWhenItsRecycleBinCannotBeAsked) {
  const SDKShare share("photo");
  FakeShares().recycle_status.FailAt(1);
  ExpectError([&] { share.IsEnableRecycleBin(); }, 502, "NLIBShareRecycleStatusGet failed, share=photo",
              "IsEnableRecycleBin", "0 > NLIBShareRecycleStatusGet(share_info_, &is_enabled)");
  EXPECT_FALSE(share.IsEnableRecycleBin());
}

TEST_F(ShareTest, HidesTheUnreadableOnlyWhenTheAnswerIsExactlyOne) {
  const SDKShare share("photo");
  for (const int value : {0, 1, 2, -1}) {
    FakeShares().hide_unreadable.Next(Answers(value));
    EXPECT_EQ(value == 1, share.IsHideUnReadable()) << value;
  }
  EXPECT_EQ("NLIBShareHideUnreadableGet(photo, pointer)", Calls().back()) << "without the lock";
}

TEST_F(ShareTest, HidesNothingWhenThatCannotBeAskedAndSaysNothing) {
  const SDKShare share("photo");
  const RecordCapture capture;
  FakeShares().hide_unreadable.Always(Answers(1, -1));
  EXPECT_FALSE(share.IsHideUnReadable());
  EXPECT_EQ(0U, capture.records().size());
}

TEST_F(ShareTest, AsksForRoomOfAHundredMebibytesUnderTheLock) {
  const SDKShare share("photo");
  EXPECT_TRUE(share.IsSpaceEnough());
  EXPECT_EQ((Words{"NIMOQuotaIsEnough(0, /volume1/photo, 104857600) locked"}), Calls(1));
}

TEST_F(ShareTest, HasRoomAtAnyAnswerButZero) {
  const SDKShare share("photo");
  for (const int answer : {1, 2, -1}) {
    FakeQuota().Next([=](int, const char*, unsigned long long) {
      SetPlatformError(0x2900, "quota.c", 1);
      return answer;
    });
    EXPECT_TRUE(share.IsSpaceEnough()) << answer;
  }
}

TEST_F(ShareTest, LacksRoomOnlyForTheTwoErrorsOfARealShortage) {
  const SDKShare share("photo");
  const RecordCapture capture;
  for (const int error : {0x2900, 0x2400, 0, EIO, ENOSPC, 0x2901, 0x2800, 0x2401, 0x2300}) {
    FakeQuota().Next([=](int, const char*, unsigned long long) {
      SetPlatformError(error, "quota.c", 1);
      return 0;
    });
    EXPECT_EQ(error != 0x2900 && error != 0x2400, share.IsSpaceEnough()) << error;
    EXPECT_EQ("NLIBCErrGet() locked", Calls().back());
  }
  EXPECT_EQ(0U, capture.records().size());
}

TEST_F(ShareTest, HasTheFtpPrivilegeOfItsRecordAsItIs) {
  const SDKShare share("photo");
  EXPECT_EQ(-7, share.GetFTPPrivilege());
  EXPECT_EQ(Words(), Calls(1));
}

TEST_F(ShareTest, AsksForAPrivilegeOnceWithoutTheLock) {
  const SDKShare share("photo");
  FakeShares().user_privilege.Next([](const char*, NIMOSHARE*) { return 2; });
  EXPECT_EQ(2, share.GetPrivilege("ann"));
  EXPECT_EQ(2, share.GetPrivilege("ann"));
  EXPECT_EQ((Words{"NIMOShareUserPrivCalc(ann, photo)"}), Calls(1));
}

TEST_F(ShareTest, KeepsAPrivilegeForEachAccount) {
  const SDKShare share("photo");
  FakeShares().user_privilege.Always([](const char* user, NIMOSHARE*) { return user[0] == 'a' ? 1 : 2; });
  EXPECT_EQ(1, share.GetPrivilege("ann"));
  EXPECT_EQ(2, share.GetPrivilege("bob"));
  EXPECT_EQ(1, share.GetPrivilege("ann"));
}

TEST_F(ShareTest, KeepsAnErrorForAPrivilegeToo) {
  const SDKShare share("photo");
  const RecordCapture capture;
  FakeShares().user_privilege.Next([](const char*, NIMOSHARE*) { return -3; });
  EXPECT_EQ(-3, share.GetPrivilege("ann"));
  EXPECT_EQ(-3, share.GetPrivilege("ann"));
  EXPECT_EQ(1U, FakeShares().user_privilege.calls().size());
  EXPECT_EQ(0U, capture.records().size());
}

// One of the three places of a share's index.
struct Location {
  const char* name;
  std::string (SDKShare::*get)() const;
  FakeFunction<int(const char*, char*, size_t)>& (*function)();
  const char* value;
  const char* call;
  const char* reason;
  const char* condition;
};

void PrintTo(const Location& location, std::ostream* out) {
  *out << location.name;
}

class ShareLocation : public ShareTest, public testing::WithParamInterface<Location> {};

TEST_P(ShareLocation, IsAskedForOnceUnderTheLock) {
  const SDKShare share("photo");
  EXPECT_EQ(GetParam().value, (share.*GetParam().get)());
  EXPECT_EQ(GetParam().value, (share.*GetParam().get)());
  EXPECT_EQ((Words{GetParam().call}), Calls(1));
}

TEST_P(ShareLocation, IsAskedForAgainAfterAFailure) {
  const SDKShare share("photo");
  GetParam().function().FailAt(1);
  ExpectError([&] { (share.*GetParam().get)(); }, 502, GetParam().reason, GetParam().name, GetParam().condition);
  EXPECT_EQ(GetParam().value, (share.*GetParam().get)());
  EXPECT_EQ(2U, GetParam().function().calls().size());
}

TEST_P(ShareLocation, IsKeptForEachObject) {
  const SDKShare share("photo");
  (share.*GetParam().get)();
  (SDKShare("photo").*GetParam().get)();
  EXPECT_EQ(2U, GetParam().function().calls().size());
}

FakeFunction<int(const char*, char*, size_t)>& QueuePath() {
  return FakeIndexLocation().queue_path;
}
FakeFunction<int(const char*, char*, size_t)>& DBPath() {
  return FakeIndexLocation().db_path;
}
FakeFunction<int(const char*, char*, size_t)>& IndexID() {
  return FakeIndexLocation().index_id;
}

INSTANTIATE_TEST_SUITE_P(
    All, ShareLocation,
    testing::Values(Location{"GetQueuePath", &SDKShare::GetQueuePath, QueuePath, "/volume1/@fileindex/photo/queue",
                             "FILEIDXQueuePathCompose(/volume1/photo, pointer, 4096) locked",
                             "FILEIDXQueuePathCompose failed, share=photo",
                             "0 > FILEIDXQueuePathCompose(share_info_->szPath, path, sizeof(path))"},
                    Location{"GetDBPath", &SDKShare::GetDBPath, DBPath, "/volume1/@fileindex/photo/db",
                             "FILEIDXDBPathCompose(/volume1/photo, pointer, 4096) locked",
                             "FILEIDXDBPathCompose failed, share=photo",
                             "0 > FILEIDXDBPathCompose(share_info_->szPath, path, sizeof(path))"},
                    Location{"GetDBName", &SDKShare::GetDBName, IndexID, "fileindex_photo",
                             "FILEIDXGetIndexID(photo, pointer, 1024) locked", "FILEIDXGetIndexID failed, share=photo",
                             "0 > FILEIDXGetIndexID(share_info_->szName, name, sizeof(name))"}),
    [](const auto& location) { return std::string(location.param.name); });

TEST_F(ShareTest, FailuresNameTheShareAsTheCallerCalledIt) {
  FakeShares().get.Always([](const char*, NIMOSHARE** share) { return FakeShares().get.Usual("photo", share); });
  const SDKShare share("PHOTO");
  FakeShares().is_encryption.FailAt(1);
  ExpectError([&] { share.IsEncryption(); }, 502, "NLIBShareIsEncryptionGet failed, share=PHOTO", "IsEncryption",
              "0 > NLIBShareIsEncryptionGet(share_info_, &is_encryption)");
}

TEST_F(ShareTest, AreListedWithoutTheLock) {
  FakeShares().Add("homes", "/volume1/homes");
  EXPECT_EQ((Names{"homes", "photo"}), SDKShare::Enum());
  EXPECT_EQ((Words{"NLIBCSzListAlloc(1024)", "NLIBShareEnum(pointer, pointer)", "NLIBCSzListGet(pointer, 0)",
                   "NLIBCSzListGet(pointer, 1)", "NLIBCSzListFree(pointer)"}),
            Calls());
}

TEST_F(ShareTest, AreListedThroughAFilterThatSkipsNone) {
  FakeShares().enumerate.Next([](SZLIST**, NLIB_SHARE_FILTER* filter) {
    const NIMOSHARE share = {};
    EXPECT_EQ(0, filter->pfnSkip(&share, filter->pData));
    EXPECT_EQ(0, filter->pfnSkip(nullptr, nullptr));
    EXPECT_EQ(nullptr, filter->pData);
    return 0;
  });
  EXPECT_EQ(Names(), SDKShare::Enum());
  EXPECT_EQ(1U, FakeShares().enumerate.calls().size());
}

TEST_F(ShareTest, AreListedOnceEach) {
  FakeShares().enumerate.Next([](SZLIST** list, NLIB_SHARE_FILTER*) {
    for (const char* name : {"video", "photo", "video", "homes"}) {
      FakeStringLists().Push(list, name);
    }
    return 1;
  });
  EXPECT_EQ((Names{"homes", "photo", "video"}), SDKShare::Enum());
}

TEST_F(ShareTest, AreAllListedWhenTheFirstListIsTooSmall) {
  FakeShares().enumerate.Next([](SZLIST** list, NLIB_SHARE_FILTER*) {
    for (int i = 0; i < 3000; ++i) {
      FakeStringLists().Push(list, "share" + std::to_string(i));
    }
    return 0;
  });
  EXPECT_EQ(3000U, SDKShare::Enum().size());
}

TEST_F(ShareTest, CannotBeListedWithoutAList) {
  FakeStringLists().alloc.FailAt(1);
  ExpectError([] { SDKShare::Enum(); }, 121, "NLIBCSzListAlloc failed", "Enum",
              "nullptr == (share_list = NLIBCSzListAlloc(BUFSIZ))");
  EXPECT_EQ(0U, FakeShares().enumerate.calls().size());
}

TEST_F(ShareTest, AreNotListedWhenTheEnumerationFails) {
  FakeShares().enumerate.Next([](SZLIST** list, NLIB_SHARE_FILTER*) {
    FakeStringLists().Push(list, "photo");
    return -1;
  });
  ExpectError([] { SDKShare::Enum(); }, 121, "NLIBShareEnum failed", "Enum",
              "0 > NLIBShareEnum(&share_list, &enum_func)");
}

}  // namespace
}  // namespace orbisk::sdk::test
