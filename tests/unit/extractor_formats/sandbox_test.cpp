// The readers keep working where nothing can be opened.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <seccomp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

/// What a reader may ask the kernel for; anything else ends the process.
void CloseTheSandbox() {
  const scmp_filter_ctx filter = seccomp_init(SCMP_ACT_KILL_PROCESS);
  for (const int call : {SCMP_SYS(read), SCMP_SYS(pread64), SCMP_SYS(lseek), SCMP_SYS(fstat), SCMP_SYS(mmap),
                         SCMP_SYS(munmap), SCMP_SYS(mremap), SCMP_SYS(mprotect), SCMP_SYS(madvise), SCMP_SYS(brk),
                         SCMP_SYS(futex), SCMP_SYS(clock_gettime), SCMP_SYS(gettimeofday), SCMP_SYS(getpid),
                         SCMP_SYS(getrandom), SCMP_SYS(write), SCMP_SYS(sigaltstack), SCMP_SYS(exit_group)}) {
    seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0);
  }
  // The C library's fstat; by a path it is refused.
  seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(newfstatat), 1,
                   scmp_arg_cmp{3, SCMP_CMP_MASKED_EQ, AT_EMPTY_PATH, AT_EMPTY_PATH});
  if (seccomp_load(filter) != 0) {
    _exit(77);
  }
  seccomp_release(filter);
}

/// Extracts in a child that may open nothing, and returns the document as text; "" when the child was ended.
std::string ExtractInSandbox(std::string_view content, const std::string& name) {
  const MemoryFile file(content);
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    CloseTheSandbox();
    Json::Value document;
    extractor::ExtractContent(file.fd(), {name}, document);
    const std::string text = document.toStyledString();
    [[maybe_unused]] const ssize_t written = write(ends[1], text.data(), text.size());
    _exit(0);
  }
  close(ends[1]);
  std::string answer;
  char buffer[4096];
  for (ssize_t count = 0; (count = read(ends[0], buffer, sizeof(buffer))) > 0;) {
    answer.append(buffer, static_cast<std::size_t>(count));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0) << name << ": signal " << (status & 127);
  return answer;
}

/// A page in a font whose characters are named by a map that the PDF library looks for in its own folder: two
/// characters of `code`, hexadecimal, in the map `encoding` of the characters of Adobe's collection `ordering`.
std::string EastAsianPdf(const std::string& ordering, const std::string& encoding, const std::string& code) {
  const std::string page = "BT /G 12 Tf 10 50 Td (heron) Tj /F 12 Tf 0 -20 Td <" + code + code + "> Tj ET";
  return "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj 2 0 obj<</Type/Pages/Count 1/Kids[3 0 R]>>endobj\n"
         "3 0 obj<</Type/Page/Parent 2 0 R/MediaBox[0 0 200 200]/Contents 4 0 R/Resources<</Font<</F 5 0 R/G 8 0 R>>>>"
         ">>endobj\n4 0 obj<</Length " +
         std::to_string(page.size()) + ">>stream\n" + page +
         "\nendstream endobj\n5 0 obj<</Type/Font/Subtype/Type0/BaseFont/A/Encoding/" + encoding +
         "/DescendantFonts[6 0 R]>>endobj\n6 0 obj<</Type/Font/Subtype/CIDFontType0/BaseFont/A/CIDSystemInfo"
         "<</Registry(Adobe)/Ordering(" +
         ordering +
         ")/Supplement 2>>/FontDescriptor 7 0 R>>endobj\n"
         "7 0 obj<</Type/FontDescriptor/FontName/A/Flags 4>>endobj\n"
         "8 0 obj<</Type/Font/Subtype/Type1/BaseFont/Helvetica>>endobj\ntrailer<</Root 1 0 R/Size 9>>\n";
}

std::vector<std::pair<std::string, std::string>> Files() {
  std::string russian;
  for (int i = 0; i < 20; ++i) {
    russian += "\xF3\xC5\xD2\xC1\xD1 \xC3\xC1\xD0\xCC\xD1 \xD3\xD4\xCF\xD1\xCC\xC1 \xD5 \xD0\xCC\xCF\xD4\xC9\xCE\xD9. ";
  }
  const Entries entries = {{"heron", "x"}};
  std::vector<std::pair<std::string, std::string>> files = {
      {"a.eml",
       "From: a@b\r\nSubject: =?iso-2022-jp?B?GyRCO3UbKEI=?=\r\nContent-Type: text/plain; charset=big5\r\n\r\n"
       "\xC4\xF3\r\n"},
      {"a.txt", russian},
      {"a.xml", "<?xml version=\"1.0\" encoding=\"shift_jis\"?><a>\x8D\xEB</a>"},
      {"a.html", "<html><meta charset=euc-kr><p>\xBF\xD6</html>"},
      {"a.rtf", "{\\rtf1\\ansi\\ansicpg936 \\'b0\\'d7}"},
      {"a.pdf", EastAsianPdf("GB1", "UniGB-UCS2-H", "9DFA")},
      {"a.zip", MakeArchive("zip", "", entries)},
      {"a.tar", MakeArchive("tar", "", entries)},
      {"a.tgz", MakeArchive("tar", "gzip", entries)},
      {"a.txz", MakeArchive("tar", "xz", entries)},
      {"a.tbz", MakeArchive("tar", "bzip2", entries)},
      {"a.tar.zst", MakeArchive("tar", "zstd", entries)},
      {"a.7z", MakeArchive("7z", "", entries)}};
  for (const std::string& name : SampleNames()) {
    files.emplace_back(name, Sample(name));
  }
  return files;
}

TEST(Sandbox, ReadsEveryFormatAsItIsReadOutside) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer itself opens files";
#endif
  extractor::Prepare();
  const auto files = Files();
  std::vector<std::string> inside;

  // All of them before the first outside, which would load for good what it needs.
  for (const auto& [name, content] : files) {
    inside.push_back(ExtractInSandbox(content, name));
  }

  for (std::size_t i = 0; i < files.size(); ++i) {
    const auto& [name, content] = files[i];
    const Extraction outside = Extract(content, name);
    EXPECT_EQ(outside.error, "") << name;
    EXPECT_EQ(inside[i], outside.document.toStyledString()) << name;
  }
}

TEST(Sandbox, HasTheMapsOfEastAsianFonts) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer itself opens files";
#endif
  const struct {
    const char* ordering;
    const char* encoding;
    const char* code;
    const char* character;
  } rows[] = {{"GB1", "UniGB-UCS2-H", "9DFA", R"(\u9dfa)"},   {"GB1", "GBK-EUC-H", "F0D8", R"(\u9e6d)"},
              {"CNS1", "ETen-B5-H", "C64F", R"(\u9dfa)"},     {"CNS1", "UniCNS-UTF16-H", "9DFA", R"(\u9dfa)"},
              {"Japan1", "90ms-RKSJ-H", "8DEB", R"(\u9dfa)"}, {"Japan1", "EUC-H", "BAED", R"(\u9dfa)"},
              {"Korea1", "KSCms-UHC-H", "BFD6", R"(\uc65c)"}, {"Korea1", "UniKS-UCS2-V", "C65C", R"(\uc65c)"}};
  extractor::Prepare();
  for (const auto& row : rows) {
    const std::string document = ExtractInSandbox(EastAsianPdf(row.ordering, row.encoding, row.code), "a.pdf");

    EXPECT_NE(document.find("heron"), std::string::npos) << row.encoding;
    EXPECT_NE(document.find(row.character), std::string::npos)
        << row.encoding << document << "is poppler-data installed?";
  }
}

TEST(Sandbox, ReadsTheRestOfAPageInAFontOfAnUnknownMap) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer itself opens files";
#endif
  extractor::Prepare();

  const std::string document =
      ExtractInSandbox(EastAsianPdf("GB1", "..#2F..#2F..#2F..#2F..#2Fetc#2Fpasswd", "9DFA"), "a.pdf");

  EXPECT_NE(document.find("heron"), std::string::npos) << document;
}

}  // namespace
}  // namespace orbisk::test
