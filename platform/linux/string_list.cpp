// Lists of strings. With malloc, as the callers may be C.
#include "platform/linux/string_list.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "platform/linux/last_error.h"

namespace nimo {
namespace {

bool Grow(SZLIST* list) {
  if (list->nCapacity > INT_MAX / 2) {
    return false;
  }
  const int capacity = std::max(16, list->nCapacity * 2);
  void* const items = realloc(list->ppszItems, static_cast<size_t>(capacity) * sizeof(char*));
  if (items == nullptr) {
    return false;
  }
  list->ppszItems = static_cast<char**>(items);
  list->nCapacity = capacity;
  return true;
}

}  // namespace

bool AppendItem(SZLIST** list, const std::string& item) {
  if ((*list)->nItem == (*list)->nCapacity && !Grow(*list)) {
    return false;
  }
  char* const copy = strdup(item.c_str());
  if (copy == nullptr) {
    return false;
  }
  (*list)->ppszItems[(*list)->nItem++] = copy;
  return true;
}

}  // namespace nimo

SZLIST* NLIBCSzListAlloc(int capacity) {
  if (capacity < 0) {
    NIMO_FAIL(EINVAL);
    return nullptr;
  }
  auto* list = static_cast<SZLIST*>(malloc(sizeof(SZLIST)));
  // One at least: of no bytes malloc may give null.
  auto** items = static_cast<char**>(calloc(static_cast<size_t>(std::max(1, capacity)), sizeof(char*)));
  if (list == nullptr || items == nullptr) {
    free(list);
    free(items);
    NIMO_FAIL(ENOMEM);
    return nullptr;
  }
  *list = {capacity, 0, items};
  return list;
}

const char* NLIBCSzListGet(const SZLIST* list, int index) {
  return list != nullptr && index >= 0 && index < list->nItem ? list->ppszItems[index] : nullptr;
}

void NLIBCSzListFree(SZLIST* list) {
  if (list != nullptr) {
    std::for_each_n(list->ppszItems, list->nItem, free);
    free(list->ppszItems);
    free(list);
  }
}
