// Plain text: character sets, bounds, and what must not be mistaken for text or taken from it.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>

#include "services/extractor/formats/charset.h"
#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

std::string Encode(const char* charset, const std::string& utf8) {
  const iconv_t handle = iconv_open(charset, "UTF-8");
  std::string input = utf8;
  std::string out(utf8.size() * 4 + 16, '\0');
  char* from = input.data();
  char* to = out.data();
  std::size_t left = input.size();
  std::size_t room = out.size();
  EXPECT_NE(iconv(handle, &from, &left, &to, &room), static_cast<std::size_t>(-1)) << charset;
  iconv(handle, nullptr, nullptr, &to, &room);
  iconv_close(handle);
  out.resize(out.size() - room);
  return out;
}

std::string Repeat(const std::string& text, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) {
    out += text;
  }
  return out;
}

TEST(PlainText, LongJsonIsKnownBehindBlanksToo) {
  const std::string json = "{\"birds\": [" + Repeat("\"heron\", ", 1'000) + "\"stork\"]}\n";

  for (const char* start : {"", " ", "\n\t"}) {
    EXPECT_EQ(Extract(start + json, "a")["NIMOMDContentType"], "application/json") << start;
  }
}

TEST(PlainText, IsReadInTheCharacterSetThatItIsWrittenIn) {
  const struct {
    const char* charset;
    const char* text;
  } rows[] = {
      {"UTF-8", "Zażółć gęślą jaźń, heron 鷺."},
      {"UTF-16LE", "The grey heron came, zażółć."},
      {"UTF-16BE", "The grey heron came, zażółć."},
      {"WINDOWS-1252", "Ein Fischreiher fraß häufig Frösche, überall im Grünen, größtenteils nördlich der Brücke."},
      {"KOI8-R", "Серая цапля стояла у плотины на рассвете и ждала рыбу."},
      {"WINDOWS-1251", "Серая цапля стояла у плотины на рассвете и ждала рыбу."},
      {"SHIFT_JIS", "夜明けに灰色の鷺が堰に来た。魚を待っている。"},
      {"EUC-JP", "夜明けに灰色の鷺が堰に来た。魚を待っている。"},
      {"ISO-2022-JP", "夜明けに灰色の鷺が堰に来た。魚を待っている。"},
      {"GB18030", "黎明时分，灰鹭来到堰边，等待着鱼儿。"},
      {"BIG5", "黎明時分，灰鷺來到堰邊，等待著魚兒。"},
      {"EUC-KR", "새벽에 왜가리가 둑에 와서 물고기를 기다렸다."},
      {"ISO-8859-2", "Świtem siwa czapla przyszła do jazu i czekała na rybę, zażółć gęślą jaźń."},
  };
  for (const auto& row : rows) {
    const std::string text = Repeat(std::string(row.text) + "\n", 8);

    const Extraction extraction = Extract(Encode(row.charset, text), "notes.txt");

    EXPECT_EQ(extraction.error, "") << row.charset;
    EXPECT_EQ(extraction.Text() + "\n", text) << row.charset << " as " << extraction.result.media_type;
  }
}

TEST(PlainText, LosesItsByteOrderMark) {
  for (const char* charset : {"UTF-8", "UTF-16LE", "UTF-16BE", "UTF-32LE"}) {
    const Extraction extraction = Extract(Encode(charset, "\uFEFFgrey heron at the weir"), "a.txt");

    EXPECT_EQ(extraction.Text(), "grey heron at the weir") << charset;
  }
}

TEST(PlainText, SurvivesAByteThatIsNoCharacter) {
  const std::string text = Repeat("Zażółć gęślą jaźń. ", 20'000) + "\xFF" + Repeat(" heron", 10);

  const Extraction extraction = Extract(text, "a.txt");

  EXPECT_NE(extraction.Text().find("Zażółć gęślą jaźń. \uFFFD heron"), std::string::npos);
}

TEST(PlainText, SurvivesCharactersThatAreWrittenAsTwoSurrogates) {
  const std::string text = "Zażółć gęślą jaźń \xED\xA0\xBD\xED\xB0\xA6 heron, zażółć gęślą jaźń.";

  EXPECT_NE(Extract(text, "a.txt").Text().find("heron, zażółć gęślą jaźń."), std::string::npos);
}

TEST(PlainText, IsCutAtTheBoundAndSaysSo) {
  const std::string text = Repeat("鷺", 100'000);

  const Extraction cut = Extract(text, "a.txt", 100'000);
  const Extraction whole = Extract(text, "a.txt", 300'000);

  EXPECT_TRUE(cut.result.cut);
  EXPECT_EQ(cut.Text(), Repeat("鷺", 33'333));
  EXPECT_FALSE(whole.result.cut);
  EXPECT_EQ(whole.Text(), text);
}

TEST(PlainText, OfAnyKindIsText) {
  for (const char* content :
       {"{\"bird\": \"heron\", \"seen\": [1, 2, 3]}", "#!/bin/sh\necho heron\n", "bird,count\nheron,17\nbittern,2\n",
        "#include <heron.h>\nint main() { return 0; }\n", "% heron\n\\documentclass{article}\n"}) {
    const Extraction extraction = Extract(content, "a");

    EXPECT_NE(extraction.Text().find("heron"), std::string::npos) << content << extraction.result.media_type;
  }
}

TEST(PlainText, MayBeginLikeAMail) {
  for (const char* content : {"Format: https://heron.example/1.0\nFiles: *\n", "Note: the heron came.\n"}) {
    const Extraction extraction = Extract(content, "copyright");

    EXPECT_EQ(extraction["NIMOMDContentType"], "text/plain") << content;
    EXPECT_EQ(extraction.Text() + "\n", content);
  }
}

TEST(PlainText, MayBeginWithAPointThatIsNoRequestOfRoff) {
  for (const char* text : {".. heron\n", "..\n  heron\n", ". heron\n", "...and the heron\n"}) {
    EXPECT_EQ(Extract(text, "heron.1")["NIMOMDContentType"], "text/plain") << text;
  }
  for (const char* page : {".TH HERON 1\n.SH NAME\nheron\n", ".\\\" heron\n.TH HERON 1\n", "'\\\" t\n.TH HERON 1\n"}) {
    EXPECT_EQ(Extract(page, "heron.1")["NIMOMDContentType"], "text/troff") << page;
  }
}

TEST(PlainText, IsNotMadeOfBytesThatNoFormatKnows) {
  std::string bytes = "heron";
  for (int i = 0; i < 5000; ++i) {
    bytes += static_cast<char>((i * 7919) >> 3);
  }

  const Extraction extraction = Extract(bytes, "a.txt");

  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(extraction["NIMOMDContentType"], "application/octet-stream");
  EXPECT_FALSE(extraction.document.isMember("NIMOMDTextContent"));
}

TEST(PlainText, OfNoBytesIsNoError) {
  const Extraction extraction = Extract("", "a.txt");

  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(extraction.result.media_type, "inode/x-empty");
}

/// Bytes that this process has read so far, from whatever.
std::int64_t BytesRead() {
  std::ifstream io("/proc/self/io");
  std::string name;
  std::int64_t count = 0;
  io >> name >> count;
  return name == "rchar:" ? count : -1;
}

TEST(PlainText, BeyondTheBoundIsNotReadAtAll) {
  const MemoryFile file;
  file.Append(std::string(std::size_t{32} << 20, 'x'));
  extractor::Prepare();
  const std::int64_t before = BytesRead();
  ASSERT_GE(before, 0);

  const Extraction extraction = ExtractFrom(file.fd(), "a.txt", 100'000);

  EXPECT_TRUE(extraction.result.cut);
  EXPECT_LT(BytesRead() - before, 1'000'000);
}

TEST(PlainText, OfHundredsOfMegabytesIsReadInBoundedMemory) {
  const MemoryFile file;
  const std::string rows = Repeat("2024-03-01,heron,weir,17,grey\n", 35'000);
  for (int i = 0; i < 200; ++i) {
    file.Append(rows);
  }
  ASSERT_GT(lseek(file.fd(), 0, SEEK_END), 200'000'000);
  extractor::Prepare();

  // A child, because the peak of a process is never lowered. Half of the address space that a worker gets.
  const pid_t child = fork();
  if (child == 0) {
#ifndef __SANITIZE_ADDRESS__
    struct rusage before {};
    getrusage(RUSAGE_SELF, &before);
#endif
    Json::Value document;
    const bool cut = extractor::ExtractContent(file.fd(), {"table.csv"}, document).cut;
    if (!cut || document["NIMOMDTextContent"].asString().size() < (4U << 20) - 100) {
      _exit(2);
    }
#ifndef __SANITIZE_ADDRESS__
    struct rusage after {};
    getrusage(RUSAGE_SELF, &after);
    _exit(after.ru_maxrss - before.ru_maxrss > 48 * 1024 ? 3 : 0);
#else
    _exit(0);
#endif
  }
  int status = 0;
  waitpid(child, &status, 0);

  EXPECT_EQ(status, 0) << "2: not the text, 3: more than 48 MiB";
}

}  // namespace
}  // namespace orbisk::test
