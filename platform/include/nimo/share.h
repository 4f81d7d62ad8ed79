/* The box's shared folders (shares): looking them up, their settings, their recycle bins. */
#pragma once

#include <stddef.h>

#include "nimo/export.h"
#include "nimo/string_list.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Room for a share's name and for a path, with the NUL byte at the end. */
#define NIMO_SHARE_NAME_BYTES 492
#define NIMO_SHARE_PATH_BYTES 4096

/* One share. */
struct NIMOSHARE {
  char szName[NIMO_SHARE_NAME_BYTES];
  char szPath[NIMO_SHARE_PATH_BYTES]; /* the full path of its folder, for example /volume1/photo */
  int nFTPPrivilege;                  /* what FTP clients may do with it, in the box's own numbers */
};

/* Which shares an enumeration passes over. */
struct NLIB_SHARE_FILTER {
  int (*pfnSkip)(const struct NIMOSHARE* share, void* data); /* 0: the share is listed; null: all are */
  void* pData;                                               /* handed to pfnSkip */
};

/* Looks up the share called `name` and stores its record in `*share`.
 *
 * 0 on success; the caller releases the record with NIMOShareFree. Less than 0 when there is no such share (last error
 * ENOENT) or the shares cannot be read; `*share` is then null.
 *
 * Threads: callers let in one thread at a time. */
NIMO_EXPORT int NIMOShareGet(const char* name, struct NIMOSHARE** share);

/* Releases a record; null is ignored. Threads: as NIMOShareGet. */
NIMO_EXPORT void NIMOShareFree(struct NIMOSHARE* share);

/* Appends the names of all shares that `filter` (null: none) does not skip to `*list`, which the caller allocated and
 * releases; it may be replaced by a larger one. 0 or more on success, less than 0 on failure; the list can be released
 * all the same. Threads: any. */
NIMO_EXPORT int NLIBShareEnum(struct SZLIST** list, struct NLIB_SHARE_FILTER* filter);

/* The settings of a share, each stored in `*value` as 1 or 0. 0 or more on success. Less than 0 when the setting cannot
 * be known, for example because the share is gone; `*value` is then as it was. Threads: callers let in one thread at a
 * time, but for NLIBShareHideUnreadableGet, which any thread may call. */

/* Whether the share's content is locked away by encryption now, so that nothing in it can be read. */
NIMO_EXPORT int NLIBShareIsEncryptedGet(struct NIMOSHARE* share, int* value);
/* Whether nobody may write to the share. */
NIMO_EXPORT int NLIBShareIsReadOnlyGet(struct NIMOSHARE* share, int* value);
/* Whether the share is of the encrypted kind, locked or not. Unlocked, it is mounted at its own path. */
NIMO_EXPORT int NLIBShareIsEncryptionGet(struct NIMOSHARE* share, int* value);
/* Whether removed files go to the share's recycle bin. */
NIMO_EXPORT int NLIBShareRecycleStatusGet(struct NIMOSHARE* share, int* value);
/* Whether people do not see what they may not read. */
NIMO_EXPORT int NLIBShareHideUnreadableGet(struct NIMOSHARE* share, int* value);

/* What NIMOShareUserPrivCalc answers. */
#define NIMO_SHARE_PRIVILEGE_NONE 0
#define NIMO_SHARE_PRIVILEGE_READ 1
#define NIMO_SHARE_PRIVILEGE_WRITE 2

/* What the account `user` may do with the share: a NIMO_SHARE_PRIVILEGE_..., or less than 0 when it cannot be known,
 * for example because there is no such account. Threads: any. */
NIMO_EXPORT int NIMOShareUserPrivCalc(const char* user, struct NIMOSHARE* share);

/* Finds the share that holds `full_path`: the one with the longest path that is `full_path` or, component by component,
 * a folder above it. The path need not exist. Stores the share's name and the full path of its folder, each with a NUL
 * byte, in buffers of `name_bytes` and `path_bytes` bytes.
 *
 * 0 on success. Less than 0, with both buffers as they were, when no share holds the path (last error ENOENT), a buffer
 * is too small (ENAMETOOLONG) or the shares cannot be read. Threads: any. */
NIMO_EXPORT int NIMOShareNamePathGet(const char* full_path, char* name, size_t name_bytes, char* path,
                                     size_t path_bytes);

/* 1 when `full_path` is a share's recycle bin or lies in it, and the share has its recycle bin switched on; 0 when not;
 * less than 0 when it cannot be known. Threads: any. */
NIMO_EXPORT int NIMOShareIsShareRecycle(const char* full_path);

/* 1 when `full_path` is the recycle bin of an account's home in the share "homes", or lies in it, and the bin exists; 0
 * when not; less than 0 when it cannot be known. `kind` selects which homes are asked about; 11 stands for all, and the
 * library passes nothing else. Threads: any. */
NIMO_EXPORT int NIMORecycleUserHomePathIsExist(const char* full_path, int kind);

#ifdef __cplusplus
}
#endif
