// The fake platform's lists of strings.
#pragma once

#include <mutex>
#include <set>
#include <string>

#include "nimo/string_list.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

/// Lists that know whether they were released.
class FakeStringListService final : public FakeService {
 public:
  FakeStringListService();

  FakeFunction<SZLIST*(int)> alloc;
  FakeFunction<const char*(const SZLIST*, int)> get;
  FakeFunction<void(SZLIST*)> free;

  /// Appends to `*list`, which is replaced by a larger one when it is full.
  void Push(SZLIST** list, const std::string& item);
  /// Lists handed out and not yet released.
  int outstanding() const;
  void Reset() override;

 private:
  SZLIST* Alloc(int capacity);
  void Free(SZLIST* list);

  mutable std::mutex mutex_;  // guards the rest
  int outstanding_ = 0;
};

FakeStringListService& FakeStringLists();

}  // namespace orbisk::test
