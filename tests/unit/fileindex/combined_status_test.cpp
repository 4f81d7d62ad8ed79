// The status of two folders together, for every pair and order.
#include "fileindex/combined_status.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace orbisk::fileindex::test {
namespace {

constexpr size_t kTexts = 6;

// A text that no folder has stands for those to come.
constexpr std::array<const char*, kTexts> kText = {"finished", "error", "need_reindex", "paused", "processing", "odd"};

// By the first, then by the second, in the order above.
constexpr std::array<std::array<const char*, kTexts>, kTexts> kTogether = {{
    {"finished", "error", "need_reindex", "paused", "processing", "processing"},
    {"error", "error", "error", "error", "error", "error"},
    {"need_reindex", "error", "need_reindex", "need_reindex", "processing", "processing"},
    {"paused", "error", "need_reindex", "paused", "processing", "processing"},
    {"processing", "error", "need_reindex", "paused", "processing", "processing"},
    {"processing", "error", "need_reindex", "paused", "processing", "processing"},
}};

TEST(CombinedStatus, OfNothingIsFinished) {
  EXPECT_EQ("finished", CombinedStatus().text());
}

TEST(CombinedStatus, OfTwoDependsOnTheirOrder) {
  for (size_t first = 0; first < kTexts; ++first) {
    for (size_t second = 0; second < kTexts; ++second) {
      CombinedStatus combined;
      combined.Add(kText[first]);
      combined.Add(kText[second]);
      EXPECT_EQ(kTogether[first][second], combined.text()) << kText[first] << ", then " << kText[second];
    }
  }
}

}  // namespace
}  // namespace orbisk::fileindex::test
