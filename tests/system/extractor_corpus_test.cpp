// The daemon as it is shipped, on files that were made to hurt their readers, each beside a good neighbour.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <random>

#include "tests/support/temp_dir.h"
#include "tests/system/extractor_support.h"
#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

constexpr int kDeadline = 4;
constexpr int kMemory = 5;

std::string Times(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) {
    all += text;
  }
  return all;
}

std::string EntityBomb() {
  std::string bomb = "<?xml version=\"1.0\"?><!DOCTYPE b [<!ENTITY e0 \"heron\">";
  for (int i = 1; i < 12; ++i) {
    const std::string before = "&e" + std::to_string(i - 1) + ";";
    bomb += "<!ENTITY e" + std::to_string(i) + " \"" + Times(10, before) + "\">";
  }
  return bomb + "]><b>&e11;</b>";
}

constexpr char kPageLoop[] =
    "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj 2 0 obj<</Type/Pages/Count 9/Kids[2 0 R 2 0 R]>>endobj\n"
    "trailer<</Root 1 0 R/Size 3>>\n";

// A folder of tags that says that it is followed by itself.
std::string TagLoop() {
  return {"II*\0\x08\0\0\0\x01\0\x0f\x01\x02\0\x04\0\0\0abc\0\x08\0\0\0", 26};
}

std::string MailInMail() {
  return "From: a@b\r\nSubject: outer\r\n" + Times(3000, "Content-Type: message/rfc822\r\n\r\nSubject: x\r\n") + "\r\n";
}

using Files = std::vector<std::pair<std::string, std::string>>;

Files Bombs() {
  const std::string blanks(size_t{48} << 20, ' ');
  return {{"bomb.docx", MakeArchive("zip", "", {{"word/document.xml", "<d>" + blanks + "</d>"}})},
          {"bomb.tgz", MakeArchive("tar", "gzip", {{"heron", blanks}})},
          {"twice.gz", Compress("gzip", Compress("gzip", blanks))},
          {"deep.xml", "<?xml version=\"1.0\"?>" + Times(200'000, "<a>")},
          {"deep.html", "<html><body>" + Times(200'000, "<div>")},
          {"deep.rtf", "{\\rtf1 " + Times(200'000, "{")},
          {"entities.xml", EntityBomb()},
          {"loop.pdf", kPageLoop},
          {"loop.tiff", TagLoop()},
          {"nested.eml", MailInMail()}};
}

// Each sample cut in the middle, and with bits turned.
Files BrokenSamples() {
  Files files;
  std::mt19937 random(23);
  for (const std::string& name : SampleNames()) {
    std::string content = Sample(name);
    files.emplace_back("half_" + name, content.substr(0, content.size() / 2));
    for (size_t i = 0; i < content.size() / 100; ++i) {
      content[random() % content.size()] ^= static_cast<char>(1U << (random() % 8));
    }
    files.emplace_back("turned_" + name, content);
  }
  return files;
}

class ExtractorCorpus : public testing::Test {
 protected:
  void Start(const std::vector<std::string>& arguments) {
    box_.StartProgram(BuiltProgram("nimocontentextractd"), arguments);
  }

  Json::Value Ask(const std::string& name, const std::string& content) {
    WriteFile(box_ / name, content);
    return box_.Parse(box_ / name);
  }

  void ExpectGoodNeighbour(const std::string& name) {
    const Json::Value answer = Ask("good_" + name + ".txt", "A good heron, neighbour of " + name);
    EXPECT_EQ(answer["data"]["NIMOMDTextContent"], "A good heron, neighbour of " + name);
  }

  // A document, or a failure with a reason that blames the content. True for a document.
  bool ExpectSoundAnswer(const std::string& name, const Json::Value& answer) {
    if (answer["success"] == true) {
      EXPECT_EQ(answer["data"]["NIMOMDFSName"], name);
      return true;
    }
    EXPECT_THAT(answer["error"]["code"].asInt(), testing::AllOf(testing::Ge(3), testing::Le(6))) << name << answer;
    EXPECT_NE(answer["error"]["msg"].asString(), "") << name;
    return false;
  }

  ExtractorBox box_;
};

TEST_F(ExtractorCorpus, OfBombsCostsNoNeighbourItsDocument) {
  Start({"--workers", "1"});

  for (const auto& [name, content] : Bombs()) {
    EXPECT_TRUE(ExpectSoundAnswer(name, Ask(name, content))) << "its reader should have known its bounds: " << name;
    ExpectGoodNeighbour(name);
  }

  EXPECT_EQ(box_.Status()["known_failures"], 0);
}

TEST_F(ExtractorCorpus, OfBrokenSamplesCostsNoNeighbourItsDocument) {
  Start({"--workers", "1"});

  for (const auto& [name, content] : BrokenSamples()) {
    ExpectSoundAnswer(name, Ask(name, content));
    ExpectGoodNeighbour(name);
  }
}

// The two films are film.mp4 of the samples with a few bytes changed by chance.
TEST_F(ExtractorCorpus, OfAFilmThatItsReaderNeverEndsIsLeftAtTheDeadlineForGood) {
  Start({"--workers", "1", "--deadline", "3"});
  const std::string film = ReadFile(std::string(HOSTILE_DIR) + "/film_loops.mp4");

  EXPECT_EQ(Ask("film.mp4", film)["error"]["code"], kDeadline);

  ExpectGoodNeighbour("film");
  box_.daemon().Kill(SIGKILL);
  box_.daemon().Wait(std::chrono::seconds(5));
  Start({"--workers", "1", "--deadline", "3"});
  EXPECT_EQ(box_.Parse(box_ / "film.mp4")["error"]["code"], kDeadline);
  const Json::Value failures = box_.Status()["failures"];
  EXPECT_EQ(failures["known"], 1) << failures;
  EXPECT_FALSE(failures.isMember("deadline")) << "it was tried again: " << failures;
}

TEST_F(ExtractorCorpus, OfAFilmThatItsReaderNeedsAllMemoryForIsLeftAtTheBound) {
  if (EXTRACTOR_SHADOW_MEMORY != 0) {
    GTEST_SKIP() << "a worker with a sanitizer has no bound on memory";
  }
  Start({"--workers", "1", "--memory", "128"});

  const Json::Value answer = Ask("film.mp4", ReadFile(std::string(HOSTILE_DIR) + "/film_swells.mp4"));

  EXPECT_EQ(answer["error"]["code"], kMemory) << answer;
  ExpectGoodNeighbour("film");
}

TEST_F(ExtractorCorpus, OfEastAsianPdfsIsReadByTheWorkersThemselves) {
  Start({"--workers", "1"});

  const Json::Value answer =
      Ask("a.pdf",
          "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj 2 0 obj<</Type/Pages/Count 1/Kids[3 0 R]>>endobj\n"
          "3 0 obj<</Type/Page/Parent 2 0 R/MediaBox[0 0 200 200]/Contents 4 0 R/Resources<</Font<</F 5 0 R>>>>>>"
          "endobj\n4 0 obj<</Length 34>>stream\nBT /F 12 Tf 0 20 Td <8DEB8DEB> Tj ET\nendstream endobj\n"
          "5 0 obj<</Type/Font/Subtype/Type0/BaseFont/A/Encoding/90ms-RKSJ-H/DescendantFonts[6 0 R]>>endobj\n"
          "6 0 obj<</Type/Font/Subtype/CIDFontType0/BaseFont/A/CIDSystemInfo<</Registry(Adobe)/Ordering(Japan1)"
          "/Supplement 2>>/FontDescriptor 7 0 R>>endobj 7 0 obj<</Type/FontDescriptor/FontName/A/Flags 4>>endobj\n"
          "trailer<</Root 1 0 R/Size 8>>\n");

  EXPECT_EQ(answer["data"]["NIMOMDTextContent"], "鷺鷺") << answer;
}

}  // namespace
}  // namespace orbisk::test
