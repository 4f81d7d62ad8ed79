// Where a file system can be reached once a folder in it is gone.
#include "services/monitor/handle.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/temp_dir.h"

namespace nimotifyd {
namespace {

TEST(HandleTest, FolderThatIsThereIsTheNearestPathItself) {
  const orbisk::test::TempDir area;

  EXPECT_EQ(NearestIn(FileSystemId(area.path()).value(), area.path()), area.path());
}

TEST(HandleTest, NearestPathToAFolderThatIsGoneIsTheOneAboveThatIsThere) {
  const orbisk::test::TempDir area;
  std::filesystem::create_directory(area / "there");

  EXPECT_EQ(NearestIn(FileSystemId(area.path()).value(), area / "there/gone/too"), area / "there");
}

TEST(HandleTest, RootIsTheNearestPathToATopmostFolderThatIsGone) {
  EXPECT_EQ(NearestIn(FileSystemId("/").value(), "/no-such-folder-here"), "/");
}

TEST(HandleTest, FileSystemThatNoPathAboveLiesInHasNoNearestPath) {
  EXPECT_EQ(NearestIn(0x1234567887654321U, "/no-such-folder-here/below"), "");
}

}  // namespace
}  // namespace nimotifyd
