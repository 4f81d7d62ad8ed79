// Events of the library's own: the line, the lock, and what happens when it cannot be written. The status file is at
// its fixed path in a private mount namespace; this program replaces flock(2) and write(2).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/util.h"
#include "tests/support/fake_box.h"
#include "tests/support/fake_share.h"
#include "tests/support/fake_time.h"
#include "tests/support/fake_user.h"
#include "tests/support/lock_holder.h"
#include "tests/support/private_mounts.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/record_match.h"

namespace {

// Called before the real calls. A result other than 0 is the errno that flock fails with.
std::function<int(int fd, int operation)> before_lock;
std::function<void(int fd)> before_write;
struct Answer {
  ssize_t result;
  int error;
};
std::vector<Answer> answers;  // of write, instead of the kernel's; the last comes first

}  // namespace

extern "C" {

int flock(int fd, int operation) noexcept {
  if (before_lock) {
    if (const int error = before_lock(fd, operation); error != 0) {
      errno = error;
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}

ssize_t write(int fd, const void* buffer, size_t size) {
  if (before_write) {
    before_write(fd);
  }
  if (!answers.empty()) {
    const Answer answer = answers.back();
    answers.pop_back();
    errno = answer.error;
    return answer.result;
  }
  return syscall(SYS_write, fd, buffer, size);
}
}

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::ExpectFailure;
using orbisk::test::FakeIndexLocation;
using orbisk::test::FakePlatform;
using orbisk::test::FakeShare;
using orbisk::test::FakeShares;
using orbisk::test::FakeTime;
using orbisk::test::FakeUsers;
using orbisk::test::IsLocked;
using orbisk::test::LockHolder;
using orbisk::test::ReadFile;
using orbisk::test::RecordCapture;
using orbisk::test::TempDir;
using orbisk::test::WriteFile;

namespace fs = std::filesystem;

constexpr char kStatusFile[] = "/var/packages/Orbisk/etc/fileindex.status";

int OpenDescriptors() {
  return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// Adds a reindex of `path` unless the test says otherwise; "502 reason" of the Error, "none" without.
std::string Add(const std::string& path, int type = EVENT_REINDEX, const std::string& path_old = "",
                const Json::Value& data = Json::Value()) {
  try {
    AddCustomEvent(type, path, path_old, data);
  } catch (const Error& error) {
    return std::to_string(error.code()) + " " + error.what();
  }
  return "none";
}

class CustomEvent : public testing::Test {
 protected:
  static void SetUpTestSuite() { orbisk::test::EnterPrivateMounts({"/var/packages/Orbisk/etc", "/tmp"}); }
  CustomEvent() : volume_("/tmp") {
    fs::remove(kStatusFile);
    fs::create_directories(queue_folder_);
    AddPhoto();
    errno = 0;
  }
  ~CustomEvent() override {
    before_lock = nullptr;
    before_write = nullptr;
    EXPECT_EQ(0, FakeShares().outstanding());
    EXPECT_EQ(descriptors_, OpenDescriptors());
    EXPECT_FALSE(fs::is_regular_file(queue_) && IsLocked(queue_));
  }

  // The share photo, with this setting switched on.
  void AddPhoto(bool FakeShare::*setting = nullptr) const { FakeShares().Add("photo", photo_, setting); }
  std::string Queue() const { return ReadFile(queue_); }
  std::string ReindexLine(const std::string& path) const {
    return R"({"data":null,"event":65536,"path":")" + path + R"(","path_old":""})" + "\n";
  }
  static std::string Status() { return fs::exists(kStatusFile) ? ReadFile(kStatusFile) : "no file"; }
  static std::string GivenUpRecord(const std::string& error, const std::string& system_error = "") {
    const size_t blank = error.find(' ');
    return "util.cpp:867 (" + std::to_string(getpid()) + ", " + std::to_string(geteuid()) +
           ") (AddCustomEvent) AddCustomEvent failed, code=" + error.substr(0, blank) +
           ", reason=" + error.substr(blank + 1) + ". Set [photo] need reindex" +
           (system_error.empty() ? "" : " [err: " + system_error + "]");
  }
  // The event fails with `error`, which is recorded last, and flags the share.
  void ExpectGivenUp(const std::string& error) const {
    const RecordCapture capture;
    EXPECT_EQ(error, Add(photo_ + "/2019"));
    ASSERT_FALSE(capture.records().empty());
    EXPECT_EQ(GivenUpRecord(error), capture.texts().back());
    EXPECT_EQ(3, capture.records().back().priority);
    EXPECT_EQ("%s:%d (%d, %u) (%s) AddCustomEvent failed, code=%d, reason=%s. Set [%s] need reindex",
              capture.records().back().format);
    EXPECT_EQ(R"({"share":{"photo":1}})", Status());
  }

  FakePlatform platform_;
  const TempDir volume_;
  const std::string photo_ = volume_ / "photo";
  const std::string queue_folder_ = volume_ / "@fileindex/photo";
  const std::string queue_ = queue_folder_ + "/queue";
  const std::string side_ = queue_ + ".tmp";
  const int descriptors_ = OpenDescriptors();
};

TEST_F(CustomEvent, IsOneLineOfFourKeys) {
  EXPECT_EQ("none", Add(photo_ + "/2019"));
  EXPECT_EQ(R"({"data":null,"event":65536,"path":")" + photo_ + R"(/2019","path_old":""})" + "\n", Queue());
  EXPECT_EQ("no file", Status());
}

TEST_F(CustomEvent, OfARenameNamesBothPaths) {
  EXPECT_EQ("none", Add(photo_ + "/new", EVENT_RENAME, "/volume9/old"));
  EXPECT_EQ(R"({"data":null,"event":256,"path":")" + photo_ + R"(/new","path_old":"/volume9/old"})" + "\n", Queue());
}

TEST_F(CustomEvent, HoldsItsDataWithinTheLine) {
  Json::Value data;
  data["document"] = true;
  data["audio"] = false;
  data["note"] = "two\nlines";
  EXPECT_EQ("none", Add(photo_, EVENT_UPDATE_DIRECTORY, "", data));
  EXPECT_EQ(R"({"data":{"audio":false,"document":true,"note":"two\nlines"},"event":131072,"path":")" + photo_ +
                R"(","path_old":""})" + "\n",
            Queue());
}

TEST_F(CustomEvent, IsOneLineWhateverBytesThePathHas) {
  EXPECT_EQ("none", Add(photo_ + "/\xff\xfe\xc3\xa4\n\"\\"));
  EXPECT_EQ(ReindexLine(photo_ + "/\xff\xfe\xc3\xa4\\n\\\"\\\\"), Queue());
}

TEST_F(CustomEvent, ComesBehindTheLinesThatAreThere) {
  WriteFile(queue_, Join({Create(photo_ + "/a")}));
  EXPECT_EQ("none", Add(photo_ + "/2019"));
  EXPECT_EQ("none", Add(photo_ + "/2020"));
  EXPECT_EQ(Join({Create(photo_ + "/a")}) + ReindexLine(photo_ + "/2019") + ReindexLine(photo_ + "/2020"), Queue());
}

TEST_F(CustomEvent, EndsTheLineThatAnotherWriterDiedIn) {
  const std::string unended = R"({"event":2,"path":"/volume1/photo/a"})";
  WriteFile(queue_, unended);
  EXPECT_EQ("none", Add(photo_ + "/2019"));
  EXPECT_EQ(unended + "\n" + ReindexLine(photo_ + "/2019"), Queue());
}

TEST_F(CustomEvent, IsWrittenAtOnceWhileTheQueueIsLocked) {
  int writes = 0;
  before_write = [&](int) {
    ++writes;
    EXPECT_TRUE(IsLocked(queue_));
  };
  EXPECT_EQ("none", Add(photo_));
  EXPECT_EQ(1, writes);
}

TEST_F(CustomEvent, IsWrittenAgainAfterInterruptions) {
  answers.assign(20, Answer{-1, EINTR});
  EXPECT_EQ("none", Add(photo_));
  EXPECT_EQ(ReindexLine(photo_), Queue());
}

TEST_F(CustomEvent, FailsWhenNothingOfItIsTaken) {
  answers = {{0, EIO}};
  EXPECT_EQ("502 write failed, reason=Input/output error", Add(photo_));
  EXPECT_EQ("", Queue());
}

TEST_F(CustomEvent, WaitsForTheLockOfAnotherProcess) {
  WriteFile(queue_, "");
  LockHolder holder(queue_);
  FakeTime time;
  time.OnWait([&](size_t nth) {
    EXPECT_EQ("", Queue());
    if (nth == 3) {
      holder.Release();
    }
  });
  EXPECT_EQ("none", Add(photo_));
  EXPECT_EQ(3U, time.waits().size());
  EXPECT_EQ(ReindexLine(photo_), Queue());
}

TEST_F(CustomEvent, GoesIntoTheNewQueueWhenTheOldOneIsMovedAsideMeanwhile) {
  WriteFile(queue_, Join({Create(photo_ + "/a")}));
  LockHolder holder(queue_);
  FakeTime time;
  time.OnWait([&](size_t) {
    fs::rename(queue_, side_);
    holder.Release();
  });
  EXPECT_EQ("none", Add(photo_));
  EXPECT_EQ(ReindexLine(photo_), Queue());
  EXPECT_EQ(Join({Create(photo_ + "/a")}), ReadFile(side_));
}

TEST_F(CustomEvent, GoesIntoTheNewQueueWhenTheOldOneIsMovedAsideBetweenOpeningAndLocking) {
  WriteFile(queue_, Join({Create(photo_ + "/a")}));
  before_lock = [&](int, int) {
    if (!fs::exists(side_)) {
      fs::rename(queue_, side_);
    }
    return 0;
  };
  EXPECT_EQ("none", Add(photo_));
  EXPECT_EQ(ReindexLine(photo_), Queue());
  EXPECT_EQ(Join({Create(photo_ + "/a")}), ReadFile(side_));
}

TEST_F(CustomEvent, IsNotWrittenForAShareThatCannotBeIndexed) {
  WriteFile(queue_, "{torn");
  for (bool FakeShare::*setting : {&FakeShare::encrypted, &FakeShare::read_only}) {
    const RecordCapture capture;
    AddPhoto(setting);
    EXPECT_EQ("none", Add(photo_));
    EXPECT_EQ("none", Add(photo_ + "/new", EVENT_RENAME, photo_ + "/old"));
    EXPECT_EQ("{torn", Queue()) << "nor is the queue looked at";
    EXPECT_EQ(0U, capture.records().size());
  }
  EXPECT_EQ("no file", Status());
}

TEST_F(CustomEvent, IsNotWrittenUnderAPendingReindex) {
  const std::string pending = Join({Create(photo_ + "/a"), Reindex(photo_ + "/2019")});
  WriteFile(queue_, pending);
  EXPECT_EQ("none", Add(photo_ + "/2019"));
  EXPECT_EQ("none", Add(photo_ + "/2019/05"));
  EXPECT_EQ("none", Add(photo_ + "/2019/new", EVENT_RENAME, photo_ + "/old")) << "a rename is as redundant";
  EXPECT_EQ("none", Add(photo_ + "/2019", EVENT_UPDATE_DIRECTORY, "", Json::Value(Json::objectValue)));
  EXPECT_EQ(pending, Queue());
}

TEST_F(CustomEvent, IsWrittenBesideAPendingReindex) {
  const std::string pending = Join({Reindex(photo_ + "/2019")});
  WriteFile(queue_, pending);
  EXPECT_EQ("none", Add(photo_ + "/2019b"));
  EXPECT_EQ("none", Add(photo_)) << "a reindex below covers nothing above";
  EXPECT_EQ(pending + ReindexLine(photo_ + "/2019b") + ReindexLine(photo_), Queue());
}

TEST_F(CustomEvent, IsNotWrittenUnderAReindexOfTheSideFile) {
  WriteFile(side_, Join({Reindex(photo_)}));
  EXPECT_EQ("none", Add(photo_ + "/2019"));
  EXPECT_FALSE(fs::exists(queue_));
}

TEST_F(CustomEvent, IsFoundRedundantWithoutTheLock) {
  WriteFile(queue_, Join({Reindex(photo_)}));
  const LockHolder holder(queue_);
  const FakeTime time;
  EXPECT_EQ("none", Add(photo_));
  EXPECT_EQ(0U, time.waits().size());
}

TEST_F(CustomEvent, FailsAtAMalformedLineAndFlagsTheShare) {
  WriteFile(queue_, Join({Create(photo_ + "/a"), "{torn"}));
  {
    const RecordCapture capture;
    const std::string error = "906 Malformed event_raw: {torn";
    EXPECT_EQ(error, Add(photo_));
    ASSERT_EQ(2U, capture.records().size());
    ExpectFailure(capture.records()[0], "op.cpp", "Event", "!data.fromString(event_raw)", "Malformed event_raw: {torn");
    EXPECT_EQ(GivenUpRecord(error), capture.texts()[1]);
  }
  EXPECT_EQ(R"({"share":{"photo":1}})", Status());
  EXPECT_EQ(Join({Create(photo_ + "/a"), "{torn"}), Queue());
}

TEST_F(CustomEvent, FailsWhenTheQueueCannotBeLockedAndFlagsTheShare) {
  int left_open = -1;  // by the lock, which means to
  before_lock = [&](int fd, int) {
    if (fs::read_symlink("/proc/self/fd/" + std::to_string(fd)) != queue_) {
      return 0;
    }
    left_open = fd;
    return ENOLCK;
  };
  ExpectGivenUp("506 No locks available");
  close(left_open);
}

TEST_F(CustomEvent, FailsWhenItsTriesForTheLockAreUsedUpAndFlagsTheShare) {
  const LockHolder holder(queue_);
  const FakeTime time;
  ExpectGivenUp("506 Exceed max retry, path=" + queue_);
}

TEST_F(CustomEvent, FailsWhenAFolderIsInTheQueuesPlaceAndFlagsTheShare) {
  fs::create_directory(queue_);
  ExpectGivenUp("506 open failed, path=" + queue_ + ", reason=Is a directory");
}

TEST_F(CustomEvent, FailsWhenTheQueuesFolderIsMissingAndFlagsTheShare) {
  fs::remove(queue_folder_);
  ExpectGivenUp("506 open failed, path=" + queue_ + ", reason=No such file or directory");
}

TEST_F(CustomEvent, IsLostSilentlyWhenTheQueueCannotBeOpenedForWriting) {
  const std::string before = Join({Create(photo_ + "/a")});
  WriteFile(queue_, before);
  orbisk::test::MountBind(queue_folder_, queue_folder_);
  ASSERT_EQ(0, mount(nullptr, queue_folder_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
  const RecordCapture capture;
  EXPECT_EQ("none", Add(photo_));
  EXPECT_EQ(before, Queue());
  EXPECT_EQ("no file", Status());
  EXPECT_EQ(0U, capture.records().size());
}

// The queue on a volume of 64 KiB that is full but for the rest of the queue's last page.
class FullVolume : public CustomEvent {
 protected:
  FullVolume() {
    orbisk::test::MountEmptyFileSystem(queue_folder_, size_t{64} * 1024);
    while (before_.size() < kSpaceLimit) {
      before_ += Create(photo_ + "/a") + "\n";
    }
    WriteFile(queue_, before_);
    Fill();
  }

  static constexpr size_t kSpaceLimit = 4000;

  void Fill() const {
    const int fd = open((queue_folder_ + "/ballast").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string page(4096, 'x');
    while (syscall(SYS_write, fd, page.data(), page.size()) > 0) {
    }
    close(fd);
  }

  std::string before_;
};

TEST_F(FullVolume, TakesNoPartOfAnEventAndTheShareIsFlagged) {
  const std::string long_path = photo_ + "/" + std::string(5000, 'n');
  const std::string error = "502 write failed, reason=No space left on device";
  std::vector<off_t> sizes;
  before_write = [&](int fd) { sizes.push_back(lseek(fd, 0, SEEK_END)); };
  {
    const RecordCapture capture;
    EXPECT_EQ(error, Add(long_path));
    ASSERT_EQ(2U, capture.records().size());
    ExpectFailure(capture.records()[0], "util.cpp", "AddCustomEvent", "!AppendLine(queue_path, toString(event))",
                  "write failed, reason=No space left on device", "No space left on device");
    EXPECT_EQ(GivenUpRecord(error), capture.texts()[1]);
  }
  ASSERT_LE(2U, sizes.size()) << "a part of the line was written first";
  EXPECT_LT(sizes[0], sizes[1]);
  EXPECT_EQ(before_, Queue());
  EXPECT_EQ(R"({"share":{"photo":1}})", Status());
}

TEST_F(FullVolume, TakesTheNextEventAgainWhenThereIsRoom) {
  Add(photo_ + "/" + std::string(5000, 'n'));
  fs::remove(queue_folder_ + "/ballast");
  EXPECT_EQ("none", Add(photo_ + "/2019"));
  EXPECT_EQ(before_ + ReindexLine(photo_ + "/2019"), Queue());
}

TEST_F(CustomEvent, ShowsTheSystemsErrorInItsRecordAndClearsIt) {
  const RecordCapture capture;
  WriteFile(queue_, "");
  fs::create_directory(queue_folder_ + "/full");
  orbisk::test::MountEmptyFileSystem(queue_folder_ + "/full", 4096);
  const std::string full_queue = queue_folder_ + "/full/queue";
  FakeIndexLocation().queue_path.Always(
      [&](const char*, char* buffer, size_t) { return buffer[full_queue.copy(buffer, full_queue.size())] = '\0', 0; });
  before_lock = [&](int fd, int operation) {
    // Unlocking is the last thing before the record is written.
    return operation == LOCK_UN && fs::read_symlink("/proc/self/fd/" + std::to_string(fd)) == full_queue ? EBADF : 0;
  };
  const std::string error = "502 write failed, reason=No space left on device";
  EXPECT_EQ(error, Add(photo_ + "/" + std::string(9000, 'n')));
  ASSERT_EQ(2U, capture.records().size());
  EXPECT_EQ(GivenUpRecord(error, "Bad file descriptor"), capture.texts()[1]);
  EXPECT_EQ("%s:%d (%d, %u) (%s) AddCustomEvent failed, code=%d, reason=%s. Set [%s] need reindex [err: %m]",
            capture.records()[1].format);
  EXPECT_EQ(R"({"share":{"photo":1}})", Status());
}

TEST_F(CustomEvent, AddsItsFlagToThoseThatAreSet) {
  WriteFile(kStatusFile, R"({"resume_time":5,"share":{"music":1,"photo":2}})");
  WriteFile(queue_, "{torn\n");
  EXPECT_EQ("906 Malformed event_raw: {torn", Add(photo_));
  EXPECT_EQ(R"({"resume_time":5,"share":{"music":1,"photo":3}})", Status());
}

TEST_F(CustomEvent, FailsWithTheFailureOfFlaggingWhenThatFailsToo) {
  WriteFile(queue_, "{torn\n");
  WriteFile(kStatusFile, "{torn");
  const RecordCapture capture;
  EXPECT_EQ(std::string("504 Cannot load json: ") + kStatusFile, Add(photo_));
  ASSERT_LE(3U, capture.records().size());
  EXPECT_EQ(GivenUpRecord("906 Malformed event_raw: {torn"), capture.texts()[1]);
  EXPECT_EQ("{torn", Status());
}

TEST_F(CustomEvent, FailsWithTheFailureToActAsRootWhenFlaggingNeedsIt) {
  WriteFile(queue_, "{torn\n");
  FakeUsers().reset_credentials.FailAlways();
  EXPECT_EQ("503 ", Add(photo_));
  EXPECT_EQ("no file", Status());
}

TEST_F(CustomEvent, FlagsNothingWhenTheShareCannotBeFoundOrAsked) {
  const RecordCapture capture;
  const std::string elsewhere = volume_ / "elsewhere";
  EXPECT_EQ("502 NIMOShareNamePathGet failed, full_path=" + elsewhere, Add(elsewhere));
  FakeShares().get.FailAt(1);
  EXPECT_EQ("800 photo", Add(photo_));
  FakeIndexLocation().queue_path.FailAt(1);
  EXPECT_EQ("502 FILEIDXQueuePathCompose failed, share=photo", Add(photo_));
  FakeShares().is_encrypted.FailAt(1);
  EXPECT_EQ("502 NLIBShareis_encryptedGet failed, share=photo", Add(photo_));
  EXPECT_EQ(4U, capture.records().size());
  EXPECT_EQ("no file", Status());
  EXPECT_FALSE(fs::exists(queue_));
}

}  // namespace
}  // namespace orbisk::fileindex::test
