// What is looked up on the way to a registered folder.
#include "services/monitor/way.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <ostream>

#include "tests/support/temp_dir.h"

namespace nimotifyd {

void PrintTo(const WayStep& step, std::ostream* out) {
  *out << step.folder << " : " << step.name << (step.is_folder ? " (folder)" : step.is_file ? " (file)" : "");
}

namespace {

namespace fs = std::filesystem;

class WayTest : public testing::Test {
 protected:
  using Way = std::vector<WayStep>;

  // The steps to the paths from the test's folder on; those that lead to it are always the same.
  std::vector<WayStep> Steps(const std::vector<std::string>& paths) const {
    std::vector<WayStep> steps = WaysTo(paths);
    const std::vector<WayStep> above = WaysTo({base_});
    std::erase_if(steps,
                  [&](const WayStep& step) { return std::find(above.begin(), above.end(), step) != above.end(); });
    return steps;
  }

  orbisk::test::TempDir area_;
  std::string base_ = fs::canonical(area_.path());
};

TEST_F(WayTest, EachFolderOfAPathIsAStepFromTheRootOn) {
  fs::create_directories(base_ + "/a/b");

  const Way steps = WaysTo({base_ + "/a/b"});

  EXPECT_EQ(steps.front().folder, "/");
  EXPECT_TRUE(std::all_of(steps.begin(), steps.end(), [](const WayStep& step) { return step.is_folder; }));
  EXPECT_EQ(Steps({base_ + "/a/b"}), (Way{{base_, "a", true}, {base_ + "/a", "b", true}}));
}

TEST_F(WayTest, TheWayEndsAtTheFirstNameThatIsMissing) {
  fs::create_directory(base_ + "/a");

  EXPECT_EQ(Steps({base_ + "/a/b/c"}), (Way{{base_, "a", true}, {base_ + "/a", "b", false}}));
}

TEST_F(WayTest, AFileWhereAFolderShouldBeIsNoFolder) {
  orbisk::test::WriteFile(base_ + "/a", "x");

  EXPECT_EQ(Steps({base_ + "/a/b"}), (Way{{base_, "a", false, true}}));
}

TEST_F(WayTest, LinksThatLeadToLinksAreFollowedAndEachIsAStep) {
  fs::create_directories(base_ + "/x/real/in");
  fs::create_directory_symlink(base_ + "/x/middle", base_ + "/first");
  fs::create_directory_symlink("./real", base_ + "/x/middle");

  EXPECT_EQ(Steps({base_ + "/first/in"}), (Way{{base_, "first", false},
                                               {base_, "x", true},
                                               {base_ + "/x", "middle", false},
                                               {base_ + "/x", "real", true},
                                               {base_ + "/x/real", "in", true}}));
}

TEST_F(WayTest, ALinkThatLeadsUpwardsIsFollowed) {
  fs::create_directories(base_ + "/x/y");
  fs::create_directory(base_ + "/z");
  fs::create_directory_symlink("../../z", base_ + "/x/y/up");

  EXPECT_EQ(Steps({base_ + "/x/y/up"}),
            (Way{{base_, "x", true}, {base_, "z", true}, {base_ + "/x", "y", true}, {base_ + "/x/y", "up", false}}));
}

TEST_F(WayTest, ALinkUpwardsPastTheRootStaysThere) {
  fs::create_directory_symlink("../../../../../../../../../../../..", base_ + "/up");

  EXPECT_EQ(Steps({base_ + "/up" + base_}), (Way{{base_, "up", false}}));
}

TEST_F(WayTest, ALinkToItselfEndsTheWay) {
  fs::create_directory_symlink(base_ + "/loop", base_ + "/loop");

  EXPECT_EQ(Steps({base_ + "/loop/in"}), (Way{{base_, "loop", false}}));
}

TEST_F(WayTest, StepsThatWaysShareAreListedOnce) {
  fs::create_directories(base_ + "/a/b");
  fs::create_directory(base_ + "/a/c");

  EXPECT_EQ(Steps({base_ + "/a/c", base_ + "/a/b", base_ + "/a/b"}),
            (Way{{base_, "a", true}, {base_ + "/a", "b", true}, {base_ + "/a", "c", true}}));
}

TEST_F(WayTest, TheRootItselfNeedsNoStep) {
  EXPECT_EQ(WaysTo({"/"}), Way{});
}

}  // namespace
}  // namespace nimotifyd
