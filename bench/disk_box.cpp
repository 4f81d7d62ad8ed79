// The folder on the disk, and whoever removes it.
#include "bench/disk_box.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <thread>

#include "tests/support/private_mounts.h"

namespace orbisk::bench {
namespace {

namespace fs = std::filesystem;

int area_descriptor = -1;  // the folder, which the box's mounts hide

void Require(bool done, const char* what) {
  if (!done) {
    throw std::system_error(errno, std::generic_category(), what);
  }
}

// The daemons of a bench that was killed end a moment after it.
void RemoveWhenClosed(int descriptor, const std::string& folder) {
  for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGPIPE}) {
    std::signal(signal, SIG_IGN);
  }
  setsid();
  char byte = 0;
  while (read(descriptor, &byte, 1) < 0 && errno == EINTR) {
  }
  for (int tries = 0; tries < 100; ++tries) {
    std::error_code error;
    fs::remove_all(folder, error);
    if (!error) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

// A process of its own, so that not even SIGKILL leaves the folder: the pipe closes when the bench is gone.
void StartRemover(const std::string& folder) {
  int ends[2];
  Require(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
  fflush(stdout);
  const pid_t remover = fork();
  Require(remover >= 0, "fork");
  if (remover == 0) {
    close(ends[1]);
    RemoveWhenClosed(ends[0], folder);
    _exit(0);
  }
  close(ends[0]);
}

}  // namespace

void DiskBox::EnterNamespace() {
  const char* const parent = getenv("ORBISK_BENCH_DIR");
  std::string folder = std::string(parent != nullptr ? parent : "/var/tmp") + "/orbisk-bench-XXXXXX";
  Require(mkdtemp(folder.data()) != nullptr, "mkdtemp");
  StartRemover(folder);
  test::EnterPrivateMounts({});
  area_descriptor = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  Require(area_descriptor >= 0, "open");
  SetUpTestSuite();
}

void DiskBox::MountVolume() {
  test::MountBind("/proc/self/fd/" + std::to_string(area_descriptor), Volume());
}

}  // namespace orbisk::bench
