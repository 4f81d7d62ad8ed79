// Kinds of file systems that no test machine mounts: statfs(2) is replaced and names them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>

#include "nimo/filesystem.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace {

long next_type = 0;

}  // namespace

extern "C" [[gnu::visibility("default")]] int statfs(const char*, struct statfs* status) noexcept {
  *status = {};
  status->f_type = static_cast<decltype(status->f_type)>(next_type);
  return 0;
}

namespace orbisk::test {
namespace {

enum class Kind { kLocal, kRemote, kImage, kPseudo };

Kind KindOf(const char* path) {
  const int type = NIMOGetFSType(path, 0);
  EXPECT_LE(0, type);
  const bool remote = NIMOFSIsRemoteFS(type) != 0;
  const bool image = NIMOFSIsImageFS(type) != 0;
  EXPECT_FALSE(remote && image);
  EXPECT_FALSE(type == NIMO_FS_TYPE_PSEUDO && (remote || image));
  return remote ? Kind::kRemote : image ? Kind::kImage : type == NIMO_FS_TYPE_PSEUDO ? Kind::kPseudo : Kind::kLocal;
}

TEST(FileSystemKind, FollowsTheMagicNumber) {
  const struct {
    long magic;
    Kind kind;
  } kTable[] = {
      {0xef53, Kind::kLocal},                          // ext4
      {0x9123683e, Kind::kLocal},                      // btrfs
      {0x58465342, Kind::kLocal},                      // xfs
      {0x01021994, Kind::kLocal},                      // tmpfs
      {0x2fc12fc1, Kind::kLocal},                      // zfs
      {0x4d44, Kind::kLocal},                          // FAT
      {0x12345, Kind::kLocal},                         // nothing known
      {0x6969, Kind::kRemote},                         // NFS
      {0x517b, Kind::kRemote},                         // SMB
      {0xff534d42, Kind::kRemote},                     // CIFS
      {static_cast<int>(0xff534d42U), Kind::kRemote},  // the same, sign-extended
      {0xfe534d42, Kind::kRemote},                     // SMB2
      {0x00c36400, Kind::kRemote},                     // Ceph
      {0x01021997, Kind::kRemote},                     // 9P
      {0x5346414f, Kind::kRemote},                     // AFS
      {0x6b414653, Kind::kRemote},                     // AFS of the kernel
      {0x0bd00bd0, Kind::kRemote},                     // Lustre
      {0x19830326, Kind::kRemote},                     // BeeGFS
      {0x47504653, Kind::kRemote},                     // GPFS
      {0x20030528, Kind::kRemote},                     // OrangeFS
      {0x01161970, Kind::kRemote},                     // GFS2
      {0x7461636f, Kind::kRemote},                     // OCFS2
      {0x786f4256, Kind::kRemote},                     // vboxsf
      {0xbacbacbc, Kind::kRemote},                     // vmhgfs
      {0x9660, Kind::kImage},
      {0x15013346, Kind::kImage},   // UDF
      {0x73717368, Kind::kImage},   // squashfs
      {0x28cd3d45, Kind::kImage},   // cramfs
      {0xe0f5e1e2, Kind::kImage},   // EROFS
      {0x7275, Kind::kImage},       // romfs
      {0x9fa0, Kind::kPseudo},      // proc
      {0x62656572, Kind::kPseudo},  // sysfs
      {0x64626720, Kind::kPseudo},  // debugfs
      {0x63677270, Kind::kPseudo},  // cgroup2
      {0x65735546, Kind::kLocal},   // FUSE, behind which is nothing remote here
  };
  for (const auto& row : kTable) {
    next_type = row.magic;
    EXPECT_EQ(row.kind, KindOf("/")) << std::hex << row.magic;
  }
}

TEST(FileSystemKind, BehindFuseFollowsTheMountTable) {
  const struct {
    const char* type;
    Kind kind;
  } kTable[] = {{"fuse.sshfs", Kind::kRemote},  {"fuse.rclone", Kind::kRemote}, {"fuse.glusterfs", Kind::kRemote},
                {"fuse.fuseiso", Kind::kImage}, {"fuse.exfat", Kind::kLocal},   {"fuse", Kind::kLocal}};
  try {
    EnterPrivateMounts({});
  } catch (const NotAllowed& error) {
    GTEST_SKIP() << error.what();
  }
  next_type = FUSE_SUPER_MAGIC;
  for (const auto& row : kTable) {
    const TempDir dir;
    // Nobody answers what is asked of this file system, so whatever asks it anything would wait for ever.
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const std::string options = "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0";
    if (device < 0 || mount("somewhere", dir.path().c_str(), row.type, 0, options.c_str()) != 0) {
      GTEST_SKIP() << "no FUSE here: " << strerror(errno);
    }
    EXPECT_EQ(row.kind, KindOf(dir.path().c_str())) << row.type;
    umount2(dir.path().c_str(), MNT_DETACH);
    close(device);
  }
}

}  // namespace
}  // namespace orbisk::test
