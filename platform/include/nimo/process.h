/* Starting programs. */
#pragma once

#include "nimo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Runs `program` (an absolute path; no shell) and waits for its end. The arguments after `flags` are strings; a null
 * pointer ends them. The program's own name is put before them.
 *
 * `flags` says how the program is started, in the box's own bits. The library passes 187, which on every box stands
 * for: wait for the end, with the standard streams closed off and no descriptor of the caller's left open.
 *
 * The program's exit status (0 to 255), 128 and the signal's number if a signal ended it, or less than 0 when it could
 * not be started. Threads: any. */
NIMO_EXPORT int NLIBCExecl(const char* program, unsigned flags, ...) __attribute__((sentinel));

/* As NLIBCExecl with the flags 187. */
NIMO_EXPORT int NLIBCExec(const char* program, ...) __attribute__((sentinel));

#ifdef __cplusplus
}
#endif
