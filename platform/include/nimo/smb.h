/* The SMB file server's answer to Spotlight searches. */
#pragma once

#include "nimo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Not 0 when the SMB server is set up to answer Spotlight searches; 0 when it is not, there is no such server, or it
 * cannot be known. Threads: any. */
NIMO_EXPORT int NIMOSMBIsEnableSpotlight(void);

/* Sets the SMB server up to answer Spotlight searches (`on` 1) or not to (0). The server follows when it is restarted,
 * which is left to the caller. 0 or more on success. Less than 0 when there is no such server or its setting cannot be
 * changed; it is then as it was. Threads: any. */
NIMO_EXPORT int NIMOSMBSetSpotlight(int on);

#ifdef __cplusplus
}
#endif
