// Archives give the names within; bombs cost no more than their bounds.
#include <gtest/gtest.h>

#include <chrono>

#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

const Entries kEntries = {{"birds/heron.txt", "grey"}, {"birds/żuraw.txt", std::string(100'000, 'x')}, {"weir", ""}};
constexpr char kNames[] = "birds/heron.txt\nbirds/żuraw.txt\nweir";

TEST(Archive, GivesTheNamesWithin) {
  const struct {
    const char* format;
    const char* filter;
    const char* media_type;
  } rows[] = {{"zip", "", "application/zip"},
              {"tar", "", "application/x-tar"},
              {"7z", "", "application/x-7z-compressed"},
              {"tar", "gzip", "application/gzip"},
              {"tar", "bzip2", "application/x-bzip2"},
              {"tar", "xz", "application/x-xz"},
              {"tar", "zstd", "application/zstd"}};
  for (const auto& row : rows) {
    const Extraction extraction = Extract(MakeArchive(row.format, row.filter, kEntries), "a");

    EXPECT_EQ(extraction.error, "") << row.media_type;
    EXPECT_EQ(extraction.Text(), kNames) << row.media_type;
    EXPECT_EQ(extraction["NIMOMDContentType"], row.media_type);
  }
}

TEST(Archive, OfOtherPackersGivesTheNamesWithin) {
  for (const char* name : {"names.zip", "names.tar", "names.7z"}) {
    const Extraction extraction = Extract(Sample(name), "");

    EXPECT_EQ(extraction.error, "") << name;
    EXPECT_NE(extraction.Text().find("heron.txt"), std::string::npos) << name;
    EXPECT_NE(extraction.Text().find("birds/crane.txt"), std::string::npos) << name;
  }
}

TEST(Archive, OfOneCompressedFileGivesTheNameThatGzipKept) {
  std::string gzip = Compress("gzip", "grey heron");
  ASSERT_EQ(gzip[3] & 8, 0);
  gzip[3] = static_cast<char>(gzip[3] | 8);
  gzip.insert(10, std::string("heron.log\0", 10));

  const Extraction named = Extract(gzip, "a.gz");
  const Extraction nameless = Extract(Compress("gzip", "grey heron"), "a.gz");

  EXPECT_EQ(named.error, "");
  EXPECT_EQ(named.Text(), "heron.log");
  EXPECT_EQ(nameless.error, "");
  EXPECT_EQ(nameless.Text(), "");
}

TEST(Archive, OfTenThousandEntriesGivesAllOfThemQuickly) {
  Entries entries;
  for (int i = 0; i < 10'000; ++i) {
    entries.emplace_back("birds/heron-" + std::to_string(i), "");
  }
  for (const char* format : {"zip", "tar"}) {
    const std::string archive = MakeArchive(format, "", entries);
    const auto start = std::chrono::steady_clock::now();

    const Extraction extraction = Extract(archive, "a");

    EXPECT_TRUE(extraction.Text().ends_with("heron-9999")) << format;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  }
}

TEST(Archive, OfMoreEntriesThanAnyoneNeedsIsRefusedWithTheFirstNamesKept) {
  Entries entries;
  for (int i = 0; i < 100'001; ++i) {
    entries.emplace_back(std::to_string(i), "");
  }

  const Extraction extraction = Extract(MakeArchive("tar", "", entries), "a.tar");

  EXPECT_NE(extraction.error.find("more than 100000 entries"), std::string::npos);
  EXPECT_TRUE(extraction.Text().starts_with("0\n1\n2\n"));
}

TEST(Archive, OfNamesBeyondTheBoundIsCut) {
  Entries entries;
  for (int i = 0; i < 1000; ++i) {
    entries.emplace_back("heron-" + std::to_string(i), "");
  }

  const Extraction extraction = Extract(MakeArchive("zip", "", entries), "a.zip", 500);

  EXPECT_TRUE(extraction.result.cut);
  EXPECT_LE(extraction.Text().size(), 500U);
}

TEST(Archive, ThatInflatesWithoutEndIsLeftEarlyAndSaysSo) {
  const std::string zeros(std::size_t{96} << 20, '\0');
  const std::string bomb = MakeArchive("tar", "gzip", {{"first", "x"}, {"large", zeros}, {"last", "x"}});
  ASSERT_LT(bomb.size(), 200'000U);

  const Extraction extraction = Extract(bomb, "a.tgz");

  EXPECT_TRUE(extraction.result.cut);
  EXPECT_EQ(extraction.Text(), "first\nlarge");
}

TEST(Archive, CompressedMoreThanOnceStaysClosed) {
  const std::string twice = Compress("gzip", MakeArchive("tar", "gzip", {{"heron", "x"}}));

  const Extraction extraction = Extract(twice, "a.gz");

  EXPECT_NE(extraction.error.find("compressed more than once"), std::string::npos);
  EXPECT_EQ(extraction.Text(), "");
}

TEST(Archive, WithinAnArchiveIsANameLikeAnyOther) {
  const std::string inner = MakeArchive("zip", "", {{"secret.txt", "x"}});

  const Extraction extraction = Extract(MakeArchive("zip", "", {{"inner.zip", inner}}), "a.zip");

  EXPECT_EQ(extraction.Text(), "inner.zip");
}

TEST(Archive, ThatEndsEarlyKeepsTheNamesBefore) {
  const std::string archive = MakeArchive("tar", "gzip", kEntries);

  const Extraction extraction = Extract(archive.substr(0, archive.size() - 40), "a.tgz");

  EXPECT_NE(extraction.error, "");
  EXPECT_TRUE(extraction.Text().starts_with("birds/heron.txt")) << extraction.Text();
}

TEST(Archive, OfNamesThatAreNotUtf8StillGivesThem) {
  std::string archive = MakeArchive("tar", "", {{"caf_ heron", "x"}});
  // The header's checksum counts the byte that is changed.
  archive[3] = '\xE9';
  unsigned int sum = 0;
  for (std::size_t i = 0; i < 512; ++i) {
    sum += i >= 148 && i < 156 ? 32U : static_cast<unsigned char>(archive[i]);
  }
  char text[8];
  snprintf(text, sizeof(text), "%06o", sum);
  archive.replace(148, 7, std::string(text, 7));

  const Extraction extraction = Extract(archive, "a.tar");

  EXPECT_EQ(extraction.Text(), "caf\uFFFD heron");
}

}  // namespace
}  // namespace orbisk::test
