// What the indexing daemon makes of a volume that is full, and of one that goes and comes back.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "orbisk/fileindex/elastic_control.h"
#include "tests/support/private_mounts.h"
#include "tests/system/indexer_box.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

class IndexerVolume : public IndexerBox {
 protected:
  static std::string StateOf(const std::string& share) { return StatusOf(share)["state"].asString(); }

  void Write(const std::string& name, const std::string& text) const {
    MakeFolder(fs::path(Docs(name)).parent_path());
    WriteFile(Docs(name), text);
  }

  void StartWithFiles() {
    Write("a.txt", "kingfisher");
    Write("deep/b.txt", "bittern");
    StartIndexer();
    ASSERT_TRUE(BecomesEqual());
  }
};

// The index lies on a small volume, beside the share.
class IndexerFullVolume : public IndexerVolume {
 protected:
  void MountVolume() override { MountEmptyFileSystem(Volume(), size_t{24} << 20); }

  // Takes what room there is, but for so much that files can still be written to.
  void Fill() const {
    std::ofstream ballast(OnFirst("ballast"), std::ios::binary);
    const std::string block(4096, 'x');
    while (ballast.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
    }
  }

  static std::string Words(int seed) {
    std::string text;
    for (int i = 0; i < 20'000; ++i) {
      text += "w" + std::to_string(seed) + "x" + std::to_string(i) + " ";
    }
    return text;
  }
};

TEST_F(IndexerFullVolume, AShareWithoutRoomWaitsAndGoesOnWhenThereIsSome) {
  StartWithFiles();
  AddShare(OnSecond("music"));
  fileindex::elastic::ShareIndexCreate("music");
  ASSERT_EQ(Fileindexctl({"monitor", "register", QueueOf("music"), OnSecond("music")}).exit_status, 0);
  WriteFolders({Entry("/docs", "all"), Entry("/music", "songs")});
  Write("large.txt", Words(1));
  Write("larger.txt", Words(2));
  Fill();

  EXPECT_TRUE(Eventually([] { return StateOf("docs") == "no_space"; }));
  WriteFile(OnSecond("music/c.txt"), "heron");
  EXPECT_TRUE(Eventually([] { return Find({"heron"}).size() == 1; }));
  EXPECT_EQ(InIndex()[Docs("a.txt")].text, "kingfisher");

  fs::remove(OnFirst("ballast"));

  EXPECT_TRUE(BecomesEqual(std::chrono::minutes(2)));
  EXPECT_TRUE(Eventually([] { return StateOf("docs") == "idle"; }));
}

TEST_F(IndexerVolume, NothingIsForgottenWhileAVolumeIsGone) {
  StartWithFiles();
  const IndexedTree before = InIndex();
  const std::string elsewhere = OnSecond("elsewhere");
  MakeFolder(elsewhere);
  ASSERT_EQ(mount(Volume().c_str(), elsewhere.c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(umount2(Volume().c_str(), MNT_DETACH), 0);
  Command("notify_setting_changed");
  EXPECT_TRUE(Eventually([] { return StateOf("docs") == "offline"; }));
  EXPECT_FALSE(fs::exists(OnFirst("@fileindex")));

  WriteFile(elsewhere + "/docs/a.txt", "dipper");
  ASSERT_EQ(mount(elsewhere.c_str(), Volume().c_str(), nullptr, MS_BIND, nullptr), 0);

  EXPECT_TRUE(Eventually([] { return StateOf("docs") == "idle"; }));
  EXPECT_TRUE(BecomesEqual());
  EXPECT_EQ(InIndex().size(), before.size());
  Write("new.txt", "curlew");
  EXPECT_TRUE(BecomesEqual());
  umount2(elsewhere.c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace orbisk::test
