// The change monitor's registrations, read.
#include "services/indexer/registration.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/temp_dir.h"

namespace fileindexd {
namespace {

using orbisk::test::TempDir;
using orbisk::test::WriteFile;

TEST(Registration, AQueueIsRegisteredIfOneOfTheFilesSaysSo) {
  const TempDir dir;
  EXPECT_FALSE(IsRegistered(dir.path(), "/v/queue"));
  WriteFile(dir / "a.json", "nonsense");
  WriteFile(dir / "b.json", "[\"queue\"]");
  WriteFile(dir / "c.json", "{\"queue\":\"/v/queue2\"}");
  EXPECT_FALSE(IsRegistered(dir.path(), "/v/queue"));

  WriteFile(dir / "d.json", "{\"app\":\"fileindex\",\"queue\":\"/v/queue\"}");

  EXPECT_TRUE(IsRegistered(dir.path(), "/v/queue"));
}

TEST(Registration, WatchesWhatIsAtOrBelowARegisteredPath) {
  const TempDir dir;
  WriteFile(dir / "a.json", R"({"queue":"/v/queue","config":[{"path":"/v/homes/ann"},7,{},{"path":"/v/homes/bob"}]})");
  WriteFile(dir / "b.json", R"({"queue":"/v/queue2","config":[{"path":"/v/homes/eve"}]})");

  EXPECT_TRUE(Watches(dir.path(), "/v/queue", {"/v/homes/ann", "/v/homes/bob/deep"}));
  EXPECT_FALSE(Watches(dir.path(), "/v/queue", {"/v/homes/ann", "/v/homes/eve"}));
  EXPECT_FALSE(Watches(dir.path(), "/v/queue", {"/v/homes/anna"}));
  EXPECT_FALSE(Watches(dir.path(), "/v/queue", {"/v/homes"}));
  EXPECT_TRUE(Watches(dir.path(), "/v/queue3", {"/v/homes/eve"})) << "nobody wants it watched";
}

TEST(Registration, WithoutRegistrationsNothingIsKnown) {
  const TempDir dir;

  EXPECT_TRUE(IsRegistered(dir / "missing", "/v/queue"));
}

}  // namespace
}  // namespace fileindexd
