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

TEST(Registration, WithoutRegistrationsNothingIsKnown) {
  const TempDir dir;

  EXPECT_TRUE(IsRegistered(dir / "missing", "/v/queue"));
}

}  // namespace
}  // namespace fileindexd
