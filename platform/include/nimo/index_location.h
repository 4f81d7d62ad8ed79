/* Where the index of a share lives. */
#pragma once

#include <stddef.h>

#include "nimo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Each stores one string with a NUL byte in `buffer` (`bytes` bytes). 0 or more on success. Less than 0, with the
 * buffer as it was, when the share's path or name is malformed or the buffer is too small. Nothing is created. Threads:
 * any. */

/* The path of the event queue file of the share whose folder is `share_path`. */
NIMO_EXPORT int FILEIDXQueuePathCompose(const char* share_path, char* buffer, size_t bytes);
/* The folder of the index database of that share. */
NIMO_EXPORT int FILEIDXDBPathCompose(const char* share_path, char* buffer, size_t bytes);
/* The identifier of the index of the share called `share_name`: "fileindex_" and the name. */
NIMO_EXPORT int FILEIDXGetIndexID(const char* share_name, char* buffer, size_t bytes);

#ifdef __cplusplus
}
#endif
