// Which folder governs a path.
#include "services/indexer/policy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fileindexd {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

FolderSwitches Switches(bool document, bool photo, bool paused = false) {
  return {document, false, false, photo, paused};
}

TEST(Policy, TheLongestPathGoverns) {
  const Policy policy(Policy::Folders{{"/v/s", Switches(true, false)}, {"/v/s/a", Switches(false, true)}});

  EXPECT_TRUE(policy.NeedsMeta("/v/s/x.txt"));
  EXPECT_FALSE(policy.NeedsMeta("/v/s/x.jpg"));
  EXPECT_FALSE(policy.NeedsMeta("/v/s/a/x.txt"));
  EXPECT_TRUE(policy.NeedsMeta("/v/s/a/b/x.jpg"));
}

TEST(Policy, AFileOfNoKindIsWantedWhereverAFolderGoverns) {
  const Policy policy(Policy::Folders{{"/v/s", Switches(false, false)}});

  EXPECT_TRUE(policy.NeedsMeta("/v/s/x.unknown"));
  EXPECT_FALSE(policy.NeedsMeta("/v/t/x.unknown"));
}

TEST(Policy, NamesThatOnlyBeginAlikeAreOthers) {
  const Policy policy(Policy::Folders{{"/v/s/a", {}}});

  EXPECT_TRUE(policy.Governs("/v/s/a"));
  EXPECT_TRUE(policy.Governs("/v/s/a/b"));
  EXPECT_FALSE(policy.Governs("/v/s/ab"));
  EXPECT_FALSE(policy.Governs("/v/s"));
  EXPECT_TRUE(policy.LeadsToFolder("/v/s"));
  EXPECT_FALSE(policy.LeadsToFolder("/v/s/a"));
  EXPECT_FALSE(policy.LeadsToFolder("/v/s/"));
  EXPECT_TRUE(IsAtOrBelow("/v/s/a/b", "/v/s/a"));
  EXPECT_FALSE(IsAtOrBelow("/v/s/ab", "/v/s/a"));
}

TEST(Policy, APausedFolderWithinAnotherIsPausedAlone) {
  const Policy policy(Policy::Folders{{"/v/s", {}}, {"/v/s/a", Switches(true, true, true)}});

  EXPECT_FALSE(policy.IsPaused("/v/s/x"));
  EXPECT_TRUE(policy.IsPaused("/v/s/a/x"));
  EXPECT_TRUE(policy.HasWork());
  EXPECT_FALSE(Policy(Policy::Folders{{"/v/s", Switches(true, true, true)}}).HasWork());
  EXPECT_FALSE(Policy().HasWork());
}

TEST(Policy, ChangesAreTheFoldersThatCameWentOrSwitched) {
  const Policy before(Policy::Folders{{"/v/s/a", {}}, {"/v/s/b", {}}, {"/v/s/c", {}}});
  const Policy after(Policy::Folders{{"/v/s/b", {}}, {"/v/s/c", Switches(true, false)}, {"/v/s/d", {}}});

  EXPECT_THAT(before.Changes(after), UnorderedElementsAre("/v/s/a", "/v/s/c", "/v/s/d"));
  EXPECT_THAT(before.Changes(before), ElementsAre());
}

}  // namespace
}  // namespace fileindexd
