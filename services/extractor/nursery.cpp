// Forks workers and reports their ends.
#include "services/extractor/nursery.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <limits>
#include <string>
#include <system_error>

#include "services/base/unique_fd.h"
#include "services/extractor/frame.h"
#include "services/extractor/sandbox.h"
#include "services/extractor/worker_main.h"

namespace extractor {

using service::UniqueFd;

namespace {

constexpr int kChannel = 3;  // of a worker; it has no use for the nursery's sockets

void Refuse(const std::string& reason) {
  SendBytes(kNurseryControl, kNurseryRefusal + reason);
}

// A worker is what the kernel should end first when memory is short.
void VolunteerForKilling() {
  const UniqueFd file(open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
  if (file.valid()) {
    [[maybe_unused]] const ssize_t ignored = write(file.get(), "500", 3);
  }
}

[[noreturn]] void BecomeWorker(ContentReader& reader, UniqueFd channel, size_t memory_bytes, pid_t parent) {
  prctl(PR_SET_NAME, "nimoce-worker");
  if (dup2(channel.get(), kChannel) < 0) {
    _exit(kWorkerNoSandbox);
  }
  static_cast<void>(channel.Release());
  close_range(kChannel + 1, std::numeric_limits<unsigned>::max(), 0);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  RunWorker(reader, kChannel, memory_bytes, parent);
}

class Nursery {
 public:
  Nursery(ContentReader& reader, size_t memory_bytes) : reader_(reader), memory_bytes_(memory_bytes) {
    sigset_t children;
    sigemptyset(&children);
    sigaddset(&children, SIGCHLD);
    sigprocmask(SIG_BLOCK, &children, nullptr);
    ended_ = UniqueFd(signalfd(-1, &children, SFD_CLOEXEC | SFD_NONBLOCK));
  }

  // Before the first file is lost to it: can a worker close its cage here at all?
  void TryWorker() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    UniqueFd ours(ends[0]);
    const pid_t pid = Fork(UniqueFd(ends[1]));
    ours.Close();
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != kWorkerDone) {
      throw std::runtime_error("the kernel refuses the sandbox of the workers");
    }
  }

  void Run() {
    pollfd wanted[] = {{kNurseryControl, POLLIN, 0}, {ended_.get(), POLLIN, 0}};
    for (;;) {
      if (poll(wanted, 2, -1) < 0 && errno != EINTR) {
        return;
      }
      if (wanted[1].revents != 0) {
        Reap();
      }
      if (wanted[0].revents != 0 && !TakeOrder()) {
        return;
      }
    }
  }

 private:
  // False when the daemon is gone.
  bool TakeOrder() {
    char byte = 0;
    UniqueFd channel;
    if (ReceiveSome(kNurseryControl, &byte, 1, channel) <= 0) {
      return false;
    }
    try {
      NurseryBirth birth;
      birth.pid = Fork(std::move(channel));
      // The child is not reaped before this function is done, so the number is still its own.
      const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, birth.pid, 0)));
      if (!process.valid()) {
        const int error = errno;
        kill(birth.pid, SIGKILL);
        throw std::system_error(error, std::generic_category(), "pidfd_open");
      }
      return SendBytes(kNurseryControl, {reinterpret_cast<const char*>(&birth), sizeof(birth)}, process.get());
    } catch (const std::exception& error) {
      Refuse(error.what());
      return true;
    }
  }

  pid_t Fork(UniqueFd channel) {
    const pid_t self = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
      BecomeWorker(reader_, std::move(channel), memory_bytes_, self);
    }
    if (pid < 0) {
      throw std::system_error(errno, std::generic_category(), "fork");
    }
    return pid;
  }

  void Reap() {
    signalfd_siginfo ignored;
    while (read(ended_.get(), &ignored, sizeof(ignored)) > 0) {
    }
    WorkerEnd end;
    while ((end.pid = waitpid(-1, &end.status, WNOHANG)) > 0) {
      SendBytes(kNurseryEnds, {reinterpret_cast<const char*>(&end), sizeof(end)});
    }
  }

  ContentReader& reader_;
  size_t memory_bytes_;
  UniqueFd ended_;
};

}  // namespace

int RunNursery(ContentReader& reader, size_t memory_bytes) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  prctl(PR_SET_NAME, "nimoce-nursery");
  signal(SIGPIPE, SIG_IGN);
  try {
    VolunteerForKilling();
    reader.Prepare();
    EnterEmptyRoot();
    Nursery nursery(reader, memory_bytes);
    nursery.TryWorker();
    SendBytes(kNurseryControl, {&kNurseryReady, 1});
    nursery.Run();
  } catch (const std::exception& error) {
    Refuse(error.what());
    return 1;
  }
  return 0;
}

}  // namespace extractor
