// Lines waiting for their queue file.
#include "services/monitor/queue_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>

#include "services/base/unique_fd.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"

namespace nimotifyd {

using service::UniqueFd;

namespace {

namespace fs = std::filesystem;
using orbisk::test::ReadFile;
using std::chrono::milliseconds;

const Clock::time_point kStart{};

class QueueSinkTest : public testing::Test {
 protected:
  QueueSinkTest() { sink_.SetFirstFolder("/v/s", true); }
  std::string Queue() const { return fs::exists(path_) ? ReadFile(path_) : ""; }
  long Lines() const {
    const std::string text = Queue();
    return std::count(text.begin(), text.end(), '\n');
  }
  UniqueFd Lock() {
    UniqueFd fd(open(path_.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
    EXPECT_EQ(flock(fd.get(), LOCK_EX | LOCK_NB), 0);
    return fd;
  }

  orbisk::test::RecordCapture records_;
  orbisk::test::TempDir folder_;
  std::string path_ = folder_ / "queue";
  QueueSink sink_{path_, 4096};
  const std::string crashed_ = "{\"event\":512,\"is_dir\":true,\"path\":\"/v/s\"}\n";
};

TEST_F(QueueSinkTest, NothingPendingWritesNothing) {
  sink_.Flush(kStart);
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_FALSE(sink_.retry_time());
}

TEST_F(QueueSinkTest, LinesAreWrittenInOrder) {
  sink_.Add(kCreate, false, {"/v/s", "a"});
  sink_.AddRename(false, {"/v/s", "a"}, {"/v/s", "b"});
  sink_.Flush(kStart);

  EXPECT_EQ(Queue(),
            "{\"event\":64,\"is_dir\":false,\"path\":\"/v/s/a\"}\n"
            "{\"event\":256,\"is_dir\":false,\"path\":\"/v/s/b\",\"path_old\":\"/v/s/a\"}\n");
  EXPECT_FALSE(sink_.pending());
}

TEST_F(QueueSinkTest, BusyQueueIsTriedAgainAfterGrowingPauses) {
  const UniqueFd lock = Lock();
  sink_.Add(kCreate, false, {"/v/s", "a"});
  std::vector<long> pauses;
  Clock::time_point now = kStart;
  for (int i = 0; i < 12; ++i) {
    sink_.Flush(now);
    ASSERT_TRUE(sink_.retry_time());
    pauses.push_back(std::chrono::duration_cast<milliseconds>(*sink_.retry_time() - now).count());
    now = *sink_.retry_time();
  }

  EXPECT_EQ(pauses.front(), 1);
  EXPECT_TRUE(std::is_sorted(pauses.begin(), pauses.end()));
  EXPECT_EQ(pauses.back(), 250);
}

TEST_F(QueueSinkTest, BeforeThePauseIsOverNothingIsTried) {
  UniqueFd lock = Lock();
  sink_.Add(kCreate, false, {"/v/s", "a"});
  sink_.Flush(kStart);
  lock.Close();

  sink_.Flush(kStart);
  EXPECT_EQ(Queue(), "");
  sink_.Flush(kStart + milliseconds(1));
  EXPECT_EQ(Lines(), 1);
  EXPECT_FALSE(sink_.retry_time());
}

TEST_F(QueueSinkTest, PastTheLimitEverythingBecomesOneCrashedLine) {
  {
    const UniqueFd lock = Lock();
    for (int i = 0; i < 200; ++i) {
      sink_.Add(kCreate, false, {"/v/s", std::to_string(i)});
      EXPECT_LE(sink_.pending_bytes(), 4096U + 200);
    }
    EXPECT_EQ(sink_.pending_bytes(), 0U);
  }
  sink_.FlushNow(kStart);

  EXPECT_EQ(Queue(), crashed_);
}

TEST_F(QueueSinkTest, AfterTheCrashedLineLinesAreTakenAgain) {
  sink_.Crash("test");
  sink_.Add(kCreate, false, {"/v/s", "covered"});
  sink_.FlushNow(kStart);
  sink_.Add(kCreate, false, {"/v/s", "after"});
  sink_.FlushNow(kStart);

  EXPECT_EQ(Queue(), crashed_ + "{\"event\":64,\"is_dir\":false,\"path\":\"/v/s/after\"}\n");
}

TEST_F(QueueSinkTest, ThousandLossesInARowAreOneCrashedLine) {
  for (int i = 0; i < 1000; ++i) {
    sink_.Crash("test");
    sink_.FlushNow(kStart);
  }
  EXPECT_EQ(Queue(), crashed_);
}

TEST_F(QueueSinkTest, CrashedLineIsWrittenAgainAfterOtherLines) {
  sink_.Crash("test");
  sink_.FlushNow(kStart);
  sink_.Add(kCreate, false, {"/v/s", "a"});
  sink_.FlushNow(kStart);
  sink_.Crash("test");
  sink_.FlushNow(kStart);

  EXPECT_EQ(Lines(), 3);
}

TEST_F(QueueSinkTest, CrashedLineIsWrittenAgainAfterTheReaderTookTheFile) {
  sink_.Crash("test");
  sink_.FlushNow(kStart);
  fs::rename(path_, path_ + ".tmp");
  sink_.Crash("test");
  sink_.FlushNow(kStart);

  EXPECT_EQ(Queue(), crashed_);
}

TEST_F(QueueSinkTest, CrashedLineIsWrittenAgainAfterALineThatMakesTheFileAsLongAsItWas) {
  sink_.SetFirstFolder("/v/s/a", true);
  sink_.Crash("test");
  sink_.FlushNow(kStart);
  const auto length = fs::file_size(path_);
  fs::resize_file(path_, 0);  // as after a reader, whose new queue file got the number of the old one
  sink_.Add(kCreate, false, {"/v/s", "b"});
  sink_.FlushNow(kStart);
  ASSERT_EQ(fs::file_size(path_), length);

  sink_.Crash("test");
  sink_.FlushNow(kStart);

  EXPECT_EQ(Lines(), 2);
}

TEST_F(QueueSinkTest, ReaderThatDidNotAskForCrashedLinesGetsNone) {
  sink_.SetFirstFolder("/v/s", false);
  sink_.Crash("test");
  sink_.Add(kCreate, false, {"/v/s", "a"});
  sink_.FlushNow(kStart);

  EXPECT_EQ(Lines(), 1);
  EXPECT_EQ(records_.texts().at(0), "event=events_lost queue=" + path_ + " reason=test");
}

TEST_F(QueueSinkTest, DroppedEventsAreRecordedOnceUntilTheQueueIsWritableAgain) {
  sink_.SetFirstFolder("/v/s", false);
  const auto flood = [this] {
    const UniqueFd lock = Lock();
    for (int i = 0; i < 1000; ++i) {
      sink_.Add(kCreate, false, {"/v/s", std::to_string(i)});
    }
  };

  flood();

  const std::string dropped = "event=queue_dropped queue=" + path_;
  ASSERT_EQ(records_.texts().size(), 2U);
  EXPECT_EQ(records_.texts()[0].substr(0, dropped.size()), dropped);
  EXPECT_EQ(records_.texts()[1], "event=events_lost queue=" + path_ + " reason=memory_limit");
  sink_.FlushNow(kStart);
  flood();
  EXPECT_EQ(records_.texts().size(), 4U);
}

TEST_F(QueueSinkTest, DroppedEventsOfAReaderWhoComesToAskForCrashedLinesLeaveOne) {
  sink_.SetFirstFolder("/v/s", false);
  {
    const UniqueFd lock = Lock();
    for (int i = 0; i < 200; ++i) {
      sink_.Add(kCreate, false, {"/v/s", std::to_string(i)});
    }
    sink_.SetFirstFolder("/v/s", true);
    sink_.Add(kCreate, false, {"/v/s", "dropped"});
  }
  sink_.FlushNow(kStart);

  EXPECT_EQ(Queue(), crashed_);
}

TEST_F(QueueSinkTest, LinesNotWrittenAreCounted) {
  const UniqueFd lock = Lock();
  sink_.Add(kCreate, false, {"/v/s", "a"});
  sink_.AddRename(false, {"/v/s", "a"}, {"/v/s", "b"});
  sink_.Add(kDelete, false, {"/v/s", "b"});
  sink_.Add(kCreate, true, {"/v/s", "b"});  // two lines, because a file of the name was deleted
  EXPECT_EQ(sink_.pending_lines(), 5U);

  sink_.Crash("test");
  EXPECT_EQ(sink_.pending_lines(), 1U);
}

TEST_F(QueueSinkTest, FolderOfAnAbsentVolumeIsNotMade) {
  QueueSink sink(folder_ / "volume/queue", 4096);
  sink.SetFirstFolder("/v/s", true);
  sink.SetPresent(false);
  sink.Add(kCreate, false, {"/v/s", "a"});
  sink.Flush(kStart);
  EXPECT_FALSE(fs::exists(folder_ / "volume"));
  EXPECT_EQ(sink.retry_time(), Clock::time_point::max());

  sink.SetPresent(true);
  sink.Flush(kStart);
  EXPECT_FALSE(sink.pending());
}

TEST_F(QueueSinkTest, FolderInPlaceOfAFileDeletedSinceTheLastReadTakesTheDeleteBack) {
  sink_.Add(kDelete, false, {"/v/s", "x"});
  sink_.Flush(kStart);
  sink_.Add(kCreate, true, {"/v/s", "x"});
  sink_.Add(kCreate, true, {"/v/s", "y"});
  sink_.Flush(kStart);

  EXPECT_EQ(Queue(),
            "{\"event\":128,\"is_dir\":false,\"path\":\"/v/s/x\"}\n"
            "{\"event\":64,\"is_dir\":false,\"path\":\"/v/s/x\"}\n"
            "{\"event\":64,\"is_dir\":true,\"path\":\"/v/s/x\"}\n"
            "{\"event\":64,\"is_dir\":true,\"path\":\"/v/s/y\"}\n");
}

TEST_F(QueueSinkTest, DeletesThatTheReaderHasTakenAreForgotten) {
  sink_.Add(kDelete, false, {"/v/s", "x"});
  sink_.Flush(kStart);
  fs::rename(path_, path_ + ".tmp");
  sink_.Add(kCreate, false, {"/v/s", "other"});
  sink_.Flush(kStart);
  sink_.Add(kCreate, true, {"/v/s", "x"});
  sink_.Flush(kStart);

  EXPECT_EQ(Lines(), 2);
}

TEST_F(QueueSinkTest, MuchIsWrittenInSlicesThatEndWithALine) {
  QueueSink sink(path_, size_t{64} << 20);
  const std::string name(200, 'n');
  for (int i = 0; i < 60'000; ++i) {
    sink.Add(kCreate, false, {"/v/s", name});
  }
  sink.Flush(kStart);

  EXPECT_EQ(Lines(), 60'000);
  EXPECT_FALSE(sink.pending());
}

// Limits the size of files that this program writes, as a disk that is nearly full does.
class FileSizeLimit {
 public:
  FileSizeLimit() : handler_(signal(SIGXFSZ, SIG_IGN)) { getrlimit(RLIMIT_FSIZE, &before_); }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, handler_);
  }
  void Set(size_t bytes) const {
    struct rlimit limit = before_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }

 private:
  struct rlimit before_ {};
  void (*handler_)(int);
};

TEST_F(QueueSinkTest, WrittenLinesAreGivenBackThoughOthersStillWait) {
  constexpr size_t kSlice = size_t{4} << 20;
  constexpr int kLinesOfASlice = 18'000;  // of 240 bytes: a little more than a slice
  QueueSink sink(path_, size_t{64} << 20);
  const FileSizeLimit limit;
  const std::string name(190, 'n');
  const auto allocated = [] {
    const struct mallinfo2 memory = mallinfo2();
    return memory.uordblks + memory.hblkhd;
  };
  const size_t before = allocated();
  long lines = 0;
  for (size_t round = 1; round <= 10; ++round) {
    limit.Set(round * kSlice);
    for (int i = 0; i < kLinesOfASlice; ++i) {
      sink.Add(kCreate, false, {"/v/s", name + std::to_string(100'000'000 + lines++)});
    }
    sink.FlushNow(kStart);
    ASSERT_TRUE(sink.pending());
  }
  EXPECT_LT(allocated() - before, 5 * kSlice);
  const long waiting = static_cast<long>(sink.pending_lines());
  EXPECT_EQ(Lines() + waiting, lines);

  limit.Set(100 * kSlice);
  sink.FlushNow(kStart);

  EXPECT_FALSE(sink.pending());
  std::istringstream text(Queue());
  std::string line;
  for (long i = 0; i < lines; ++i) {
    ASSERT_TRUE(std::getline(text, line));
    ASSERT_NE(line.find(name + std::to_string(100'000'000 + i)), std::string::npos) << line << " is not line " << i;
  }
  EXPECT_FALSE(std::getline(text, line));
}

TEST(PathFilterTest, WhatIsInIsFoundAndMostOthersAreNot) {
  PathFilter filter;
  EXPECT_FALSE(filter.MayHold("/a"));
  for (int i = 0; i < 1000; ++i) {
    filter.Add("/in/" + std::to_string(i));
  }
  int wrong = 0;
  for (int i = 0; i < 1000; ++i) {
    EXPECT_TRUE(filter.MayHold("/in/" + std::to_string(i)));
    wrong += filter.MayHold("/out/" + std::to_string(i)) ? 1 : 0;
  }
  EXPECT_LT(wrong, 20);
}

}  // namespace
}  // namespace nimotifyd
