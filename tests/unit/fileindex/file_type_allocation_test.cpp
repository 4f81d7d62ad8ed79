// Looking up a file's kind costs no memory: the indexing daemon asks for every file. This program counts allocations.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "orbisk/fileindex/file_type.h"

namespace {

std::atomic<size_t> allocations{0};

void* Allocate(size_t size) {
  ++allocations;
  void* const memory = malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

void* operator new(size_t size) {
  return Allocate(size);
}

void* operator new[](size_t size) {
  return Allocate(size);
}

void operator delete(void* memory) noexcept {
  free(memory);
}

void operator delete[](void* memory) noexcept {
  free(memory);
}

void operator delete(void* memory, size_t) noexcept {
  free(memory);
}

void operator delete[](void* memory, size_t) noexcept {
  free(memory);
}

namespace orbisk::fileindex::test {
namespace {

TEST(FileTypeLookUp, AllocatesNothingHoweverLongTheNameIs) {
  const std::string folder = "/volume1/photo/" + std::string(200, 'x') + "/";
  const std::string paths[] = {folder + "a.JPG", folder + "README", folder + "a." + std::string(200, 'E'),
                               folder + "archive.tar.gz", folder + std::string(200, 'n') + ".emulecollection"};
  GetFileTypeByFullPath(paths[0]);  // makes the table

  const size_t before = allocations;
  size_t others = 0;
  for (const std::string& path : paths) {
    others += GetFileTypeByFullPath(path) == FILE_TYPE_OTHER ? 1 : 0;
  }
  const size_t after = allocations;

  EXPECT_EQ(before, after);
  EXPECT_EQ(1U, others);
}

}  // namespace
}  // namespace orbisk::fileindex::test
