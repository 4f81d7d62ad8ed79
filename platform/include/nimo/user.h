/* The box's accounts. */
#pragma once

#include <sys/types.h>

#include "nimo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One account. */
struct NIMOUSER {
  char* szName; /* the account's name as the box spells it; never null */
  uid_t nUid;
  gid_t nGid; /* its primary group */
};

/* Looks up the account called `name` and stores its record in `*user`.
 *
 * 0 on success; the caller releases the record with NIMOUserFree. Less than 0 when there is no such account or it
 * cannot be looked up (the last error says which: ENOENT for none); `*user` is then null.
 *
 * Threads: callers let in one thread at a time. */
NIMO_EXPORT int NIMOUserGet(const char* name, struct NIMOUSER** user);

/* Releases a record; null is ignored. Threads: as NIMOUserGet. */
NIMO_EXPORT void NIMOUserFree(struct NIMOUSER* user);

#ifdef __cplusplus
}
#endif
