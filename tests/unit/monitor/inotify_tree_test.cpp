// The tree of watched folders where it is behind the disk.
#include "services/monitor/inotify_tree.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <filesystem>

#include "tests/support/temp_dir.h"

namespace nimotifyd {

using service::UniqueFd;

namespace {

namespace fs = std::filesystem;

class InotifyTreeTest : public testing::Test {
 protected:
  InotifyTreeTest() {
    fs::create_directories(root() + "/a/b");
    fs::create_directories(outside() + "/b");
  }
  std::string root() const { return area_ / "share"; }
  std::string outside() const { return area_ / "outside"; }
  InotifyFolder& Child(InotifyFolder& folder, const std::string& name) const { return *folder.children.at(name); }

 private:
  orbisk::test::TempDir area_;
  UniqueFd fd_{inotify_init1(IN_NONBLOCK | IN_CLOEXEC)};
  std::unordered_map<std::string, std::unique_ptr<QueueSink>> sinks_;
  std::unique_ptr<Scopes> scopes_ = MakeScopes();
  Recorder recorder_{*scopes_};

  std::unique_ptr<Scopes> MakeScopes() {
    const std::string queue = area_ / "queue";
    sinks_.try_emplace(queue, std::make_unique<QueueSink>(queue, 1000));
    return std::make_unique<Scopes>(
        std::vector<Registration>{{"app", queue, {{root(), 0xFFFF, {}}, {area_ / "link", 0xFFFF, {}}}}}, sinks_);
  }

 protected:
  InotifyTree tree_{fd_.get(), WatchBudget(1000, 10), recorder_};
};

TEST_F(InotifyTreeTest, RegisteredLinkIsWatchedWithWhatItLeadsTo) {
  const std::string link = fs::path(root()).parent_path() / "link";
  fs::create_directory_symlink(root(), link);

  const InotifyFolder* folder = tree_.AddRoot({link, 0});

  ASSERT_NE(folder, nullptr);
  EXPECT_GE(folder->children.at("a")->children.at("b")->watch, 0);
}

TEST_F(InotifyTreeTest, LinkThatTookAFoldersPlaceIsNotWatched) {
  InotifyFolder& top = *tree_.AddRoot({root(), 0});
  const size_t watches = tree_.watches();
  fs::create_directory_symlink(outside(), root() + "/new");

  const InotifyFolder* added = tree_.Add(top, "new");

  ASSERT_NE(added, nullptr);
  EXPECT_LT(added->watch, 0);
  EXPECT_TRUE(added->children.empty());
  EXPECT_EQ(tree_.watches(), watches);
}

TEST_F(InotifyTreeTest, FolderBehindALinkThatTookAFoldersPlaceIsNotWatched) {
  InotifyFolder& top = *tree_.AddRoot({root(), 0});
  fs::rename(root() + "/a", root() + "/moved");
  fs::create_directory_symlink(outside(), root() + "/a");

  const InotifyFolder* added = tree_.Add(Child(top, "a"), "b");

  ASSERT_NE(added, nullptr);
  EXPECT_LT(added->watch, 0);
}

TEST_F(InotifyTreeTest, FolderThatIsWhereTheTreeHasItIsOpened) {
  InotifyFolder& top = *tree_.AddRoot({root(), 0});

  EXPECT_TRUE(tree_.Open(top).valid());
  EXPECT_TRUE(tree_.Open(Child(Child(top, "a"), "b")).valid());
}

}  // namespace
}  // namespace nimotifyd
