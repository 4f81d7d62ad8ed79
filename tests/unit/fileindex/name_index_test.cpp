// The table that finds one of many children by name.
#include "fileindex/name_index.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orbisk::fileindex::test {
namespace {

class NameIndexTest : public testing::Test {
 protected:
  void Append(const std::string& name) {
    names_.push_back(name);
    index_.Append(name);
  }

  std::uint32_t Find(const std::string& name) const {
    return index_.Find(name, [this](std::uint32_t position) { return std::string_view(names_[position]); });
  }

  std::vector<std::string> names_;
  NameIndex index_;
};

TEST_F(NameIndexTest, AnEmptyIndexFindsNothing) {
  EXPECT_EQ(0U, index_.size());
  EXPECT_EQ(NameIndex::kNone, Find("a"));
  EXPECT_EQ(NameIndex::kNone, Find(""));
}

TEST_F(NameIndexTest, PositionsAreTheOrderOfAppending) {
  Append("b");
  Append("");
  Append(std::string("b\0", 2));
  EXPECT_EQ(3U, index_.size());
  EXPECT_EQ(0U, Find("b"));
  EXPECT_EQ(1U, Find(""));
  EXPECT_EQ(2U, Find(std::string("b\0", 2)));
  EXPECT_EQ(NameIndex::kNone, Find("B"));
}

TEST_F(NameIndexTest, EveryNameIsFoundAtEverySizeWhileItGrows) {
  for (size_t size = 1; size <= 300; ++size) {
    Append("n" + std::to_string(size));
    for (size_t i = 0; i < size; ++i) {
      ASSERT_EQ(i, Find(names_[i]));
    }
    ASSERT_EQ(NameIndex::kNone, Find("n" + std::to_string(size + 1)));
  }
}

TEST_F(NameIndexTest, ManyNamesAreToldApart) {
  constexpr size_t kMany = 300'000;
  for (size_t i = 0; i < kMany; ++i) {
    Append("name" + std::to_string(i));
  }
  for (size_t i = 0; i < kMany; ++i) {
    ASSERT_EQ(i, Find(names_[i]));
    ASSERT_EQ(NameIndex::kNone, Find("other" + std::to_string(i)));
  }
}

TEST_F(NameIndexTest, ClearForgetsAllAndTheIndexIsUsableAgain) {
  Append("a");
  Append("b");
  index_.Clear();
  names_.clear();
  EXPECT_EQ(0U, index_.size());
  EXPECT_EQ(NameIndex::kNone, Find("a"));
  Append("b");
  EXPECT_EQ(0U, Find("b"));
}

}  // namespace
}  // namespace orbisk::fileindex::test
