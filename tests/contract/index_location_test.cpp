// What nimo/index_location.h promises.
#include "nimo/index_location.h"

#include <gtest/gtest.h>

#include <string>

namespace orbisk::test {
namespace {

using Compose = int (*)(const char*, char*, size_t);

std::string Composed(Compose compose, const char* of) {
  char buffer[4096] = "untouched";
  return compose(of, buffer, sizeof(buffer)) >= 0 ? buffer : "failed";
}

TEST(IndexLocation, IsApartForEachShareAndForQueueAndDatabase) {
  const std::string queue = Composed(FILEIDXQueuePathCompose, "/volume1/photo");
  const std::string db = Composed(FILEIDXDBPathCompose, "/volume1/photo");
  EXPECT_EQ(0U, queue.find("/volume1/")) << queue;
  EXPECT_EQ(0U, db.find("/volume1/")) << db;
  EXPECT_NE(queue, db);
  EXPECT_NE(queue, Composed(FILEIDXQueuePathCompose, "/volume1/photos"));
  EXPECT_NE(queue, Composed(FILEIDXQueuePathCompose, "/volume2/photo"));
  EXPECT_NE(db, Composed(FILEIDXDBPathCompose, "/volume2/photo"));
}

TEST(IndexLocation, IdentifiesAnIndexByTheSharesName) {
  EXPECT_EQ("fileindex_photo", Composed(FILEIDXGetIndexID, "photo"));
  EXPECT_EQ("fileindex_\xc3\xa4 b", Composed(FILEIDXGetIndexID, "\xc3\xa4 b"));
}

TEST(IndexLocation, OfAMalformedShareIsAFailure) {
  for (Compose compose : {FILEIDXQueuePathCompose, FILEIDXDBPathCompose}) {
    for (const char* path : {"", "photo", "/", "/volume1/photo/", static_cast<const char*>(nullptr)}) {
      EXPECT_EQ("failed", Composed(compose, path)) << (path != nullptr ? path : "null");
    }
  }
  for (const char* name : {"", "a/b", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ("failed", Composed(FILEIDXGetIndexID, name)) << (name != nullptr ? name : "null");
  }
}

TEST(IndexLocation, NeedsRoomForTheNulByteAndLeavesTheBufferOtherwise) {
  const struct {
    Compose compose;
    const char* of;
  } kCalls[] = {{FILEIDXQueuePathCompose, "/volume1/photo"},
                {FILEIDXDBPathCompose, "/volume1/photo"},
                {FILEIDXGetIndexID, "photo"}};
  for (const auto& call : kCalls) {
    const std::string whole = Composed(call.compose, call.of);
    std::string buffer(whole.size() + 1, 'x');
    EXPECT_GT(0, call.compose(call.of, buffer.data(), whole.size()));
    EXPECT_EQ(std::string(whole.size() + 1, 'x'), buffer);
    EXPECT_LE(0, call.compose(call.of, buffer.data(), whole.size() + 1));
    EXPECT_STREQ(whole.c_str(), buffer.c_str());
    EXPECT_GT(0, call.compose(call.of, buffer.data(), 0));
  }
}

}  // namespace
}  // namespace orbisk::test
