// Starts and asks the nursery.
#include "services/extractor/nursery_link.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <utility>

#include "services/extractor/frame.h"

namespace extractor {

using service::UniqueFd;

namespace {

// For a nursery that hangs while it loads the readers' data, or over a fork.
constexpr timeval kPatience{60, 0};
constexpr int kAboveNurserys = 10;

[[noreturn]] void Fail(int error, const char* what) {
  throw std::system_error(error, std::generic_category(), what);
}

struct SocketPair {
  UniqueFd ours;
  UniqueFd theirs;
};

SocketPair MakePair(int type) {
  int ends[2];
  if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends) != 0) {
    Fail(errno, "socketpair");
  }
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// Out of the way of the numbers that the nursery has them at.
UniqueFd Lift(const UniqueFd& fd) {
  UniqueFd lifted(fcntl(fd.get(), F_DUPFD_CLOEXEC, kAboveNurserys));
  if (!lifted.valid()) {
    Fail(errno, "fcntl");
  }
  return lifted;
}

class FileActions {
 public:
  FileActions() { posix_spawn_file_actions_init(&actions_); }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;

  void OpenNull(int fd) { posix_spawn_file_actions_addopen(&actions_, fd, "/dev/null", O_RDWR, 0); }
  void Move(const UniqueFd& from, int to) { posix_spawn_file_actions_adddup2(&actions_, from.get(), to); }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

// One message of the control socket.
struct Message {
  std::string bytes;
  UniqueFd passed;
};

Message Receive(int control) {
  Message message;
  std::array<char, 512> buffer;
  const ssize_t got = ReceiveSome(control, buffer.data(), buffer.size(), message.passed);
  if (got <= 0) {
    throw std::runtime_error("the nursery of the workers is gone");
  }
  message.bytes.assign(buffer.data(), static_cast<size_t>(got));
  if (message.bytes.front() == kNurseryRefusal) {
    throw NurseryRefusal(message.bytes.substr(1));
  }
  return message;
}

}  // namespace

NurseryLink::NurseryLink(boost::asio::io_context& context, size_t memory_bytes, OnEnd on_end, OnGone on_gone)
    : memory_bytes_(memory_bytes), on_end_(std::move(on_end)), on_gone_(std::move(on_gone)), ends_(context) {}

NurseryLink::~NurseryLink() {
  Stop();
}

void NurseryLink::Start() {
  if (pid_ > 0) {
    return;
  }
  SocketPair control = MakePair(SOCK_SEQPACKET);
  SocketPair ends = MakePair(SOCK_SEQPACKET);
  control_ = std::move(control.ours);
  setsockopt(control_.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
  try {
    Launch(Lift(control.theirs), Lift(ends.theirs));
    // Else its death would not be seen here.
    control.theirs.Close();
    ends.theirs.Close();
    AwaitReady();
  } catch (...) {
    Stop();
    throw;
  }
  ends_.assign(ends.ours.Release());
  Listen();
}

void NurseryLink::Launch(UniqueFd control, UniqueFd ends) {
  FileActions actions;
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    actions.OpenNull(fd);
  }
  actions.Move(control, kNurseryControl);
  actions.Move(ends, kNurseryEnds);
  std::string name = "nimocontentextractd";
  std::string word = kNurseryWord;
  std::string memory = std::to_string(memory_bytes_);
  char* arguments[] = {name.data(), word.data(), memory.data(), nullptr};
  // The program file as it was when the daemon started, even if it has been replaced meanwhile. Run anew, because a
  // copy of the daemon's memory would hold texts of other files.
  const int error = posix_spawn(&pid_, "/proc/self/exe", actions.get(), nullptr, arguments, environ);
  if (error != 0) {
    pid_ = -1;
    Fail(error, "the nursery of the workers cannot be started");
  }
}

void NurseryLink::AwaitReady() {
  if (Receive(control_.get()).bytes.front() != kNurseryReady) {
    throw std::runtime_error("the nursery of the workers does not understand");
  }
}

NewWorker NurseryLink::Spawn() {
  Start();
  SocketPair channel = MakePair(SOCK_STREAM);
  if (!SendBytes(control_.get(), {"w", 1}, channel.theirs.get())) {
    Fail(errno, "the nursery of the workers cannot be asked");
  }
  Message message = Receive(control_.get());
  NurseryBirth birth;
  if (message.bytes.size() != sizeof(birth) || !message.passed.valid()) {
    throw std::runtime_error("the nursery of the workers does not understand");
  }
  memcpy(&birth, message.bytes.data(), sizeof(birth));
  return {birth.pid, std::move(message.passed), std::move(channel.ours)};
}

void NurseryLink::Stop() {
  boost::system::error_code ignored;
  ends_.close(ignored);
  control_.Close();
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
  }
}

void NurseryLink::Listen() {
  ends_.async_read_some(boost::asio::buffer(&end_, sizeof(end_)),
                        [this](const boost::system::error_code& error, size_t got) {
                          if (error == boost::asio::error::operation_aborted) {
                            return;
                          }
                          if (error || got != sizeof(end_)) {
                            Stop();
                            on_gone_();
                            return;
                          }
                          on_end_(end_);
                          Listen();
                        });
}

}  // namespace extractor
