// Which paths are opened, and to what they lead; tests/system has the links.
#include "services/extractor/open_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <system_error>

#include "tests/support/temp_dir.h"

namespace extractor {

using service::UniqueFd;

namespace {

using orbisk::test::TempDir;
using orbisk::test::WriteFile;

ino_t InodeOf(const UniqueFd& fd) {
  struct stat attributes {};
  EXPECT_EQ(fstat(fd.get(), &attributes), 0);
  return attributes.st_ino;
}

TEST(OpenSubject, LeadsToTheSameFileWithAndWithoutLinksInThePath) {
  const TempDir folder;
  std::filesystem::create_directories(folder / "a/b");
  WriteFile(folder / "a/b/file", "x");
  std::filesystem::create_symlink("a", folder / "to_a");
  std::filesystem::create_symlink(folder / "to_a/b/", folder / "to_b");
  const ino_t expected = InodeOf(OpenSubject(folder / "a/b/file"));

  for (const char* path : {"to_a/b/file", "to_b/file", "to_b/../b/file", "to_a/./b//file", "to_b/../../to_b/file"}) {
    EXPECT_EQ(InodeOf(OpenSubject(folder / path)), expected) << path;
  }
}

TEST(OpenSubject, DoesNotOpenWhatIsBehindTheFile) {
  const TempDir folder;
  WriteFile(folder / "file", "x");

  const UniqueFd subject = OpenSubject(folder / "file");

  char byte = 0;
  EXPECT_EQ(read(subject.get(), &byte, 1), -1);
}

TEST(OpenSubject, FailsWithTheReason) {
  const TempDir folder;
  WriteFile(folder / "file", "x");
  std::filesystem::create_symlink("missing", folder / "dangling");

  const std::pair<const char*, int> cases[] = {
      {"missing", ENOENT}, {"file/x", ENOTDIR}, {"dangling/x", ENOENT}, {"missing/x", ENOENT}};
  for (const auto& [path, reason] : cases) {
    try {
      OpenSubject(folder / path);
      ADD_FAILURE() << path;
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), reason) << path;
    }
  }
}

TEST(OpenForReading, ReadsTheFileEvenWhenItsPathLeadsElsewhereByNow) {
  const TempDir folder;
  WriteFile(folder / "file", "first");
  const UniqueFd subject = OpenSubject(folder / "file");
  std::filesystem::remove(folder / "file");
  WriteFile(folder / "file", "second");

  const UniqueFd file = OpenForReading(subject);

  char text[16] = {};
  EXPECT_EQ(read(file.get(), text, sizeof(text)), 5);
  EXPECT_STREQ(text, "first");
}

TEST(OpenForReading, CannotWrite) {
  const TempDir folder;
  WriteFile(folder / "file", "x");

  const UniqueFd file = OpenForReading(OpenSubject(folder / "file"));

  EXPECT_EQ(fcntl(file.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
}

}  // namespace
}  // namespace extractor
