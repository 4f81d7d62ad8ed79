/* Comparing text as people see it. */
#pragma once

#include "nimo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Compares two UTF-8 strings without regard to case (Unicode case folding, in every script): less than 0, 0 or more
 * than 0 as `a` stands before, with or behind `b`. Bytes that are not UTF-8 are taken as some character and never fail,
 * and the order is a total one all the same. Null is taken as the empty string. Threads: any. */
NIMO_EXPORT int NLIBCUnicodeUTF8StrCaseCmp(const char* a, const char* b);

#ifdef __cplusplus
}
#endif
