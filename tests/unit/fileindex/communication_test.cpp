// The command channel against a daemon of the test's own, at the fixed path in a private mount namespace. This program
// replaces the system calls that the channel makes.
#include "orbisk/fileindex/communication.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "orbisk/error.h"
#include "tests/support/fake_time.h"
#include "tests/support/private_mounts.h"
#include "tests/support/record_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/error_of.h"
#include "tests/unit/record_match.h"

namespace {

// What one read(2) or write(2) answers instead of the kernel.
struct Answer {
  ssize_t result;  // above 0: the kernel is asked, for so many bytes at most
  int error;       // what errno becomes; 0 leaves it alone
};

// The system calls of the thread that makes one, while it lives.
class CallTrace {
 public:
  CallTrace() { current = this; }
  ~CallTrace() { current = nullptr; }
  CallTrace(const CallTrace&) = delete;
  CallTrace& operator=(const CallTrace&) = delete;

  static thread_local CallTrace* current;

  std::vector<size_t> writes;  // the sizes asked for
  std::vector<size_t> reads;
  std::deque<Answer> write_answers;
  std::deque<Answer> read_answers;
  std::function<void(int fd)> before_write;
  std::function<void(size_t nth)> before_read;
  std::vector<std::string> connects;  // family, path, length
  std::vector<std::string> options;   // level, name, value
  int socket_error = 0;
  int option_error = 0;
};

thread_local CallTrace* CallTrace::current = nullptr;

// The scripted answer, if there is one: the size to ask the kernel for, or 0 with `result` set.
size_t Scripted(std::deque<Answer>& answers, size_t size, ssize_t& result) {
  if (answers.empty()) {
    return size;
  }
  const Answer answer = answers.front();
  answers.pop_front();
  if (answer.error != 0) {
    errno = answer.error;
  }
  result = answer.result;
  return answer.result > 0 ? std::min(size, static_cast<size_t>(answer.result)) : 0;
}

}  // namespace

extern "C" {

// A reply too large for memory must come back from the sanitizer's allocator as from the C library's.
__attribute__((visibility("default"))) const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

__attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}

ssize_t write(int fd, const void* buffer, size_t size) {
  if (CallTrace* const trace = CallTrace::current) {
    trace->writes.push_back(size);
    if (trace->before_write) {
      trace->before_write(fd);
    }
    ssize_t result = 0;
    size = Scripted(trace->write_answers, size, result);
    if (size == 0) {
      return result;
    }
  }
  return syscall(SYS_write, fd, buffer, size);
}

ssize_t read(int fd, void* buffer, size_t size) {
  if (CallTrace* const trace = CallTrace::current) {
    trace->reads.push_back(size);
    if (trace->before_read) {
      trace->before_read(trace->reads.size());
    }
    ssize_t result = 0;
    size = Scripted(trace->read_answers, size, result);
    if (size == 0) {
      return result;
    }
  }
  return syscall(SYS_read, fd, buffer, size);
}

int socket(int domain, int type, int protocol) noexcept {
  if (const CallTrace* const trace = CallTrace::current; trace != nullptr && trace->socket_error != 0) {
    errno = trace->socket_error;
    return -1;
  }
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

int connect(int fd, const sockaddr* address, socklen_t size) {
  if (CallTrace* const trace = CallTrace::current) {
    sockaddr_un local = {};
    memcpy(&local, address, std::min<size_t>(size, sizeof(local)));
    std::string text = std::to_string(local.sun_family) + " " + local.sun_path + " " + std::to_string(size);
    for (size_t i = strlen(local.sun_path); i < sizeof(local.sun_path); ++i) {
      text += local.sun_path[i] != 0 ? "!" : "";
    }
    trace->connects.push_back(text);
  }
  return static_cast<int>(syscall(SYS_connect, fd, address, size));
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  if (CallTrace* const trace = CallTrace::current) {
    timeval timeout = {};
    memcpy(&timeout, value, std::min<size_t>(size, sizeof(timeout)));
    trace->options.push_back(std::to_string(level) + " " + std::to_string(name) + " " + std::to_string(timeout.tv_sec) +
                             "." + std::to_string(timeout.tv_usec) + " " + std::to_string(size));
    if (trace->option_error != 0) {
      errno = trace->option_error;
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_setsockopt, fd, level, name, value, size));
}
}

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::ErrorOf;
using orbisk::test::ExpectFailure;
using orbisk::test::FakeTime;
using orbisk::test::RecordCapture;
using Sizes = std::vector<size_t>;

constexpr char kSocketPath[] = "/var/run/fileindexd.sock";
constexpr char kWriteCondition[] = "EINTR != errno || 0 == retries";
constexpr Answer kInterrupted = {-1, EINTR};

const unsigned char* Bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

// The length as it goes over the wire.
std::string Length(std::uint64_t value) {
  std::string bytes(sizeof(value), '\0');
  memcpy(bytes.data(), &value, sizeof(value));
  return bytes;
}

std::string Framed(const std::string& body) {
  return Length(body.size()) + body;
}

int OpenDescriptors() {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/fd"), closedir);
  int count = 0;
  while (readdir(folder.get()) != nullptr) {
    ++count;
  }
  return count;
}

// No test leaves a descriptor behind.
class ChannelTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(descriptors_, OpenDescriptors()); }

 private:
  const int descriptors_ = OpenDescriptors();
};

// Both ends of a pipe.
class Pipe {
 public:
  Pipe() { EXPECT_EQ(0, pipe(ends_.data())); }
  ~Pipe() {
    CloseWriter();
    close(ends_[0]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int reader() const { return ends_[0]; }
  int writer() const { return ends_[1]; }
  void CloseWriter() {
    if (ends_[1] >= 0) {
      close(ends_[1]);
      ends_[1] = -1;
    }
  }
  std::string Take(size_t size) const {
    std::string text(size, '\0');
    const ssize_t count = syscall(SYS_read, reader(), text.data(), size);
    text.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return text;
  }
  void Put(const std::string& text) const {
    EXPECT_EQ(static_cast<ssize_t>(text.size()), syscall(SYS_write, writer(), text.data(), text.size()));
  }

 private:
  std::array<int, 2> ends_{};
};

// Bytes that differ along the way, so that a slice out of place shows.
std::string Pattern(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    text[i] = static_cast<char>(i * 31 + i / 256);
  }
  return text;
}

using BufferWriteTest = ChannelTest;

TEST_F(BufferWriteTest, OfNothingDoesNotTouchTheDescriptor) {
  const CallTrace trace;
  BufferWrite(-1, 0, nullptr);
  EXPECT_EQ(Sizes(), trace.writes);
}

TEST_F(BufferWriteTest, GoesOutInSlicesOfAtMost1024Bytes) {
  for (const auto& [size, slices] : std::vector<std::pair<size_t, Sizes>>{
           {1, {1}}, {1024, {1024}}, {1025, {1024, 1}}, {2048, {1024, 1024}}, {3000, {1024, 1024, 952}}}) {
    const Pipe channel;
    const CallTrace trace;
    BufferWrite(channel.writer(), size, Bytes(Pattern(size)));
    EXPECT_EQ(slices, trace.writes);
    EXPECT_EQ(Pattern(size), channel.Take(2 * size));
  }
}

TEST_F(BufferWriteTest, GoesOnBehindAShortWrite) {
  const Pipe channel;
  CallTrace trace;
  trace.write_answers = {{100, 0}, {1, 0}};
  BufferWrite(channel.writer(), 1100, Bytes(Pattern(1100)));
  EXPECT_EQ((Sizes{1024, 1000, 999}), trace.writes);
  EXPECT_EQ(Pattern(1100), channel.Take(2000));
}

TEST_F(BufferWriteTest, GoesOverTenInterruptions) {
  const Pipe channel;
  CallTrace trace;
  trace.write_answers.assign(10, kInterrupted);
  BufferWrite(channel.writer(), 5, Bytes("hello"));
  EXPECT_EQ("hello", channel.Take(100));
  EXPECT_EQ(11U, trace.writes.size());
}

TEST_F(BufferWriteTest, FailsAtTheEleventhInterruption) {
  const Pipe channel;
  const RecordCapture records;
  CallTrace trace;
  trace.write_answers.assign(11, kInterrupted);
  EXPECT_EQ("502 write failed, reason=Interrupted system call",
            ErrorOf([&] { BufferWrite(channel.writer(), 5, Bytes("hello")); }));
  EXPECT_EQ(11U, trace.writes.size());
  ASSERT_EQ(1U, records.records().size());
  ExpectFailure(records.records()[0], "communication.cpp", "BufferWrite", kWriteCondition,
                "write failed, reason=Interrupted system call", "Interrupted system call");
}

TEST_F(BufferWriteTest, CountsInterruptionsPerCallNotPerSlice) {
  const Pipe channel;
  CallTrace trace;
  trace.write_answers.assign(6, kInterrupted);
  trace.write_answers.push_back({1024, 0});
  trace.write_answers.insert(trace.write_answers.end(), 5, kInterrupted);
  EXPECT_EQ("502 write failed, reason=Interrupted system call",
            ErrorOf([&] { BufferWrite(channel.writer(), 2000, Bytes(Pattern(2000))); }));
  EXPECT_EQ(12U, trace.writes.size());
  EXPECT_EQ(1024U, channel.Take(2000).size());
}

TEST_F(BufferWriteTest, HasItsTenInterruptionsAgainInTheNextCall) {
  const Pipe channel;
  CallTrace trace;
  for (int call = 0; call < 2; ++call) {
    trace.write_answers.assign(10, kInterrupted);
    BufferWrite(channel.writer(), 5, Bytes("hello"));
  }
  EXPECT_EQ("hellohello", channel.Take(100));
}

TEST_F(BufferWriteTest, FailsWithTheSystemsText) {
  const RecordCapture records;
  EXPECT_EQ("502 write failed, reason=Bad file descriptor", ErrorOf([] { BufferWrite(-1, 5, Bytes("hello")); }));
  ASSERT_EQ(1U, records.records().size());
  ExpectFailure(records.records()[0], "communication.cpp", "BufferWrite", kWriteCondition,
                "write failed, reason=Bad file descriptor", "Bad file descriptor");
  EXPECT_EQ(0, errno);
}

TEST_F(BufferWriteTest, FailsWhenNothingIsTaken) {
  const Pipe channel;
  CallTrace trace;
  trace.write_answers = {{0, ENOSPC}};
  EXPECT_EQ("502 write failed, reason=No space left on device",
            ErrorOf([&] { BufferWrite(channel.writer(), 5, Bytes("hello")); }));
}

class BufferReadTest : public ChannelTest {
 protected:
  static std::string Read(int fd, size_t size) {
    std::string text(size, '\0');
    BufferRead(fd, size, reinterpret_cast<unsigned char*>(text.data()));
    return text;
  }
};

TEST_F(BufferReadTest, OfNothingDoesNotTouchTheDescriptor) {
  const CallTrace trace;
  BufferRead(-1, 0, nullptr);
  EXPECT_EQ(Sizes(), trace.reads);
}

TEST_F(BufferReadTest, ComesInSlicesOfAtMost1024Bytes) {
  for (const auto& [size, slices] :
       std::vector<std::pair<size_t, Sizes>>{{1, {1}}, {1024, {1024}}, {1025, {1024, 1}}, {3000, {1024, 1024, 952}}}) {
    const Pipe channel;
    channel.Put(Pattern(size) + "of the next message");
    const CallTrace trace;
    EXPECT_EQ(Pattern(size), Read(channel.reader(), size));
    EXPECT_EQ(slices, trace.reads);
    EXPECT_EQ("of the next message", channel.Take(100));
  }
}

TEST_F(BufferReadTest, GoesOnBehindAShortRead) {
  const Pipe channel;
  channel.Put(Pattern(1100));
  CallTrace trace;
  trace.read_answers = {{100, 0}, {1, 0}};
  EXPECT_EQ(Pattern(1100), Read(channel.reader(), 1100));
  EXPECT_EQ((Sizes{1024, 1000, 999}), trace.reads);
}

TEST_F(BufferReadTest, GoesOverTenInterruptions) {
  const Pipe channel;
  channel.Put("hello");
  CallTrace trace;
  trace.read_answers.assign(10, kInterrupted);
  EXPECT_EQ("hello", Read(channel.reader(), 5));
}

TEST_F(BufferReadTest, CountsInterruptionsPerCallNotPerSlice) {
  const Pipe channel;
  channel.Put(Pattern(2000));
  const RecordCapture records;
  CallTrace trace;
  trace.read_answers.assign(6, kInterrupted);
  trace.read_answers.push_back({1024, 0});
  trace.read_answers.insert(trace.read_answers.end(), 5, kInterrupted);
  EXPECT_EQ("502 read failed, reason=Interrupted system call", ErrorOf([&] { Read(channel.reader(), 2000); }));
  EXPECT_EQ(12U, trace.reads.size());
  ASSERT_EQ(1U, records.records().size());
  ExpectFailure(records.records()[0], "communication.cpp", "BufferRead", kWriteCondition,
                "read failed, reason=Interrupted system call", "Interrupted system call");
}

TEST_F(BufferReadTest, FailsWithTheSystemsText) {
  const RecordCapture records;
  EXPECT_EQ("502 read failed, reason=Bad file descriptor", ErrorOf([] { Read(-1, 5); }));
  ASSERT_EQ(1U, records.records().size());
  ExpectFailure(records.records()[0], "communication.cpp", "BufferRead", kWriteCondition,
                "read failed, reason=Bad file descriptor", "Bad file descriptor");
}

TEST_F(BufferReadTest, ReadsOnAtTheEndOfTheStreamUntilAWriterComes) {
  constexpr size_t kEmptyReads = 1000;
  const orbisk::test::TempDir folder;
  orbisk::test::WriteFile(folder / "growing", "hel");
  const int reader = open((folder / "growing").c_str(), O_RDONLY | O_CLOEXEC);
  CallTrace trace;
  trace.before_read = [&](size_t nth) {
    if (nth == kEmptyReads) {
      const int writer = open((folder / "growing").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
      EXPECT_EQ(2, syscall(SYS_write, writer, "lo", 2));
      close(writer);
    }
  };
  EXPECT_EQ("hello", Read(reader, 5));
  EXPECT_EQ(kEmptyReads, trace.reads.size());
  close(reader);
}

TEST_F(BufferReadTest, ReadsOnWhenThePeerHasClosedUntilAnotherComes) {
  const orbisk::test::TempDir folder;
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  const int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  CallTrace trace;
  int late_writer = -1;
  trace.before_read = [&](size_t nth) {
    if (nth == 50) {  // until now nobody has it open, and each read finds its end
      late_writer = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
      EXPECT_EQ(5, syscall(SYS_write, late_writer, "hello", 5));
    }
  };
  EXPECT_EQ("hello", Read(reader, 5));
  EXPECT_EQ(50U, trace.reads.size());
  close(late_writer);
  close(reader);
}

TEST_F(BufferReadTest, SpendsNoInterruptionOnTheEndOfTheStream) {
  const Pipe channel;
  channel.Put("hello");
  CallTrace trace;
  trace.read_answers.assign(100, Answer{0, EINTR});
  trace.read_answers.insert(trace.read_answers.end(), 10, kInterrupted);
  EXPECT_EQ("hello", Read(channel.reader(), 5));
}

// Answers one command at the daemon's socket.
class Daemon {
 public:
  explicit Daemon(std::string reply) : reply_(std::move(reply)) {
    unlink(kSocketPath);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, kSocketPath, sizeof(kSocketPath));
    listener_ = static_cast<int>(syscall(SYS_socket, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(0, bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    EXPECT_EQ(0, listen(listener_, 1));
    thread_ = std::thread([this] { Serve(); });
  }
  ~Daemon() {
    Wait();
    close(listener_);
    unlink(kSocketPath);
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Returns when it has answered and closed.
  void Wait() {
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  // Everything that came: length and body.
  std::string Request() {
    Wait();
    return request_;
  }

  static constexpr char kHangUp[] = "hang up at once";

 private:
  void Serve() {
    const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (reply_ != kHangUp) {
      std::uint64_t size = 0;
      recv(peer, &size, sizeof(size), MSG_WAITALL);
      std::string body(size, '\0');
      recv(peer, body.data(), body.size(), MSG_WAITALL);
      request_ = Length(size) + body;
      send(peer, reply_.data(), reply_.size(), MSG_NOSIGNAL);
    }
    close(peer);
  }

  const std::string reply_;
  int listener_ = -1;
  std::string request_;
  std::thread thread_;
};

class CommandTest : public ChannelTest {
 protected:
  static void SetUpTestSuite() {
    if (!entered_) {
      orbisk::test::EnterPrivateMounts({"/var/run"});
      entered_ = true;
    }
  }
  void SetUp() override { unlink(kSocketPath); }

  static std::string Send() {
    return ErrorOf([] { SendCommandToDaemon("notify", Json::Value("x")); });
  }

  static constexpr char kNotConnected[] = "502 write failed, reason=Transport endpoint is not connected";
  static bool entered_;
};

bool CommandTest::entered_ = false;

TEST_F(CommandTest, IsALengthAndTheTextWithItsNulByte) {
  Daemon daemon(Framed("ok"));
  Json::Value data;
  data["path"] = "/volume1/photo";
  data["flags"] = 3;
  SendCommandToDaemon("notify_setting_changed", data);
  const std::string text = R"({"data":{"flags":3,"path":"/volume1/photo"},"type":"notify_setting_changed"})";
  EXPECT_EQ(Framed(text + std::string(1, '\0')), daemon.Request());
}

TEST_F(CommandTest, KeepsTheKeyOfNoData) {
  Daemon daemon(Framed(""));
  SendCommandToDaemon("resume", Json::Value());
  EXPECT_EQ(Framed(std::string(R"({"data":null,"type":"resume"})") + '\0'), daemon.Request());
}

TEST_F(CommandTest, GoesToTheFixedPathWithTheFullAddress) {
  const Daemon daemon(Framed("ok"));
  const CallTrace trace;
  EXPECT_EQ("none", Send());
  EXPECT_EQ((std::vector<std::string>{"1 /var/run/fileindexd.sock " + std::to_string(sizeof(sockaddr_un))}),
            trace.connects);
}

TEST_F(CommandTest, WritesTheLengthAndThenTheBodyInSlices) {
  Daemon daemon(Framed("ok"));
  const CallTrace trace;
  const std::string frame = R"({"data":"","type":"t"})";
  SendCommandToDaemon("t", Json::Value(std::string(2999 - frame.size(), 'd')));
  EXPECT_EQ((Sizes{8, 1024, 1024, 952}), trace.writes);
  EXPECT_EQ(3008U, daemon.Request().size());
}

TEST_F(CommandTest, ReadsTheReplyToItsEndWhateverItSays) {
  const Daemon daemon(Framed("{ no JSON" + Pattern(2991)));
  const CallTrace trace;
  EXPECT_EQ("none", Send());
  EXPECT_EQ((Sizes{8, 1024, 1024, 952}), trace.reads);
}

TEST_F(CommandTest, TakesAnEmptyReply) {
  const Daemon daemon(Framed(""));
  const CallTrace trace;
  EXPECT_EQ("none", Send());
  EXPECT_EQ(Sizes{8}, trace.reads);
}

TEST_F(CommandTest, LimitsSendingToOneSecondAndReceivingNot) {
  const Daemon daemon(Framed("ok"));
  const CallTrace trace;
  EXPECT_EQ("none", Send());
  EXPECT_EQ((std::vector<std::string>{std::to_string(SOL_SOCKET) + " " + std::to_string(SO_SNDTIMEO) + " 1.0 " +
                                      std::to_string(sizeof(timeval))}),
            trace.options);
}

TEST_F(CommandTest, KeepsItsSocketFromProgramsStartedMeanwhile) {
  const Daemon daemon(Framed("ok"));
  CallTrace trace;
  int flags = 0;
  trace.before_write = [&](int fd) { flags = fcntl(fd, F_GETFD); };
  EXPECT_EQ("none", Send());
  EXPECT_EQ(FD_CLOEXEC, flags);
}

TEST_F(CommandTest, IgnoresSigpipeAtEachCall) {
  const FakeTime time;
  for (int call = 0; call < 2; ++call) {
    signal(SIGPIPE, SIG_DFL);
    EXPECT_EQ(kNotConnected, Send());
    EXPECT_EQ(SIG_IGN, signal(SIGPIPE, SIG_DFL));
  }
}

TEST_F(CommandTest, SurvivesADaemonThatHangsUp) {
  Daemon daemon(Daemon::kHangUp);
  signal(SIGPIPE, SIG_DFL);
  CallTrace trace;
  trace.before_write = [&](int) { daemon.Wait(); };
  EXPECT_EQ("502 write failed, reason=Broken pipe", Send());
}

TEST_F(CommandTest, WaitsFourTimesASecondForADaemonThatNeverComes) {
  const FakeTime time;
  const RecordCapture records;
  const CallTrace trace;
  EXPECT_EQ(kNotConnected, Send());
  EXPECT_EQ(5U, trace.connects.size());
  ASSERT_EQ(4U, time.waits().size());
  for (const auto& wait : time.waits()) {
    EXPECT_EQ("sleep", wait.function);
    EXPECT_EQ(1000000U, wait.microseconds);
  }
  EXPECT_EQ(Sizes{8}, trace.writes) << "the failure shows at the length";
  ASSERT_EQ(1U, records.records().size());
  ExpectFailure(records.records()[0], "communication.cpp", "BufferWrite", kWriteCondition,
                "write failed, reason=Transport endpoint is not connected", "Transport endpoint is not connected");
}

TEST_F(CommandTest, ReachesADaemonThatComesWhileItWaits) {
  for (const size_t pause : {1U, 2U, 4U}) {
    FakeTime time;
    std::unique_ptr<Daemon> daemon;
    time.OnWait([&](size_t nth) {
      if (nth == pause) {
        daemon = std::make_unique<Daemon>(Framed("ok"));
      }
    });
    EXPECT_EQ("none", Send());
    EXPECT_EQ(pause, time.waits().size());
  }
}

TEST_F(CommandTest, DoesNotWaitWhereNobodyListens) {
  orbisk::test::WriteFile(kSocketPath, "no socket");
  const FakeTime time;
  const CallTrace trace;
  EXPECT_EQ(kNotConnected, Send());
  EXPECT_EQ(1U, trace.connects.size());
  EXPECT_EQ(0U, time.waits().size());
}

TEST_F(CommandTest, WaitsNoLongerWhenTheFailureToConnectBecomesAnother) {
  FakeTime time;
  time.OnWait([](size_t) { orbisk::test::WriteFile(kSocketPath, "no socket"); });
  const CallTrace trace;
  EXPECT_EQ(kNotConnected, Send());
  EXPECT_EQ(2U, trace.connects.size());
  EXPECT_EQ(1U, time.waits().size());
}

TEST_F(CommandTest, FailsWithoutASocket) {
  const RecordCapture records;
  CallTrace trace;
  trace.socket_error = EMFILE;
  EXPECT_EQ("502 socket failed, reason=Too many open files", Send());
  ASSERT_EQ(1U, records.records().size());
  ExpectFailure(records.records()[0], "communication.cpp", "SendCommandToDaemon",
                "0 > (fd_socket = socket(PF_UNIX, SOCK_STREAM, 0))", "socket failed, reason=Too many open files",
                "Too many open files");
}

TEST_F(CommandTest, FailsWithoutASendTimeout) {
  orbisk::test::WriteFile(kSocketPath, "no socket");
  const RecordCapture records;
  CallTrace trace;
  trace.option_error = ENOBUFS;
  EXPECT_EQ("502 setsockopt failed, reason=No buffer space available", Send());
  EXPECT_EQ(Sizes(), trace.writes);
  ASSERT_EQ(1U, records.records().size());
  ExpectFailure(records.records()[0], "communication.cpp", "SendCommandToDaemon",
                "0 > setsockopt(fd_socket, SOL_SOCKET, SO_SNDTIMEO, (char *)&timeout, sizeof(timeout))",
                "setsockopt failed, reason=No buffer space available", "No buffer space available");
}

TEST_F(CommandTest, ClosesItsSocketWhenTheReplyCannotBeRead) {
  const Daemon daemon(Framed(Pattern(3000)));
  CallTrace trace;
  trace.read_answers = {{8, 0}, {1024, 0}, {-1, ECONNRESET}};
  EXPECT_EQ("502 read failed, reason=Connection reset by peer", Send());
}

TEST_F(CommandTest, ReadsOnWhenTheDaemonClosesBeforeItsReplyIsWhole) {
  Daemon daemon(Length(5) + "he");
  constexpr size_t kReads = 200;
  CallTrace trace;
  // Nothing ever comes after the end, so an error ends the wait.
  trace.before_read = [&](size_t nth) {
    if (nth == kReads) {
      trace.read_answers = {{-1, ETIMEDOUT}};
    }
  };
  EXPECT_EQ("502 read failed, reason=Connection timed out", Send());
  EXPECT_EQ(kReads, trace.reads.size());
}

TEST_F(CommandTest, FailsAtAReplyThatMemoryCannotHold) {
  for (const std::uint64_t size : {std::uint64_t{1} << 62U, ~std::uint64_t{0}}) {
    const Daemon daemon(Length(size));
    const RecordCapture records;
    EXPECT_EQ("502 read failed, reason=Cannot allocate memory", Send());
    ASSERT_EQ(1U, records.records().size());
    ExpectFailure(records.records()[0], "communication.cpp", "DropReply", "!reply",
                  "read failed, reason=Cannot allocate memory", "Cannot allocate memory");
  }
}

TEST_F(CommandTest, HasAConnectionOfItsOwn) {
  for (int call = 0; call < 3; ++call) {
    const Daemon daemon(Framed("ok"));
    EXPECT_EQ("none", Send());
  }
}

}  // namespace
}  // namespace orbisk::fileindex::test
