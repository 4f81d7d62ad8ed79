// Broken files of every format: each ends in a document and, it may be, a reason; never in a crash.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <random>

#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

// A worker has half a minute for a file; a broken one of a few kilobytes must not come near.
constexpr std::chrono::seconds kLongest{10};

/// The checked-in samples and one of each format that needs no encoder.
std::vector<std::pair<std::string, std::string>> AllSamples() {
  const Entries entries = {{"birds/heron.txt", "grey"}, {"birds/crane.txt", std::string(10'000, 'x')}};
  std::vector<std::pair<std::string, std::string>> samples = {
      {"a.html",
       "<html><head><title>Heron</title></head><body><p>grey <b>heron</b><table><tr><td>1</table></body></html>"},
      {"a.xml", "<?xml version=\"1.0\"?><!DOCTYPE a [<!ENTITY e \"x\">]><a b=\"c\"><![CDATA[heron]]>&e;&amp;<d/></a>"},
      {"a.txt", "Zażółć gęślą jaźń, heron 鷺."},
      {"a.eml",
       "From: Ada <a@b.c>\r\nSubject: =?utf-8?B?xbl1cmF3?=\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n"
       "Content-Type: text/html\r\n\r\n<p>heron\r\n--b\r\nContent-Type: text/plain; name=x\r\n"
       "Content-Transfer-Encoding: base64\r\n\r\naGVyb24=\r\n--b--\r\n"},
      {"a.zip", MakeArchive("zip", "", entries)},
      {"a.tar", MakeArchive("tar", "", entries)},
      {"a.tgz", MakeArchive("tar", "gzip", entries)},
      {"a.tbz", MakeArchive("tar", "bzip2", entries)},
      {"a.txz", MakeArchive("tar", "xz", entries)},
      {"a.7z", MakeArchive("7z", "", entries)},
      {"a.xlsx", MakeArchive("zip", "",
                             {{"xl/workbook.xml", "<w><sheet name='a'/></w>"},
                              {"xl/worksheets/sheet1.xml", "<s><row><c><v>17</v></c></row></s>"},
                              {"xl/sharedStrings.xml", "<s><si><t>heron</t></si></s>"}})}};
  for (const std::string& name : SampleNames()) {
    samples.emplace_back(name, Sample(name));
  }
  return samples;
}

void ExpectSoonDone(const std::string& content, const std::string& name, const std::string& what) {
  const auto start = std::chrono::steady_clock::now();

  Extract(content, name, 100'000);

  EXPECT_LT(std::chrono::steady_clock::now() - start, kLongest) << name << " " << what;
}

TEST(Hostile, FilesCutShortAtEverySixteenthAreSurvived) {
  for (const auto& [name, content] : AllSamples()) {
    for (std::size_t i = 1; i < 16; ++i) {
      ExpectSoonDone(content.substr(0, content.size() * i / 16), name, "cut at " + std::to_string(i));
    }
  }
}

TEST(Hostile, FilesWithBitsTurnedAreSurvived) {
  for (const auto& [name, content] : AllSamples()) {
    std::mt19937 random(17);
    for (int round = 0; round < 60; ++round) {
      std::string broken = content;
      // From one bit in the file to one in every sixty bytes, more of them near the front where formats decide.
      const std::size_t flips = 1 + broken.size() * static_cast<std::size_t>(round) / 3600;
      for (std::size_t i = 0; i < flips; ++i) {
        const std::size_t reach = i % 2 == 0 ? broken.size() : std::min<std::size_t>(broken.size(), 512);
        broken[random() % reach] ^= static_cast<char>(1U << (random() % 8));
      }
      ExpectSoonDone(broken, name, "round " + std::to_string(round));
    }
  }
}

TEST(Hostile, FilesWithHolesAreSurvived) {
  for (const auto& [name, content] : AllSamples()) {
    for (std::size_t i = 0; i < 8; ++i) {
      for (const char fill : {'\0', '\xFF'}) {
        std::string broken = content;
        const std::size_t begin = broken.size() * i / 8;
        std::fill_n(broken.begin() + static_cast<std::ptrdiff_t>(begin), broken.size() / 8, fill);
        ExpectSoonDone(broken, name, "hole " + std::to_string(i));
      }
    }
  }
}

TEST(Hostile, FilesThatClaimAnotherNameAreReadByTheirContent) {
  for (const auto& [name, content] : AllSamples()) {
    // Only these two lean on a name.
    if (name == "a.eml" || name == "a.html") {
      continue;
    }
    EXPECT_EQ(Extract(content, "a.pdf").result.media_type, Extract(content, name).result.media_type) << name;
  }
}

TEST(Hostile, ADescriptorThatIsNoFileIsRefused) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);

  const Extraction extraction = ExtractFrom(ends[0], "a");

  EXPECT_EQ(extraction.error, "not a regular file");
  close(ends[0]);
  close(ends[1]);
}

}  // namespace
}  // namespace orbisk::test
