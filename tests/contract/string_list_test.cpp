// What nimo/string_list.h promises. That lists grow when filled is promised where they are filled.
#include "nimo/string_list.h"

#include <gtest/gtest.h>

namespace orbisk::test {
namespace {

TEST(StringList, IsEmptyAtFirst) {
  for (const int capacity : {0, 1, 1024}) {
    SZLIST* const list = NLIBCSzListAlloc(capacity);
    ASSERT_NE(nullptr, list) << capacity;
    EXPECT_EQ(0, list->nItem);
    EXPECT_LE(capacity, list->nCapacity);
    NLIBCSzListFree(list);
  }
}

TEST(StringList, HasNothingOutsideOfIt) {
  SZLIST* const list = NLIBCSzListAlloc(4);
  ASSERT_NE(nullptr, list);
  for (const int index : {-1, 0, 3, 4}) {
    EXPECT_EQ(nullptr, NLIBCSzListGet(list, index)) << index;
  }
  NLIBCSzListFree(list);
}

TEST(StringList, OfLessThanNothingIsRefused) {
  EXPECT_EQ(nullptr, NLIBCSzListAlloc(-1));
}

TEST(StringListFree, IgnoresNull) {
  NLIBCSzListFree(nullptr);
}

}  // namespace
}  // namespace orbisk::test
