// What counts as a change below a folder without a watch.
#include "services/monitor/folder_digest.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "services/base/unique_fd.h"
#include "tests/support/temp_dir.h"

namespace nimotifyd {

using service::UniqueFd;

namespace {

namespace fs = std::filesystem;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;

class FolderDigestTest : public testing::Test {
 protected:
  void SetUp() override {
    Register(area_ / "elsewhere/queue");
    fs::create_directories(area_ / "a/b");
    WriteFile(area_ / "a/b/f", "1");
  }
  void Register(const std::string& queue) {
    const std::vector<Registration> registrations = {{"app", queue, {{area_.path(), 0xFFFF, {"skip"}}}}};
    sinks_.try_emplace(queue, std::make_unique<QueueSink>(queue, 1000));
    scopes_ = std::make_unique<Scopes>(registrations, sinks_);
  }
  uint64_t Digest() const {
    const UniqueFd fd(open(area_.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return DigestOf(fd.get(), area_.path(), *scopes_);
  }

  TempDir area_;
  std::unordered_map<std::string, std::unique_ptr<QueueSink>> sinks_;
  std::unique_ptr<Scopes> scopes_;
};

TEST_F(FolderDigestTest, StaysWhileNothingChanges) {
  EXPECT_EQ(Digest(), Digest());
}

TEST_F(FolderDigestTest, ChangesWithContentNamesAndPermissionsBelow) {
  uint64_t before = Digest();
  const auto changed = [&] { return std::exchange(before, Digest()) != before; };

  WriteFile(area_ / "a/b/f", "22");
  EXPECT_TRUE(changed()) << "content";
  WriteFile(area_ / "a/b/g", "");
  EXPECT_TRUE(changed()) << "new file";
  fs::rename(area_ / "a/b/g", area_ / "a/g");
  EXPECT_TRUE(changed()) << "moved file";
  chmod((area_ / "a/b").c_str(), 0700);
  EXPECT_TRUE(changed()) << "folder's permissions";
  fs::remove_all(area_ / "a/b");
  EXPECT_TRUE(changed()) << "removed folder";
}

TEST_F(FolderDigestTest, NamesThatAllQueuesSkipDoNotCount) {
  fs::create_directories(area_ / "a/skip/deep");
  fs::create_directories(area_ / "a/@fileindex/share");
  const uint64_t before = Digest();

  WriteFile(area_ / "a/skip/deep/f", "x");
  WriteFile(area_ / "a/skip/g", "x");
  WriteFile(area_ / "a/@fileindex/share/queue", "x");
  fs::remove_all(area_ / "a/skip/deep");

  EXPECT_EQ(Digest(), before);
}

TEST_F(FolderDigestTest, QueueFilesDoNotCount) {
  Register(area_ / "a/b/queue");
  const uint64_t before = Digest();

  WriteFile(area_ / "a/b/queue", "line\n");
  fs::rename(area_ / "a/b/queue", area_ / "a/b/queue.tmp");
  WriteFile(area_ / "a/b/queue", "another line\n");

  EXPECT_EQ(Digest(), before);
}

TEST_F(FolderDigestTest, FilesBesideAQueueFileCount) {
  Register(area_ / "a/b/queue");
  const uint64_t before = Digest();

  WriteFile(area_ / "a/b/g", "");

  EXPECT_NE(Digest(), before);
}

TEST_F(FolderDigestTest, FolderThatCannotBeOpenedLooksEmpty) {
  EXPECT_EQ(DigestOf(-1, "/nowhere", *scopes_), 0U);
}

}  // namespace
}  // namespace nimotifyd
