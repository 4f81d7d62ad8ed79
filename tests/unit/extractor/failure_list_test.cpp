// What is remembered of contents that workers died of.
#include "services/extractor/failure_list.h"

#include <gtest/gtest.h>

namespace extractor {
namespace {

Attributes FileCalled(uint64_t inode) {
  Attributes attributes;
  attributes.inode = inode;
  attributes.size_bytes = 10;
  return attributes;
}

TEST(FailureList, FindsWhatWasAdded) {
  FailureList list(10);

  list.Add(FailureList::IdentityOf(FileCalled(1)), {Outcome::Kind::kDeadline, "slow"});

  const FailureList::Failure* found = list.Find(FailureList::IdentityOf(FileCalled(1)));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->kind, Outcome::Kind::kDeadline);
  EXPECT_EQ(found->message, "slow");
  EXPECT_EQ(list.Find(FailureList::IdentityOf(FileCalled(2))), nullptr);
}

TEST(FailureList, TakesAChangedFileForAnother) {
  FailureList list(10);
  const Attributes bad = FileCalled(1);
  list.Add(FailureList::IdentityOf(bad), {});
  std::vector<Attributes> changed(6, bad);
  changed[0].inode = 2;
  changed[1].size_bytes = 11;
  changed[2].modified = 1;
  changed[3].modified_ns = 1;
  changed[4].changed = 1;
  changed[5].changed_ns = 1;

  for (const Attributes& attributes : changed) {
    EXPECT_EQ(list.Find(FailureList::IdentityOf(attributes)), nullptr);
  }
}

TEST(FailureList, ForgetsTheOldestAboveItsBound) {
  FailureList list(3);

  for (uint64_t inode = 1; inode <= 4; ++inode) {
    list.Add(FailureList::IdentityOf(FileCalled(inode)), {});
    list.Add(FailureList::IdentityOf(FileCalled(inode)), {});
  }

  EXPECT_EQ(list.size(), 3U);
  EXPECT_EQ(list.Find(FailureList::IdentityOf(FileCalled(1))), nullptr);
  EXPECT_NE(list.Find(FailureList::IdentityOf(FileCalled(2))), nullptr);
}

}  // namespace
}  // namespace extractor
