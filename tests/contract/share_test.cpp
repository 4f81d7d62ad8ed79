// What nimo/share.h promises.
#include "nimo/share.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "nimo/error.h"
#include "nimo/filesystem.h"
#include "tests/contract/platform_under_test.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;
using NIMO::SHARE::Entry;

// A box with a volume for shares.
class Share : public testing::Test {
 protected:
  void SetUp() override {
    if (!ForgetSharesAndAccounts()) {
      GTEST_SKIP() << "private mounts are not allowed here";
    }
  }

  // Makes a share with its folder on the volume.
  Entry Add(const std::string& name, const Entry& settings = {}) {
    Entry share = settings;
    share.name = name;
    share.path = volume_ / name;
    fs::create_directories(share.path);
    AddShare(share);
    return share;
  }

  int Find(const std::string& path) {
    memset(name_, 'x', sizeof(name_));
    memset(path_, 'x', sizeof(path_));
    return NIMOShareNamePathGet(path.c_str(), name_, sizeof(name_), path_, sizeof(path_));
  }

  int InSnapshot(const std::string& path) {
    int flag = 7;
    EXPECT_EQ(0, NLIBFhsPathInSnapshot(path.c_str(), &flag));
    return flag;
  }

  TempDir volume_;
  char name_[NIMO_SHARE_NAME_BYTES];
  char path_[NIMO_SHARE_PATH_BYTES];
};

std::vector<std::string> Enumerate(NLIB_SHARE_FILTER* filter) {
  SZLIST* list = NLIBCSzListAlloc(1);
  EXPECT_LE(0, NLIBShareEnum(&list, filter));
  std::vector<std::string> names;
  for (int i = 0; i < list->nItem; ++i) {
    names.emplace_back(NLIBCSzListGet(list, i));
  }
  NLIBCSzListFree(list);
  std::sort(names.begin(), names.end());
  return names;
}

TEST_F(Share, IsFoundByItsName) {
  const Entry photo = Add("photo", {.name = {}, .path = {}, .ftp_privilege = 42});
  NIMOSHARE* share = nullptr;
  ASSERT_EQ(0, NIMOShareGet("photo", &share));
  ASSERT_NE(nullptr, share);
  EXPECT_STREQ("photo", share->szName);
  EXPECT_EQ(photo.path, share->szPath);
  EXPECT_EQ(42, share->nFTPPrivilege);
  NIMOShareFree(share);
}

TEST_F(Share, ThatIsUnknownIsAFailureAndStoresNull) {
  Add("photo");
  for (const char* name : {"Photo", "phot", ""}) {
    NIMOSHARE unused{};
    NIMOSHARE* share = &unused;
    EXPECT_GT(0, NIMOShareGet(name, &share)) << name;
    EXPECT_EQ(nullptr, share);
    EXPECT_EQ(ENOENT, NLIBCErrGet());
  }
  NIMOSHARE* share = nullptr;
  EXPECT_GT(0, NIMOShareGet(nullptr, &share));
  EXPECT_GT(0, NIMOShareGet("photo", nullptr));
  NIMOShareFree(nullptr);
}

TEST_F(Share, IsEnumeratedUnlessTheFilterSkipsIt) {
  for (const char* name : {"photo", "music", "video"}) {
    Add(name);
  }
  EXPECT_EQ((std::vector<std::string>{"music", "photo", "video"}), Enumerate(nullptr));
  NLIB_SHARE_FILTER none{nullptr, nullptr};
  EXPECT_EQ((std::vector<std::string>{"music", "photo", "video"}), Enumerate(&none));
  std::string skipped = "music";
  NLIB_SHARE_FILTER filter{
      [](const NIMOSHARE* share, void* data) { return *static_cast<std::string*>(data) == share->szName ? 1 : 0; },
      &skipped};
  EXPECT_EQ((std::vector<std::string>{"photo", "video"}), Enumerate(&filter));
}

TEST_F(Share, EnumerationGrowsTheListAndRefusesNone) {
  for (int i = 0; i < 50; ++i) {
    Add("share" + std::to_string(i));
  }
  EXPECT_EQ(50U, Enumerate(nullptr).size());
  SZLIST* none = nullptr;
  EXPECT_GT(0, NLIBShareEnum(&none, nullptr));
  EXPECT_GT(0, NLIBShareEnum(nullptr, nullptr));
}

TEST_F(Share, SettingsAreEachTheirOwn) {
  using Getter = int (*)(NIMOSHARE*, int*);
  const struct {
    Entry share;
    Getter getter;
  } kSettings[] = {
      {{.name = "locked", .path = {}, .encrypted = true}, NLIBShareIsEncryptedGet},
      {{.name = "recycle", .path = {}, .recycle = true}, NLIBShareRecycleStatusGet},
      {{.name = "read_only", .path = {}, .read_only = true}, NLIBShareIsReadOnlyGet},
      {{.name = "hide", .path = {}, .hide_unreadable = true}, NLIBShareHideUnreadableGet},
  };
  for (const auto& set : kSettings) {
    Add(set.share.name, set.share);
    NIMOSHARE* share = nullptr;
    ASSERT_EQ(0, NIMOShareGet(set.share.name.c_str(), &share));
    for (const Getter getter : {NLIBShareIsEncryptedGet, NLIBShareRecycleStatusGet, NLIBShareIsReadOnlyGet,
                                NLIBShareHideUnreadableGet, NLIBShareIsEncryptionGet}) {
      int value = 7;
      EXPECT_LE(0, getter(share, &value));
      EXPECT_EQ(getter == set.getter ? 1 : 0, value) << set.share.name;
    }
    NIMOShareFree(share);
  }
}

TEST_F(Share, OfTheEncryptedKindSaysSo) {
  Add("vault", {.name = {}, .path = {}, .encryption = true});
  NIMOSHARE* share = nullptr;
  ASSERT_EQ(0, NIMOShareGet("vault", &share));
  int value = 7;
  EXPECT_LE(0, NLIBShareIsEncryptionGet(share, &value));
  EXPECT_EQ(1, value);
  NIMOShareFree(share);
}

TEST_F(Share, SettingsOfAShareThatIsGoneCannotBeKnown) {
  NIMOSHARE gone{"gone", "/volume1/gone", 0};
  for (auto* const getter : {NLIBShareIsEncryptedGet, NLIBShareRecycleStatusGet, NLIBShareIsReadOnlyGet,
                             NLIBShareHideUnreadableGet, NLIBShareIsEncryptionGet}) {
    int value = 7;
    EXPECT_GT(0, getter(&gone, &value));
    EXPECT_EQ(7, value);
    EXPECT_EQ(ENOENT, NLIBCErrGet());
    EXPECT_GT(0, getter(nullptr, &value));
  }
}

TEST_F(Share, IsFoundByEveryPathInItComponentByComponent) {
  const Entry photo = Add("photo");
  for (const char* below : {"", "/", "/2019", "/2019/missing/file"}) {
    ASSERT_EQ(0, Find(photo.path + below)) << below;
    EXPECT_STREQ("photo", name_);
    EXPECT_EQ(photo.path, path_);
  }
}

TEST_F(Share, IsNotFoundByPathsBesideOrAboveIt) {
  const Entry photo = Add("photo");
  for (const std::string& path : {photo.path + "s", photo.path + "s/2019", volume_ / "other", volume_.path(),
                                  std::string("/"), std::string(), photo.path.substr(1), std::string("photo")}) {
    EXPECT_GT(0, Find(path)) << path;
    EXPECT_EQ(ENOENT, NLIBCErrGet());
    EXPECT_EQ('x', name_[0]);
    EXPECT_EQ('x', path_[0]);
  }
}

TEST_F(Share, LookUpNeedsRoomForTheNulByte) {
  const Entry photo = Add("photo");
  char name[6] = "xxxxx";
  char path[4096] = "x";
  EXPECT_GT(0, NIMOShareNamePathGet(photo.path.c_str(), name, 5, path, sizeof(path)));
  EXPECT_EQ(ENAMETOOLONG, NLIBCErrGet());
  EXPECT_GT(0, NIMOShareNamePathGet(photo.path.c_str(), name, 6, path, photo.path.size()));
  EXPECT_STREQ("xxxxx", name);
  EXPECT_STREQ("x", path);
  EXPECT_EQ(0, NIMOShareNamePathGet(photo.path.c_str(), name, 6, path, photo.path.size() + 1));
  EXPECT_GT(0, NIMOShareNamePathGet(nullptr, name, 6, path, sizeof(path)));
}

TEST_F(Share, RecycleBinIsRightBelowItAndOnlyWhileSwitchedOn) {
  const Entry on = Add("on", {.name = {}, .path = {}, .recycle = true});
  const Entry off = Add("off");
  EXPECT_EQ(1, NIMOShareIsShareRecycle((on.path + "/#recycle").c_str()));
  EXPECT_EQ(1, NIMOShareIsShareRecycle((on.path + "/#recycle/a/b").c_str()));
  for (const std::string& path :
       {on.path, on.path + "/#recycled", on.path + "/a/#recycle", off.path + "/#recycle", std::string("/#recycle")}) {
    EXPECT_EQ(0, NIMOShareIsShareRecycle(path.c_str())) << path;
  }
  EXPECT_GT(0, NIMOShareIsShareRecycle(nullptr));
}

TEST_F(Share, OfHomesHasARecycleBinForEachHomeThatReallyHasOne) {
  const Entry homes = Add("homes");
  const Entry photo = Add("photo");
  fs::create_directories(homes.path + "/ann/#recycle");
  fs::create_directories(homes.path + "/bob");
  fs::create_directories(photo.path + "/ann/#recycle");
  EXPECT_EQ(1, NIMORecycleUserHomePathIsExist((homes.path + "/ann/#recycle").c_str(), 11));
  EXPECT_EQ(1, NIMORecycleUserHomePathIsExist((homes.path + "/ann/#recycle/missing").c_str(), 11));
  for (const std::string& path :
       {homes.path, homes.path + "/ann", homes.path + "/bob/#recycle", homes.path + "/ann/a/#recycle",
        homes.path + "/#recycle", photo.path + "/ann/#recycle"}) {
    EXPECT_EQ(0, NIMORecycleUserHomePathIsExist(path.c_str(), 11)) << path;
  }
  EXPECT_GT(0, NIMORecycleUserHomePathIsExist(nullptr, 11));
}

TEST_F(Share, SnapshotsLieRightBelowSharesAndHomes) {
  const Entry photo = Add("photo");
  const Entry homes = Add("homes");
  for (const std::string& path : {photo.path + "/#snapshot", photo.path + "/#snapshot/1/a", homes.path + "/#snapshot",
                                  homes.path + "/ann/#snapshot/1"}) {
    EXPECT_EQ(1, InSnapshot(path)) << path;
  }
  for (const std::string& path : {photo.path, photo.path + "/#snapshots", photo.path + "/a/#snapshot",
                                  homes.path + "/ann/a/#snapshot", volume_ / "#snapshot"}) {
    EXPECT_EQ(0, InSnapshot(path)) << path;
  }
  int flag = 7;
  EXPECT_NE(0, NLIBFhsPathInSnapshot(nullptr, &flag));
  EXPECT_EQ(7, flag);
}

}  // namespace
}  // namespace orbisk::test
