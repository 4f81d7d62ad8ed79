/* Lists of strings that the platform fills. */
#pragma once

#include "nimo/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A list of strings. Operations that fill one may replace the list by a larger one, which is why they take its address.
 * Callers read nItem and leave the rest to the operations. */
struct SZLIST {
  int nCapacity;    /* items there is room for */
  int nItem;        /* items that are there */
  char** ppszItems; /* the items; the list owns them */
};

/* An empty list with room for `capacity` items; it grows when filled beyond that. Null when memory is out or `capacity`
 * is less than 0. The caller releases it with NLIBCSzListFree. Threads: any. */
NIMO_EXPORT struct SZLIST* NLIBCSzListAlloc(int capacity);

/* The item at `index`, counted from 0; null for an index outside of the list. Valid until the list is changed or
 * released. Threads: any, for a list that nobody changes. */
NIMO_EXPORT const char* NLIBCSzListGet(const struct SZLIST* list, int index);

/* Releases a list with its items; null is ignored. Threads: any. */
NIMO_EXPORT void NLIBCSzListFree(struct SZLIST* list);

#ifdef __cplusplus
}
#endif
