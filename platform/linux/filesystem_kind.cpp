// Kinds of file systems, by the magic numbers of statfs(2) and, behind FUSE, by the name in the mount table.
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "nimo/filesystem.h"
#include "platform/linux/last_error.h"

namespace nimo {
namespace {

// A kind is a number in one of these ranges, or NIMO_FS_TYPE_PSEUDO.
constexpr int kLocal = 1;
constexpr int kLocalFuse = 2;
constexpr int kFirstRemote = 20;
constexpr int kNfs = 20;
constexpr int kSmb = 21;
constexpr int kCeph = 22;
constexpr int kPlan9 = 23;
constexpr int kAfs = 24;
constexpr int kCoda = 25;
constexpr int kRemoteFuse = 26;
constexpr int kCluster = 27;  // other machines change it too, on common disks or on servers
constexpr int kHost = 28;     // a folder of the machine that this virtual one runs on
constexpr int kLastRemote = 29;
constexpr int kFirstImage = 30;
constexpr int kIso9660 = 30;
constexpr int kUdf = 31;
constexpr int kSquashfs = 32;
constexpr int kImageFuse = 33;
constexpr int kOtherImage = 34;
constexpr int kLastImage = 39;

// Not in the kernel's exported headers.
constexpr uint32_t kBeeGfsMagic = 0x19830326;
constexpr uint32_t kConfigfsMagic = 0x62656570;
constexpr uint32_t kFusectlMagic = 0x65735543;
constexpr uint32_t kGfs2Magic = 0x01161970;
constexpr uint32_t kGpfsMagic = 0x47504653;
constexpr uint32_t kLustreMagic = 0x0bd00bd0;
constexpr uint32_t kMqueueMagic = 0x19800202;
constexpr uint32_t kNfsdMagic = 0x6e667364;
constexpr uint32_t kOrangeFsMagic = 0x20030528;
constexpr uint32_t kRomfsMagic = 0x7275;
constexpr uint32_t kRpcPipefsMagic = 0x67596969;
constexpr uint32_t kVboxsfMagic = 0x786f4256;
constexpr uint32_t kVmhgfsMagic = 0xbacbacbc;

struct MagicKind {
  uint32_t magic;
  int kind;
};
constexpr MagicKind kKinds[] = {
    {NFS_SUPER_MAGIC, kNfs},
    {SMB_SUPER_MAGIC, kSmb},
    {CIFS_SUPER_MAGIC, kSmb},
    {SMB2_SUPER_MAGIC, kSmb},
    {CEPH_SUPER_MAGIC, kCeph},
    {V9FS_MAGIC, kPlan9},
    {AFS_SUPER_MAGIC, kAfs},
    {AFS_FS_MAGIC, kAfs},
    {CODA_SUPER_MAGIC, kCoda},
    {kBeeGfsMagic, kCluster},
    {kGfs2Magic, kCluster},
    {kGpfsMagic, kCluster},
    {kLustreMagic, kCluster},
    {kOrangeFsMagic, kCluster},
    {OCFS2_SUPER_MAGIC, kCluster},
    {kVboxsfMagic, kHost},
    {kVmhgfsMagic, kHost},
    {ISOFS_SUPER_MAGIC, kIso9660},
    {UDF_SUPER_MAGIC, kUdf},
    {SQUASHFS_MAGIC, kSquashfs},
    {CRAMFS_MAGIC, kOtherImage},
    {EROFS_SUPER_MAGIC_V1, kOtherImage},
    {kRomfsMagic, kOtherImage},
    {PROC_SUPER_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {SYSFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {DEBUGFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {TRACEFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {SECURITYFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {SELINUX_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {SMACK_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {CGROUP_SUPER_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {CGROUP2_SUPER_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {RDTGROUP_SUPER_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {DEVPTS_SUPER_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {BPF_FS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {PSTOREFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {EFIVARFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {HUGETLBFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {BINFMTFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {BINDERFS_SUPER_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {NSFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {SOCKFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {PIPEFS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {ANON_INODE_FS_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {AUTOFS_SUPER_MAGIC, NIMO_FS_TYPE_PSEUDO},
    {kConfigfsMagic, NIMO_FS_TYPE_PSEUDO},
    {kFusectlMagic, NIMO_FS_TYPE_PSEUDO},
    {kMqueueMagic, NIMO_FS_TYPE_PSEUDO},
    {kNfsdMagic, NIMO_FS_TYPE_PSEUDO},
    {kRpcPipefsMagic, NIMO_FS_TYPE_PSEUDO},
};

// What calls itself "fuse.<name>" in the mount table. Others are taken for local ones (NTFS, exFAT, encryption ...).
constexpr std::string_view kRemoteFuseNames[] = {
    "afpfs",      "ceph",      "ceph-fuse", "curlftpfs",    "davfs2",
    "dropbox",    "gcsfuse",   "glusterfs", "goofys",       "google-drive-ocamlfuse",
    "gvfsd-fuse", "hubicfuse", "juicefs",   "kio-fuse",     "lizardfs",
    "mfs",        "moosefs",   "nfs",       "onedriver",    "rclone",
    "s3fs",       "s3ql",      "seaweedfs", "simple-mtpfs", "smbnetfs",
    "sshfs",
};
constexpr std::string_view kImageFuseNames[] = {"archivemount", "fuseiso", "fuse-zip", "mount-zip", "squashfuse"};

template <size_t kCount>
bool Contains(const std::string_view (&names)[kCount], std::string_view name) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

// The type of the mount with this id as the mount table has it, "fuse.sshfs" for example. A line reads
// "36 35 98:0 /root /mount/point rw,noatime shared:1 - fuse.sshfs source options", with any number of fields before the
// dash.
std::optional<std::string> MountType(uint64_t mount_id) {
  std::ifstream table("/proc/self/mountinfo");
  std::string line;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    uint64_t id = 0;
    const size_t dash = line.find(" - ");
    if (fields >> id && id == mount_id && dash != std::string::npos) {
      const size_t begin = dash + 3;
      return line.substr(begin, line.find(' ', begin) - begin);
    }
  }
  return std::nullopt;
}

int FuseKind(const char* path) {
  constexpr std::string_view kPrefix = "fuse.";
  struct statx status {};
  if (statx(AT_FDCWD, path, AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, STATX_MNT_ID, &status) != 0 ||
      (status.stx_mask & STATX_MNT_ID) == 0) {
    return kLocalFuse;
  }
  const std::string type = MountType(status.stx_mnt_id).value_or("");
  const std::string_view name = type.rfind(kPrefix, 0) == 0 ? std::string_view(type).substr(kPrefix.size()) : "";
  if (Contains(kRemoteFuseNames, name)) {
    return kRemoteFuse;
  }
  return Contains(kImageFuseNames, name) ? kImageFuse : kLocalFuse;
}

}  // namespace
}  // namespace nimo

int NIMOGetFSType(const char* path, int) {
  if (path == nullptr) {
    return NIMO_FAIL(EINVAL);
  }
  struct statfs status {};
  if (statfs(path, &status) != 0) {
    return NIMO_FAIL_ERRNO();
  }
  // Magic numbers have 32 bits; some with the highest one set come sign-extended.
  const auto magic = static_cast<uint32_t>(status.f_type);
  if (magic == FUSE_SUPER_MAGIC) {
    return nimo::FuseKind(path);
  }
  const auto* const found = std::find_if(std::begin(nimo::kKinds), std::end(nimo::kKinds),
                                         [magic](const nimo::MagicKind& kind) { return kind.magic == magic; });
  return found != std::end(nimo::kKinds) ? found->kind : nimo::kLocal;
}

int NIMOFSIsRemoteFS(int type) {
  return type >= nimo::kFirstRemote && type <= nimo::kLastRemote ? 1 : 0;
}

int NIMOFSIsImageFS(int type) {
  return type >= nimo::kFirstImage && type <= nimo::kLastImage ? 1 : 0;
}
