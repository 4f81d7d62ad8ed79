// Settings that the indexing daemon hears of by a signal alone, and folders that are paused within a share.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class IndexerSettings : public IndexerBox {
 protected:
  void Write(const std::string& name, const std::string& text) const {
    MakeFolder(fs::path(Docs(name)).parent_path());
    WriteFile(Docs(name), text);
  }
  static bool Idle() { return StatusOf()["state"].asString() == "idle" && StatusOf()["backlog"] == 0; }
  static bool Paused() { return Command("status")["data"]["paused"].asBool(); }
};

// While it lives the file has another text, and nobody who watches its folder hears of that.
class OtherText {
 public:
  OtherText(const std::string& path, const std::string& text) : path_(path) {
    WriteFile(dir_ / "text", text);
    MountBind(dir_ / "text", path_);
  }
  ~OtherText() { umount2(path_.c_str(), MNT_DETACH); }
  OtherText(const OtherText&) = delete;
  OtherText& operator=(const OtherText&) = delete;

 private:
  const TempDir dir_;
  const std::string path_;
};

TEST_F(IndexerSettings, AHangUpHasConfigurationAndPauseReadAgain) {
  Write("a.txt", "kingfisher");
  Write("deep/b.txt", "bittern");
  WriteFolders({Entry("/docs/deep", "some")});
  const std::string some = ReadFile(kFoldersFile);
  WriteFolders({Entry("/docs", "all")});
  WriteFile(kStatusFile, R"({"resume_time":-1})");
  StartIndexer();
  ASSERT_TRUE(BecomesEqual());
  ASSERT_TRUE(Eventually(Idle));

  const OtherText folders(kFoldersFile, some);
  indexer().Kill(SIGHUP);
  EXPECT_TRUE(Eventually([this] { return InIndex().size() == 2 && InIndex().count(Docs("deep/b.txt")) == 1; }));

  const OtherText status(kStatusFile, R"({"resume_time":0})");
  EXPECT_FALSE(Paused());
  indexer().Kill(SIGHUP);
  EXPECT_TRUE(Eventually(Paused));
}

TEST_F(IndexerSettings, APausedFolderOfAShareIsLeftAloneAndItsNeighboursAreNot) {
  Write("held/a.txt", "kingfisher");
  Write("held/deep/b.txt", "bittern");
  Write("free/c.txt", "heron");
  StartIndexer();
  ASSERT_TRUE(BecomesEqual());
  Json::Value held = Entry("/docs/held", "held");
  held["paused"] = true;
  WriteFolders({Entry("/docs", "all"), held});
  ASSERT_TRUE(Eventually(Idle));
  const IndexedTree before = InIndex();

  const auto expect_left_alone = [&](const std::string& word) {
    ASSERT_TRUE(Eventually([&] { return InIndex()[Docs("free/c.txt")].text == word && Idle(); }));
    IndexedTree index = InIndex();
    index[Docs("free/c.txt")].text = "heron";
    EXPECT_EQ(index, before);
  };

  Write("held/a.txt", "dipper");
  Write("held/new.txt", "dipper");
  fs::remove_all(Docs("held/deep"));
  Write("free/c.txt", "dipper");
  expect_left_alone("dipper");
  KillMonitor();
  Write("free/c.txt", "whinchat");
  Command("worker_create", About("docs"));  // has the whole share compared
  expect_left_alone("whinchat");

  held["paused"] = false;
  WriteFolders({Entry("/docs", "all"), held});
  EXPECT_TRUE(BecomesEqual());
}

}  // namespace
}  // namespace orbisk::test
