// The file that keeps a second daemon out.
#include "services/base/pid_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "tests/support/temp_dir.h"

namespace service {

namespace {

using orbisk::test::ReadFile;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;

TEST(PidFile, HoldsTheNumberAndGoesWithItsHolder) {
  const TempDir folder;
  {
    const PidFile file(folder / "pid");

    EXPECT_EQ(ReadFile(folder / "pid"), std::to_string(getpid()) + "\n");
  }
  EXPECT_FALSE(std::filesystem::exists(folder / "pid"));
}

TEST(PidFile, KeepsASecondHolderOutAndNamesTheFirst) {
  const TempDir folder;
  const PidFile first(folder / "pid");

  try {
    const PidFile second(folder / "pid");
    ADD_FAILURE() << "there are two";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find(std::to_string(getpid())), std::string::npos) << error.what();
  }
  EXPECT_TRUE(std::filesystem::exists(folder / "pid"));
}

TEST(PidFile, TakesOverWhatADeadHolderLeft) {
  const TempDir folder;
  WriteFile(folder / "pid", "123456789\nand more");

  const PidFile file(folder / "pid");

  EXPECT_EQ(ReadFile(folder / "pid"), std::to_string(getpid()) + "\n");
}

TEST(PidFile, DoesNotWriteThroughALink) {
  const TempDir folder;
  WriteFile(folder / "target", "precious");
  std::filesystem::create_symlink(folder / "target", folder / "pid");

  EXPECT_THROW(PidFile(folder / "pid"), std::system_error);
  EXPECT_EQ(ReadFile(folder / "target"), "precious");
}

}  // namespace
}  // namespace service
