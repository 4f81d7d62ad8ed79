/* The box's services: starting, stopping and restarting them. */
#pragma once

#include "nimo/export.h"

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A service goes by its name, such as "nimocontentextractd". All wait until the change is made. 0 or more on success,
 * also when the service was running, or stopped, already. Less than 0 when there is no such service, it cannot be
 * changed, or the caller may not. Threads: any. */

/* Starts a service of the box. `flag` is in the box's own terms; the library passes TRUE. */
NIMO_EXPORT int NLIBServiceStart(const char* name, int flag);
/* Stops a service of the box. `flag` is in the box's own terms; the library passes FALSE. */
NIMO_EXPORT int NLIBServiceStop(const char* name, int flag);
/* Stops a service of the box, if it runs, and starts it. */
NIMO_EXPORT int NLIBServiceRestart(const char* name);

/* How the service controller knows a package's service. The library passes nothing else. */
#define NLIB_SERVICECTL_UPSTART 1

/* The same for the services of packages, such as "pkg-Orbisk-fileindexd". */
NIMO_EXPORT int NLIBServicectlStart(const char* name, int kind);
NIMO_EXPORT int NLIBServicectlStop(const char* name, int kind);

#ifdef __cplusplus
}
#endif
