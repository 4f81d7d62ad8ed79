// "fileindexctl path", run as a program on a box with shares, mounts, bins and links.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "tests/support/private_mounts.h"
#include "tests/system/fileindexctl_box.h"
#include "tests/system/fuse_double.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

std::string Check(const std::string& path) {
  const ProcessResult result = Fileindexctl({"path", "check", "--json", path});
  const Json::Value answer = Parse(result.output);
  const std::string rule = answer["rule"].asString();
  EXPECT_EQ(result.exit_status, rule == "indexable" ? 0 : 1) << path;
  EXPECT_EQ(answer["indexable"].asBool(), rule == "indexable") << path;
  EXPECT_EQ(result.errors, "");
  return rule;
}

// Shares on two volumes: photo with a recycle bin, docs without one, homes, and vault of the encrypted kind.
class PathCommand : public Box {
 protected:
  void SetUp() override {
    Box::SetUp();
    AddShare(OnFirst("photo"), {"--recycle"});
    AddShare(OnSecond("docs"));
    AddShare(OnSecond("homes"));
    MakeFolder(OnFirst("photo/2019"));
    WriteFile(OnFirst("photo/2019/a.jpg"), "");
  }

  static std::string Made(const std::string& path) {
    MakeFolder(path);
    return path;
  }
};

TEST_F(PathCommand, SharesWithTheirFoldersAndFilesMayBeIndexed) {
  EXPECT_EQ(Check(OnFirst("photo")), "indexable");
  EXPECT_EQ(Check(OnFirst("photo/2019")), "indexable");
  EXPECT_EQ(Check(OnFirst("photo/2019/a.jpg")), "indexable");
  EXPECT_EQ(Check(OnSecond("docs")), "indexable");
  EXPECT_EQ(Check(OnSecond("homes")), "indexable");
}

TEST_F(PathCommand, TheAnswerForPeopleSaysTheRule) {
  const std::string link = OnFirst("photo/link");
  fs::create_directory_symlink(OnFirst("photo/2019"), link);

  const ProcessResult yes = Fileindexctl({"path", "check", OnFirst("photo")});
  const ProcessResult no = Fileindexctl({"path", "check", link});

  EXPECT_TRUE(Succeeds(yes, OnFirst("photo") + ": may be indexed\n"));
  EXPECT_EQ(no.exit_status, 1);
  EXPECT_EQ(no.errors, "");
  EXPECT_EQ(no.output, link +
                           ": may not be indexed: it is not written out plainly: it has a symbolic link, \".\", "
                           "\"..\", \"//\" or a \"/\" at the end\n");
}

TEST_F(PathCommand, SnapshotsOfSharesAndHomesAreRefused) {
  EXPECT_EQ(Check(Made(OnFirst("photo/#snapshot/daily"))), "snapshot");
  EXPECT_EQ(Check(OnFirst("photo/#snapshot/missing")), "snapshot");
  EXPECT_EQ(Check(Made(OnSecond("homes/ann/#snapshot"))), "snapshot");
  EXPECT_EQ(Check(Made(OnFirst("photo/2019/#snapshot"))), "indexable");
}

TEST_F(PathCommand, RecycleBinsAreRefusedWhereTheyAreBins) {
  EXPECT_EQ(Check(Made(OnFirst("photo/#recycle/old"))), "recycle_bin");
  EXPECT_EQ(Check(Made(OnSecond("homes/ann/#recycle/old"))), "recycle_bin");
  EXPECT_EQ(Check(Made(OnFirst("photo/2019/#recycle"))), "indexable");
  EXPECT_EQ(Check(Made(OnSecond("docs/#recycle"))), "indexable");
}

TEST_F(PathCommand, NamesThatAreNeverIndexedAreRefusedAtAnyDepth) {
  EXPECT_EQ(Check(Made(OnFirst("photo/2019/.git/objects"))), "preserved_name");
  EXPECT_EQ(Check(Made(OnFirst("photo/@eaDir"))), "preserved_name");
  EXPECT_EQ(Check(Made(OnFirst("photo/.GIT"))), "indexable");
}

TEST_F(PathCommand, PathsThatAreNotWrittenOutPlainlyAreRefused) {
  fs::create_directory_symlink(OnFirst("photo/2019"), OnSecond("docs/link"));

  EXPECT_EQ(Check(OnSecond("docs/link")), "not_real_path");
  EXPECT_EQ(Check(OnSecond("docs/link/a.jpg")), "not_real_path");
  EXPECT_EQ(Check(OnFirst("photo/2019/")), "not_real_path");
  EXPECT_EQ(Check(OnFirst("photo//2019")), "not_real_path");
  EXPECT_EQ(Check(OnFirst("photo/./2019")), "not_real_path");
}

TEST_F(PathCommand, MissingPathsAreRefused) {
  EXPECT_EQ(Check(OnFirst("photo/missing")), "unknown_file_system");
  EXPECT_EQ(Check("relative"), "unknown_file_system");
  EXPECT_EQ(Check(""), "unknown_file_system");
}

TEST_F(PathCommand, WhatNoShareHoldsIsRefused) {
  EXPECT_EQ(Check(Made(OnFirst("elsewhere"))), "no_share");
  EXPECT_EQ(Check(Made(OnFirst("photo2"))), "no_share");
  EXPECT_EQ(Check("/"), "no_share");
}

TEST_F(PathCommand, SharesThatAreLockedOrReadOnlyAreRefused) {
  AddShare(OnFirst("locked"), {"--encrypted"});
  AddShare(OnFirst("read"), {"--read-only"});

  EXPECT_EQ(Check(OnFirst("locked")), "share");
  EXPECT_EQ(Check(OnFirst("read")), "share");
}

TEST_F(PathCommand, AMountPointIsRefusedButWhatLiesBelowIsNot) {
  MountEmptyFileSystem(Made(OnFirst("photo/disk")), 1 << 20);

  EXPECT_EQ(Check(OnFirst("photo/disk")), "mount_point");
  EXPECT_EQ(Check(Made(OnFirst("photo/disk/folder"))), "indexable");
}

TEST_F(PathCommand, AnEncryptedShareMayBeIndexedWhileItIsMounted) {
  AddShare(OnFirst("vault"), {"--encryption"});
  EXPECT_EQ(Check(OnFirst("vault")), "share");

  MountEmptyFileSystem(OnFirst("vault"), 1 << 20);

  EXPECT_EQ(Check(OnFirst("vault")), "indexable");
}

TEST_F(PathCommand, WhatTheKernelMakesUpIsRefused) {
  MountBind("/proc", Made(OnFirst("photo/proc")));

  EXPECT_EQ(Check(OnFirst("photo/proc")), "pseudo_file_system");
  EXPECT_EQ(Check(OnFirst("photo/proc/self")), "pseudo_file_system");
}

// Mounts FUSE doubles, which needs the device.
class ForeignFileSystem : public PathCommand {
 protected:
  std::string RuleOn(const std::string& name) {
    const std::string path = Made(OnFirst("photo/foreign"));
    const FuseDouble file_system(path, name);
    return Check(path);
  }

  void SetUp() override {
    PathCommand::SetUp();
    try {
      const FuseDouble probe(Made(OnFirst("probe")), "probe");
    } catch (const std::system_error& error) {
      // Without the device, or the right to mount it.
      if (error.code() != std::errc::no_such_file_or_directory && error.code() != std::errc::no_such_device &&
          error.code() != std::errc::operation_not_permitted && error.code() != std::errc::permission_denied) {
        throw;
      }
      GTEST_SKIP() << error.what();
    }
  }
};

TEST_F(ForeignFileSystem, OfANetworkIsRefused) {
  EXPECT_EQ(RuleOn("sshfs"), "remote_file_system");
}

TEST_F(ForeignFileSystem, OfADiskImageIsRefused) {
  EXPECT_EQ(RuleOn("squashfuse"), "image_file_system");
}

TEST_F(ForeignFileSystem, OfALocalDiskIsOnlyAMountPoint) {
  EXPECT_EQ(RuleOn("ntfs-3g"), "mount_point");
}

TEST_F(PathCommand, ASharePathIsCheckedWhereItLies) {
  EXPECT_TRUE(Succeeds(Fileindexctl({"path", "check", "--share-path", "/photo/2019"}),
                       OnFirst("photo/2019") + ": may be indexed\n"));
  EXPECT_TRUE(FailsWith(Fileindexctl({"path", "check", "--share-path", "/nope/a"}),
                        "fileindexctl: error 800: nope (no such share)"));
  EXPECT_TRUE(
      FailsWith(Fileindexctl({"path", "check", "--share-path", "/"}), "fileindexctl: error 800: no such share"));
  EXPECT_TRUE(FailsWith(Fileindexctl({"path", "check", "--share-path", "photo"}),
                        "fileindexctl: error 120: not a share path: it does not begin with \"/\""));
}

TEST_F(PathCommand, AnOddNameStaysOnOneLine) {
  const std::string path = Made(OnFirst("photo/a\n\xff"));

  EXPECT_TRUE(Succeeds(Fileindexctl({"path", "check", path}), OnFirst("photo/a\\n\xff") + ": may be indexed\n"));
}

TEST_F(PathCommand, TypeGoesByTheNameAlone) {
  EXPECT_TRUE(
      Succeeds(Fileindexctl({"path", "type", "a.txt", "README", "/x/B.JPG", "a.mp3", "a.ts", ".bashrc", "a b\n.doc"}),
               "a.txt\tdocument\nREADME\tdocument\n/x/B.JPG\tphoto\na.mp3\taudio\na.ts\tvideo\n.bashrc\tother\n"
               "a b\\n.doc\tdocument\n"));
  EXPECT_TRUE(Succeeds(Fileindexctl({"path", "type", "--json", "a.ts", "a\n"}),
                       "{\"name\":\"a.ts\",\"type\":\"video\"}\n{\"name\":\"a\\n\",\"type\":\"document\"}\n"));
}

TEST_F(PathCommand, WrongUsageIsStatusTwo) {
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"path"}), "A subcommand is required"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"path", "check"}), "PATH is required"));
  EXPECT_TRUE(IsWrongUsage(Fileindexctl({"path", "type"}), "NAME is required"));
}

}  // namespace
}  // namespace orbisk::test
