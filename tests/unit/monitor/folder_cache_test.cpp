// The tree of known folders beside a naive twin.
#include "services/monitor/folder_cache.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace nimotifyd {
namespace {

Handle HandleNo(uint64_t number) {
  Handle handle;
  handle.size = sizeof(number);
  std::memcpy(handle.bytes.data(), &number, sizeof(number));
  return handle;
}

std::string PathOf(const FolderCache::Folder* folder) {
  return folder->parent == nullptr ? "" : PathOf(folder->parent) + "/" + folder->name;
}

TEST(FolderCacheTest, FolderIsFoundByItsHandle) {
  FolderCache cache(100);
  FolderCache::Folder* top = cache.Insert(HandleNo(1), nullptr, "");
  cache.Insert(HandleNo(2), top, "a");

  ASSERT_NE(cache.Find(HandleNo(2)), nullptr);
  EXPECT_EQ(PathOf(cache.Find(HandleNo(2))), "/a");
  EXPECT_EQ(cache.Find(HandleNo(3)), nullptr);
}

TEST(FolderCacheTest, MoveTakesEverythingBelowAlongAndRaisesTheGeneration) {
  FolderCache cache(100);
  FolderCache::Folder* top = cache.Insert(HandleNo(1), nullptr, "");
  FolderCache::Folder* a = cache.Insert(HandleNo(2), top, "a");
  FolderCache::Folder* b = cache.Insert(HandleNo(3), top, "b");
  FolderCache::Folder* below = cache.Insert(HandleNo(4), a, "x");
  const uint64_t before = cache.generation();

  EXPECT_TRUE(cache.Move(a, b, "n"));

  EXPECT_EQ(PathOf(below), "/b/n/x");
  EXPECT_GT(cache.generation(), before);
}

TEST(FolderCacheTest, FolderIsNeverMovedBelowItself) {
  FolderCache cache(100);
  FolderCache::Folder* top = cache.Insert(HandleNo(1), nullptr, "");
  FolderCache::Folder* a = cache.Insert(HandleNo(2), top, "a");
  FolderCache::Folder* b = cache.Insert(HandleNo(3), a, "b");

  EXPECT_FALSE(cache.Move(a, b, "n"));
  EXPECT_FALSE(cache.Move(a, a, "n"));

  EXPECT_EQ(PathOf(b), "/a/b");
}

TEST(FolderCacheTest, ErasingAFolderWithKnownOnesBelowForgetsEverything) {
  FolderCache cache(100);
  FolderCache::Folder* top = cache.Insert(HandleNo(1), nullptr, "");
  FolderCache::Folder* a = cache.Insert(HandleNo(2), top, "a");
  cache.Insert(HandleNo(3), a, "b");

  cache.Erase(cache.Find(HandleNo(3)));
  EXPECT_EQ(cache.size(), 2U);
  cache.Erase(top);

  EXPECT_EQ(cache.size(), 0U);
}

TEST(FolderCacheTest, LimitIsKeptAndTheParentOfANewFolderStays) {
  FolderCache cache(64);
  FolderCache::Folder* parent = cache.Insert(HandleNo(0), nullptr, "");
  for (uint64_t depth = 1; depth < 40; ++depth) {
    parent = cache.Insert(HandleNo(depth), parent, "d");
  }
  for (uint64_t number = 100; number < 5000; ++number) {
    cache.Insert(HandleNo(number), parent, "f" + std::to_string(number));
    ASSERT_LE(cache.size(), 64U);
  }
  std::string expected;
  for (int depth = 1; depth < 40; ++depth) {
    expected += "/d";
  }
  EXPECT_EQ(PathOf(cache.Find(HandleNo(4999))), expected + "/f4999");
}

// Random changes on the cache and on a map of whole paths: whatever the cache still knows is where the map says.
TEST(FolderCacheTest, KnownFoldersAreWhereANaiveTwinSays) {
  std::mt19937 random(3);
  FolderCache cache(50);
  std::map<uint64_t, std::pair<uint64_t, std::string>> twin;  // number -> parent, name
  twin[0] = {0, ""};
  const auto path_of = [&](uint64_t number) {
    std::string path;
    for (; number != 0; number = twin[number].first) {
      path.insert(0, "/" + twin[number].second);
    }
    return path;
  };
  uint64_t next = 1;
  for (int step = 0; step < 50'000; ++step) {
    auto at = twin.begin();
    std::advance(at, random() % twin.size());
    FolderCache::Folder* folder = cache.Find(HandleNo(at->first));
    if (folder == nullptr && cache.size() == 0) {
      folder = cache.Insert(HandleNo(0), nullptr, "");
      at = twin.begin();
    }
    if (folder == nullptr) {
      continue;
    }
    ASSERT_EQ(PathOf(folder), path_of(at->first));
    auto other = twin.begin();
    std::advance(other, random() % twin.size());
    FolderCache::Folder* target = cache.Find(HandleNo(other->first));
    const std::string name = "n" + std::to_string(next);
    if (random() % 3 == 0) {
      twin[next] = {at->first, name};
      cache.Insert(HandleNo(next), folder, name);
      ++next;
    } else if (target != nullptr && at->first != 0 && cache.Move(folder, target, name)) {
      at->second = {other->first, name};
    } else if (random() % 200 == 0) {
      cache.Clear();
      twin.erase(++twin.begin(), twin.end());
    }
  }
  EXPECT_LE(cache.size(), 50U);
}

}  // namespace
}  // namespace nimotifyd
