/* Room on a volume. */
#pragma once

#include "nimo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Last errors of NIMOQuotaIsEnough that mean that room is really short; any other means that it could not be asked. */
#define NIMO_ERR_VOLUME_FULL 0x2900    /* the file system has less room than asked for */
#define NIMO_ERR_QUOTA_EXCEEDED 0x2400 /* the quota of the effective user leaves less room than asked for */

/* Whether `bytes` more bytes can be written below `path`. `reserved` is 0.
 *
 * Not 0 when there is room. 0 when there is not (last error one of the two above) or it could not be asked (any other
 * last error). Threads: callers let in one thread at a time. */
NIMO_EXPORT int NIMOQuotaIsEnough(int reserved, const char* path, unsigned long long bytes);

#ifdef __cplusplus
}
#endif
