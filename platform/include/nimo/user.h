/* The box's accounts, and acting as one of them. */
#pragma once

#include <sys/types.h>

#ifdef __cplusplus
#include <string>
#endif

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

/* As NIMOUserGet, for the account with the number `uid`. */
NIMO_EXPORT int NIMOUserGetByUID(uid_t uid, struct NIMOUSER** user);

/* Releases a record; null is ignored. Threads: as NIMOUserGet. */
NIMO_EXPORT void NIMOUserFree(struct NIMOUSER* user);

/* 1 when the account called `user` administers the box, 0 when not, less than 0 when it cannot be known. `reserved` is
 * 0. Threads: as NIMOUserGet. */
NIMO_EXPORT int NLIBGroupIsAdminGroupMem(const char* user, int reserved);

#ifdef __cplusplus
}

/* Makes the process act as the account called `name`: its effective user and, with `with_group`, its effective group
 * and its supplementary groups. Works from any effective user of a process whose real or saved user is root.
 *
 * False when there is no such account or the system refuses; the effective ids and groups are then as they were.
 *
 * Threads: the ids belong to the whole process; callers let in one thread at a time. */
NIMO_EXPORT bool ResetCredentialsByName(const std::string& name, bool with_group = true);
#endif
