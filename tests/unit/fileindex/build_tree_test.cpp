// Reading a queue file into a tree: good lines, bad lines, and their records.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "orbisk/error.h"
#include "orbisk/fileindex/log_level.h"
#include "tests/support/record_capture.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using Lines = std::vector<std::string>;
using orbisk::test::ExpectFailure;
using orbisk::test::Record;
using orbisk::test::RecordCapture;
using orbisk::test::RecordText;
using orbisk::test::WithoutLine;

Lines Read(const std::string& content) {
  const QueueFile queue(content);
  OPTree tree(queue.path());
  return Deliver(tree);
}

// "Insert" records, as code and raw line.
Lines SkippedLines(const std::vector<Record>& records) {
  Lines skipped;
  for (const Record& record : records) {
    if (record.format.find("InsertEvent failed") != std::string::npos) {
      const size_t code = record.text.rfind(", code=");
      skipped.push_back(record.text.substr(code + 7, record.text.find(',', code + 7) - code - 7));
    }
  }
  return skipped;
}

class LogLevel {
 public:
  explicit LogLevel(int level) { log_level = level; }
  ~LogLevel() { log_level = 0; }
  LogLevel(const LogLevel&) = delete;
  LogLevel& operator=(const LogLevel&) = delete;
};

TEST(BuildTree, InsertsTheLinesInOrder) {
  EXPECT_EQ((Lines{"[02] /b", "[01] /a", "count=2"}), Read(Join({Create("/b"), Delete("/a"), Modify("/b")})));
}

TEST(BuildTree, OfAnEmptyFileIsAnEmptyTree) {
  const RecordCapture capture;
  EXPECT_EQ((Lines{"count=0"}), Read(""));
  EXPECT_TRUE(capture.records().empty());
}

TEST(BuildTree, ALastLineWithoutANewlineCounts) {
  EXPECT_EQ((Lines{"[02] /a", "[02] /b", "count=2"}), Read(Create("/a") + "\n" + Create("/b")));
}

TEST(BuildTree, ANewlineAtTheEndIsNoEmptyLine) {
  const RecordCapture capture;
  Read(Create("/a") + "\n");
  EXPECT_TRUE(capture.records().empty());
}

TEST(BuildTree, AMalformedLineBetweenTwoGoodOnesIsSkippedWithOneRecord) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_EQ((Lines{"[02] /a", "[02] /b", "count=2"}), Read(Join({Create("/a"), "{torn", Create("/b")})));
  const auto records = capture.records();
  ASSERT_EQ(2U, records.size()) << "the check's own, and the skipped line's";
  ExpectFailure(records[0], "op.cpp", "Event", "!data.fromString(event_raw)", "Malformed event_raw: {torn");
  EXPECT_EQ(3, records[1].priority);
  EXPECT_EQ("%s:%d (%d, %u) (%s) InsertEvent failed, event_raw=%s, code=%d, reason=%s", records[1].format);
  EXPECT_EQ(RecordText("optree.cpp", "BuildTree",
                       "InsertEvent failed, event_raw={torn, code=906, reason=Malformed event_raw: {torn"),
            WithoutLine(records[1].text));
}

TEST(BuildTree, ABadPathIsSkippedWithItsRecord) {
  const RecordCapture capture;
  EXPECT_EQ((Lines{"[02] /b", "count=1"}), Read(Join({Create("/a/"), Create("/b")})));
  ASSERT_FALSE(capture.records().empty());
  EXPECT_EQ(RecordText("optree.cpp", "BuildTree",
                       "InsertEvent failed, event_raw=" + Create("/a/") +
                           ", code=9999, reason=GetNodeByPath failed, path=/a/"),
            WithoutLine(capture.records().back().text));
}

struct BadLine {
  const char* name;
  std::string text;
  const char* code;
};

std::vector<BadLine> BadLines() {
  return {
      {"Empty", "", "906"},
      {"WhiteSpaceOnly", " \t\r", "906"},
      {"Torn", R"({"event":64,"path":"/to)", "906"},
      {"TornBeforeTheBrace", R"({"event":64,"path":"/torn")", "906"},
      {"NotJson", "create /a/b", "906"},
      {"NotAnObject", R"(["event",64])", "120"},
      {"Null", "null", "120"},
      {"TwoThousandOpenBrackets", std::string(2000, '['), "906"},
      {"TwoThousandNestedArrays", std::string(2000, '[') + std::string(2000, ']'), "906"},
      {"NestedBracketsInData",
       R"({"event":64,"path":"/n","data":)" + std::string(2000, '[') + std::string(2000, ']') + "}", "906"},
      {"AMegabyteOfNonsense", std::string(1024 * 1024, 'x'), "906"},
      {"AMegabyteOfPathTorn", R"({"event":64,"path":"/)" + std::string(1024 * 1024, 'p'), "906"},
      {"NulBytes", std::string(16, '\0'), "906"},
      {"NulByteBehindTheObject", Create("/n") + std::string(1, '\0'), "906"},
      {"NulByteBeforeTheObject", std::string(1, '\0') + Create("/n"), "906"},
      {"TwoObjects", Create("/n") + Create("/o"), "906"},
      {"TwoObjectsWithASpace", Create("/n") + " " + Create("/o"), "906"},
      {"TextBehindTheObject", Create("/n") + " x", "906"},
      {"MaskOutOfRange", R"({"event":4294967296,"path":"/n"})", "120"},
      {"MaskJustOutOfRange", R"({"event":2147483648,"path":"/n"})", "120"},
      {"MaskFarOutOfRange", R"({"event":99999999999999999999999999,"path":"/n"})", "120"},
      {"MaskIsText", R"({"event":"64","path":"/n"})", "120"},
      {"NoMask", R"({"path":"/n"})", "120"},
      {"NoPath", R"({"event":64})", "120"},
      {"PathIsAnObject", R"({"event":64,"path":{}})", "120"},
      {"PathIsRelative", R"({"event":64,"path":"n"})", "9999"},
      {"PathIsANumber", R"({"event":64,"path":5})", "9999"},
      {"PathIsNull", R"({"event":64,"path":null})", "9999"},
      {"PathIsTheRoot", R"({"event":64,"path":"/"})", "9999"},
      {"RenameWithoutOldPath", R"({"event":256,"path":"/good"})", "9999"},
  };
}

void PrintTo(const BadLine& line, std::ostream* stream) {
  *stream << line.name;
}

std::string NameOf(const testing::TestParamInfo<BadLine>& info) {
  return info.param.name;
}

class BadLineTest : public testing::TestWithParam<BadLine> {};

TEST_P(BadLineTest, GivesItsRecordsAndLosesNoNeighbour) {
  const RecordCapture capture;
  EXPECT_EQ((Lines{"[02] /good", "[03] /behind", "count=2"}),
            Read(Join({Create("/good"), GetParam().text, Attrib("/behind")})));
  EXPECT_EQ((Lines{GetParam().code}), SkippedLines(capture.records()));
  for (const Record& record : capture.records()) {
    EXPECT_EQ(3, record.priority);
  }
}

TEST_P(BadLineTest, AsTheLastLineWithoutANewlineIsSkippedToo) {
  const RecordCapture capture;
  EXPECT_EQ((Lines{"[02] /good", "count=1"}), Read(Create("/good") + "\n" + GetParam().text));
  const Lines expected = GetParam().text.empty() ? Lines{} : Lines{GetParam().code};
  EXPECT_EQ(expected, SkippedLines(capture.records()));
}

INSTANTIATE_TEST_SUITE_P(All, BadLineTest, testing::ValuesIn(BadLines()), NameOf);

TEST(BuildTree, WhiteSpaceRoundAGoodObjectIsNoFault) {
  const RecordCapture capture;
  EXPECT_EQ((Lines{"[02] /a", "[02] /b", "[02] /c", "count=3"}),
            Read(Create("/a") + "\r\n \t" + Create("/b") + "  \r\r\n" + "{ \"event\" :64,\t\"path\": \"/c\" }\n"));
  EXPECT_TRUE(capture.records().empty());
}

TEST(BuildTree, AMegabyteOfGoodLineIsRead) {
  const std::string path = "/" + std::string(1024 * 1024, 'p');
  EXPECT_TRUE((Lines{"[02] " + path, "count=1"} == Read(Create(path) + "\n")));
}

TEST(BuildTree, BytesOfNamesArePreserved) {
  std::string path = "/";
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/') {
      path.push_back(static_cast<char>(byte));
    }
  }
  EXPECT_EQ((Lines{"[02] " + path, "count=1"}), Read(Create(path) + "\n"));
}

TEST(BuildTree, LinesBehindTheCrashLineAreNotRead) {
  const RecordCapture capture;
  EXPECT_EQ((Lines{"[07] ", "count=1"}), Read(Join({Create("/a"), Crash(), "{torn", Create("/b")})));
  EXPECT_TRUE(SkippedLines(capture.records()).empty());
}

TEST(BuildTree, ACrashLineWhosePathIsBadIsABadLine) {
  EXPECT_EQ((Lines{"[02] /a", "count=1"}), Read(Join({Line(0x200, "/"), Create("/a")})));
}

TEST(BuildTree, ReadingASecondTimeFoldsTheFileOnTop) {
  const QueueFile queue(Join({Create("/a"), Delete("/b")}));
  OPTree tree(queue.path());
  orbisk::test::WriteFile(queue.path(), Join({Create("/b"), Delete("/a")}));
  tree.BuildTree();
  EXPECT_EQ((Lines{"[01] /a", "[02] /b", "count=2"}), Deliver(tree));
}

TEST(BuildTree, LooksAtTheCrashFlagBehindEachLine) {
  const QueueFile queue(Join({Crash()}));
  OPTree tree(queue.path());
  orbisk::test::WriteFile(queue.path(), Join({"{torn", "{torn"}));
  const RecordCapture capture;
  tree.BuildTree();
  EXPECT_EQ(1U, SkippedLines(capture.records()).size());
  EXPECT_EQ((Lines{"[07] ", "count=1"}), Deliver(tree));
}

TEST(BuildTree, AMissingFileIsError502WithItsRecord) {
  const QueueFile queue;
  const RecordCapture capture;
  EXPECT_EQ("502 Failed to open queue, reason=" + std::string(strerror(ENOENT)),
            ErrorOf([&] { const OPTree tree(queue.path() + ".missing"); }));
  EXPECT_EQ(0, errno);
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "optree.cpp", "BuildTree", "!input_stream",
                "Failed to open queue, reason=" + std::string(strerror(ENOENT)), strerror(ENOENT));
}

TEST(BuildTree, AnUnopenablePathSaysWhy) {
  const QueueFile queue;
  const std::string loop = queue.path() + ".loop";
  ASSERT_EQ(0, symlink(loop.c_str(), loop.c_str()));
  EXPECT_EQ("502 Failed to open queue, reason=" + std::string(strerror(ELOOP)),
            ErrorOf([&] { const OPTree tree(loop); }));
}

TEST(BuildTree, ADirectoryReadsAsAnEmptyQueue) {
  const QueueFile queue;
  const std::string folder = queue.path() + ".folder";
  ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
  OPTree tree(folder);
  EXPECT_EQ((Lines{"count=0"}), Deliver(tree)) << "it can be opened; the read error ends the reading";
}

TEST(GotEvent, IsWrittenAtPriorityErrorForEachLineBeforeItIsParsed) {
  const LogLevel level(7);
  const RecordCapture capture;
  Read(Join({Create("/a"), "{torn", ""}));
  Lines texts;
  for (const Record& record : capture.records()) {
    EXPECT_EQ(3, record.priority);
    texts.push_back(WithoutLine(record.text));
  }
  ASSERT_EQ(7U, texts.size());
  EXPECT_EQ("optree.cpp:N Got event: " + Create("/a"), texts[0]);
  EXPECT_EQ("%s:%d Got event: %s", capture.records()[0].format);
  EXPECT_EQ("optree.cpp:N Got event: {torn", texts[1]);
  EXPECT_NE(std::string::npos, texts[2].find("Malformed event_raw")) << "the line is shown before it fails";
  EXPECT_NE(std::string::npos, texts[3].find("InsertEvent failed"));
  EXPECT_EQ("optree.cpp:N Got event: ", texts[4]);
}

TEST(GotEvent, IsWrittenAtLevelSevenAlone) {
  for (const int other : {0, 3, 6, 8, 9, -7, 70}) {
    const LogLevel level(other);
    const RecordCapture capture;
    Read(Join({Create("/a")}));
    EXPECT_TRUE(capture.records().empty()) << other;
  }
}

TEST(GotEvent, StopsWithTheCrashLine) {
  const LogLevel level(7);
  const RecordCapture capture;
  Read(Join({Create("/a"), Crash(), Create("/b")}));
  size_t shown = 0;
  for (const std::string& text : capture.texts()) {
    shown += text.find("Got event") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(2U, shown);
}

TEST(BuildTree, TheRecordOfTheCheckTakesErrnoSoThatTheSkippedLinesShowsNone) {
  const RecordCapture capture;
  const QueueFile queue(Join({"{torn"}));
  errno = EBADF;
  const OPTree tree(queue.path());
  EXPECT_EQ(0, errno);
  const Lines texts = capture.texts();
  ASSERT_EQ(2U, texts.size());
  EXPECT_NE(std::string::npos, texts[0].find(" [err: " + std::string(strerror(EBADF)) + "]")) << texts[0];
  EXPECT_EQ(std::string::npos, texts[1].find("[err:")) << texts[1];
}

}  // namespace
}  // namespace orbisk::fileindex::test
