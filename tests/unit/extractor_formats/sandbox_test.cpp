// The readers keep working where nothing can be opened.
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
  for (const int call : {SCMP_SYS(read), SCMP_SYS(pread64), SCMP_SYS(lseek), SCMP_SYS(fstat), SCMP_SYS(newfstatat),
                         SCMP_SYS(mmap), SCMP_SYS(munmap), SCMP_SYS(mremap), SCMP_SYS(mprotect), SCMP_SYS(madvise),
                         SCMP_SYS(brk), SCMP_SYS(futex), SCMP_SYS(clock_gettime), SCMP_SYS(gettimeofday),
                         SCMP_SYS(getpid), SCMP_SYS(getrandom), SCMP_SYS(write), SCMP_SYS(exit_group)}) {
    seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0);
  }
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

TEST(Sandbox, ReadsEverySampleAsItIsReadOutside) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer itself opens files";
#endif
  extractor::Prepare();
  for (const std::string& name : SampleNames()) {
    const std::string inside = ExtractInSandbox(Sample(name), name);

    // Afterwards, so that nothing was loaded by a first extraction outside.
    EXPECT_EQ(inside, Extract(Sample(name), name).document.toStyledString()) << name;
  }
}

TEST(Sandbox, ReadsOldCharacterSetsAndArchives) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer itself opens files";
#endif
  extractor::Prepare();
  const std::string mail =
      "From: a@b\r\nSubject: =?iso-2022-jp?B?GyRCO3UbKEI=?=\r\nContent-Type: text/plain; "
      "charset=big5\r\n\r\n\xC4\xF3\r\n";
  std::string russian;
  for (int i = 0; i < 20; ++i) {
    russian += "\xF3\xC5\xD2\xC1\xD1 \xC3\xC1\xD0\xCC\xD1 \xD3\xD4\xCF\xD1\xCC\xC1 \xD5 \xD0\xCC\xCF\xD4\xC9\xCE\xD9. ";
  }
  const std::pair<std::string, std::string> files[] = {
      {"a.eml", mail},
      {"a.txt", russian},
      {"a.xml", "<?xml version=\"1.0\" encoding=\"shift_jis\"?><a>\x8D\xEB</a>"},
      {"a.html", "<html><meta charset=euc-kr><p>\xBF\xD6</html>"},
      {"a.rtf", "{\\rtf1\\ansicpg936 \\'b0\\'d7}"},
      {"a.tgz", MakeArchive("tar", "gzip", {{"heron", "x"}})},
      {"a.7z", MakeArchive("7z", "", {{"heron", "x"}})},
      {"a.txz", MakeArchive("tar", "xz", {{"heron", "x"}})}};
  for (const auto& [name, content] : files) {
    const std::string inside = ExtractInSandbox(content, name);
    const Extraction outside = Extract(content, name);

    EXPECT_NE(outside.Text(), "") << name;
    EXPECT_EQ(inside, outside.document.toStyledString()) << name;
  }
}

}  // namespace
}  // namespace orbisk::test
