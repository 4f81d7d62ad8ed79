/* What the box knows of files: permissions, mount points, copy and move. */
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
