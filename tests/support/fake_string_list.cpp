// The fake platform's lists of strings.
#include "tests/support/fake_string_list.h"

#include <cstdlib>
#include <cstring>

namespace orbisk::test {

FakeStringListService::FakeStringListService()
    : alloc("NLIBCSzListAlloc", [this](int capacity) { return Alloc(capacity); }),
      get("NLIBCSzListGet",
          [](const SZLIST* list, int index) -> const char* {
            return list != nullptr && index >= 0 && index < list->nItem ? list->ppszItems[index] : nullptr;
          }),
      free("NLIBCSzListFree", [this](SZLIST* list) { Free(list); }) {}

SZLIST* FakeStringListService::Alloc(int capacity) {
  if (capacity < 0) {
    FailPlatform(EINVAL);
    return nullptr;
  }
  const std::lock_guard lock(mutex_);
  ++outstanding_;
  return new SZLIST{capacity, 0, static_cast<char**>(calloc(static_cast<size_t>(capacity) + 1, sizeof(char*)))};
}

void FakeStringListService::Free(SZLIST* list) {
  if (list == nullptr) {
    return;
  }
  const std::lock_guard lock(mutex_);
  --outstanding_;
  for (int i = 0; i < list->nItem; ++i) {
    std::free(list->ppszItems[i]);
  }
  std::free(list->ppszItems);
  delete list;
}

void FakeStringListService::Push(SZLIST** list, const std::string& item) {
  if ((*list)->nItem == (*list)->nCapacity) {
    // Another object, so that who keeps the old pointer is found out.
    auto* const larger = new SZLIST{(*list)->nCapacity * 2 + 1, (*list)->nItem, nullptr};
    larger->ppszItems = static_cast<char**>(calloc(static_cast<size_t>(larger->nCapacity) + 1, sizeof(char*)));
    for (int i = 0; i < larger->nItem; ++i) {
      larger->ppszItems[i] = (*list)->ppszItems[i];
    }
    std::free((*list)->ppszItems);
    delete *list;
    *list = larger;
  }
  (*list)->ppszItems[(*list)->nItem++] = strdup(item.c_str());
}

int FakeStringListService::outstanding() const {
  const std::lock_guard lock(mutex_);
  return outstanding_;
}

void FakeStringListService::Reset() {
  const std::lock_guard lock(mutex_);
  outstanding_ = 0;
}

FakeStringListService& FakeStringLists() {
  static auto* const lists = new FakeStringListService;
  return *lists;
}

}  // namespace orbisk::test

SZLIST* NLIBCSzListAlloc(int capacity) {
  return orbisk::test::FakeStringLists().alloc(capacity);
}

const char* NLIBCSzListGet(const SZLIST* list, int index) {
  return orbisk::test::FakeStringLists().get(list, index);
}

void NLIBCSzListFree(SZLIST* list) {
  orbisk::test::FakeStringLists().free(list);
}
