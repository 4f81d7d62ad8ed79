/* The homes of accounts, which lie in the share "homes", and their recycle bins. */
#pragma once

#include "nimo/export.h"
#include "nimo/string_list.h"

/* Where the box knows an account from. */
#ifdef __cplusplus
enum AUTH_TYPE : int { /* of a fixed type, so that the library's headers can name it without this one */
#else
enum AUTH_TYPE {
#endif
                       AUTH_LOCAL = 1,    /* the box itself */
                       AUTH_DIRECTORY = 2 /* a directory service that the box has joined */
};

#ifdef __cplusplus
extern "C" {
#endif

/* Both append the full paths of homes' recycle bins that are there to `*list`, which the caller allocated and releases;
 * it may be replaced by a larger one. 0 on success, thus also when there is none. Another number on failure; the list
 * can be released all the same. Threads: any. */

/* All homes. */
NIMO_EXPORT int NIMORecycleHomeEnumRecyclePath(struct SZLIST** list);
/* The homes of accounts that the box knows from `auth`. */
NIMO_EXPORT int NIMORecycleHomeEnumRecyclePathForAuthType(struct SZLIST** list, enum AUTH_TYPE auth);

#ifdef __cplusplus
}
#endif
