/* What the box knows of files: permissions, mount points, kinds of file system, hidden folders, copy and move. */
#pragma once

#include "nimo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Permission bits of NIMOACLPermGet. */
#define NIMO_ACL_READ 0x01    /* read a file, list a directory */
#define NIMO_ACL_WRITE 0x02   /* write a file, create and remove in a directory */
#define NIMO_ACL_EXECUTE 0x04 /* execute a file, pass through a directory */

/* Stores in `*permissions` what the effective user of the process may do with `path` (a symbolic link is followed):
 * mode bits, access control lists, read-only mounts and capabilities taken together.
 *
 * 0 on success, also when the answer is that nothing is allowed. Less than 0 when it cannot be known, for example
 * because the path is missing; `*permissions` is then 0.
 *
 * Threads: any. */
NIMO_EXPORT int NIMOACLPermGet(const char* path, int* permissions);

/* 1 when a file system is mounted at the directory `path`, a bind mount included; 0 when not, and for anything that is
 * no directory (a symbolic link is not followed); less than 0 when it cannot be known. Threads: any. */
NIMO_EXPORT int NIMOFSDirIsMntPoint(const char* path);

/* The kind of file system that `path` lies on: a small number that the two predicates below understand, less than 0
 * when it cannot be known, for example because the path is missing. `reserved` is 0. NIMO_FS_TYPE_PSEUDO stands for
 * file systems that the kernel makes up (proc, sysfs, debugfs and the like). Threads: any. */
#define NIMO_FS_TYPE_PSEUDO 12
NIMO_EXPORT int NIMOGetFSType(const char* path, int reserved);

/* Not 0 when the kind is a network file system (NFS, SMB, Ceph, 9P, sshfs and the like). Threads: any. */
NIMO_EXPORT int NIMOFSIsRemoteFS(int type);

/* Not 0 when the kind is that of a mounted disk image (ISO 9660, UDF, squashfs). Threads: any. */
NIMO_EXPORT int NIMOFSIsImageFS(int type);

/* Stores in `*flag` 1 when `path` lies in a snapshot (is a snapshot folder or below one), else 0. 0 on success. Another
 * result when it cannot be known; `*flag` is then as it was. Threads: any. */
NIMO_EXPORT int NLIBFhsPathInSnapshot(const char* path, int* flag);

/* 1 when `name`, one component of a path, is one of the box's own metadata folders, else 0, also for "". Threads: any.
 */
NIMO_EXPORT int NIMOEAIsHiddenDir(const char* name);

/* How NIMOFileCopy copies. All zero: a copy with the caller's own attributes. */
struct NIMO_COPY_OPTIONS {
  int nKeepAttributes; /* 1: keep owner, group, mode, times, extended attributes and access control lists */
  int nRemoveSource;   /* 1: a move; the source is gone when the call succeeds */
  int nReserved[6];    /* 0 */
};

/* Called now and then while content is copied, with the path named in the call and the bytes copied so far. Another
 * result than 0 cancels. */
typedef int (*NIMO_COPY_PROGRESS)(const char* path, unsigned long long bytes);

/* Copies or moves `from` to the path `to` itself (not into it). `from` is anything: a file, a symbolic link, which is
 * copied and not followed, or a directory with all that is in it. `progress` may be null.
 *
 * `to` is replaced as rename(2) replaces: a file by a file, an empty directory by a directory. It appears whole, or
 * not at all. When both are the same file already, nothing is done.
 *
 * 0 on success. Less than 0 on failure: `to` is then as it was, and nothing of `from` is lost. One failure is
 * different: when a move has made its whole copy and the source cannot be removed, the copy stays, and so does what is
 * left of the source.
 *
 * Threads: any. */
NIMO_EXPORT int NIMOFileCopy(const char* from, const char* to, const struct NIMO_COPY_OPTIONS* options,
                             NIMO_COPY_PROGRESS progress);

#ifdef __cplusplus
}
#endif
