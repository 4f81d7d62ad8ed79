/* The last error of the platform's calls. */
#pragma once

#include "nimo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The three describe the same failure: the last one of a platform call in the calling thread. A call that succeeds
 * leaves them alone, so they mean something only right after a failure. Safe from any thread; each has its own. */

/* The number of the last failure, 0 if there was none. On stock Linux it is the errno value of what failed. */
NIMO_EXPORT int NLIBCErrGet(void);

/* The base name of the platform's source file that reported it, "" if there was none. Never null; valid until the
 * thread's next platform call. */
NIMO_EXPORT const char* NLIBCErrorGetFile(void);

/* The line in that file, 0 if there was none. */
NIMO_EXPORT int NLIBCErrorGetLine(void);

#ifdef __cplusplus
}
#endif
