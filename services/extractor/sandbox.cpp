// Builds the cage from resource limits, Landlock and a filter of system calls.
#include "services/extractor/sandbox.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/landlock.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <system_error>

#include "services/base/unique_fd.h"

namespace extractor {

using service::UniqueFd;

namespace {

constexpr uid_t kNobody = 65534;
constexpr rlim_t kMostDescriptors = 16;
// Mapped files and libraries are no data, but have a bound as well.
constexpr rlim_t kAddressesBeyondMemory = rlim_t{4} << 30;

// Set by the build when a sanitizer is in the program.
constexpr bool kShadowMemory = EXTRACTOR_SHADOW_MEMORY != 0;

[[noreturn]] void Fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

void Limit(__rlimit_resource resource, rlim_t value) {
  const rlimit limit{value, value};
  if (setrlimit(resource, &limit) != 0) {
    Fail(errno, "setrlimit");
  }
}

void LimitResources(size_t memory_bytes) {
  Limit(RLIMIT_CORE, 0);
  Limit(RLIMIT_FSIZE, 0);
  Limit(RLIMIT_NOFILE, kMostDescriptors);
  // A sanitizer's shadow is terabytes of address space.
  if (!kShadowMemory) {
    Limit(RLIMIT_DATA, memory_bytes);
    Limit(RLIMIT_AS, memory_bytes + kAddressesBeyondMemory);
  }
}

// Not fatal: in a user namespace there may be no nobody, and the filter does not care who the process is.
void BecomeNobody() {
  if (geteuid() == 0 && setgroups(0, nullptr) == 0 && setresgid(kNobody, kNobody, kNobody) == 0) {
    [[maybe_unused]] const int ignored = setresuid(kNobody, kNobody, kNobody);
  }
}

// Rights that the kernel has come to know one after another; headers may be older than the kernel.
uint64_t FileRights(long abi) {
  uint64_t rights = (uint64_t{1} << 13) - 1;   // all of the first version
  rights |= abi >= 2 ? uint64_t{1} << 13 : 0;  // moving between folders
  rights |= abi >= 3 ? uint64_t{1} << 14 : 0;  // cutting
  rights |= abi >= 5 ? uint64_t{1} << 15 : 0;  // device controls
  return rights;
}

struct LandlockRules {
  uint64_t files;
  uint64_t network;
  uint64_t scopes;
};

// Denies all and allows nothing. The call's size argument tells the kernel how much of the structure is meant.
void CloseWithLandlock() {
  const long abi = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  if (abi < 1) {
    return;
  }
  LandlockRules rules{FileRights(abi), 0, 0};
  size_t size = sizeof(rules.files);
  if (abi >= 4) {
    rules.network = 3;  // binding and connecting
    size += sizeof(rules.network);
  }
  if (abi >= 6) {
    rules.scopes = 3;  // abstract sockets, signals
    size += sizeof(rules.scopes);
  }
  const UniqueFd set(static_cast<int>(syscall(SYS_landlock_create_ruleset, &rules, size, 0)));
  if (!set.valid() || syscall(SYS_landlock_restrict_self, set.get(), 0) != 0) {
    Fail(errno, "landlock");
  }
}

struct FreeFilter {
  void operator()(void* filter) const { seccomp_release(filter); }
};
using Filter = std::unique_ptr<void, FreeFilter>;

void Add(const Filter& filter, uint32_t action, int call, std::initializer_list<scmp_arg_cmp> conditions = {}) {
  const int result =
      seccomp_rule_add_array(filter.get(), action, call, static_cast<unsigned>(conditions.size()), conditions.begin());
  if (result != 0) {
    Fail(-result, "seccomp rule");
  }
}

scmp_arg_cmp Equals(unsigned argument, uint64_t value) {
  return {argument, SCMP_CMP_EQ, value, 0};
}

scmp_arg_cmp HasBits(unsigned argument, uint64_t mask, uint64_t bits) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, bits};
}

void AllowReading(const Filter& filter) {
  for (const int call :
       {SCMP_SYS(read), SCMP_SYS(pread64), SCMP_SYS(readv), SCMP_SYS(preadv), SCMP_SYS(lseek), SCMP_SYS(fstat),
        SCMP_SYS(fstatfs), SCMP_SYS(fadvise64), SCMP_SYS(close), SCMP_SYS(close_range), SCMP_SYS(dup)}) {
    Add(filter, SCMP_ACT_ALLOW, call);
  }
  // The C library's fstat. With a path it would look at other files, but the path is behind a pointer that a filter
  // cannot follow; the empty root folder is what keeps those away.
  Add(filter, SCMP_ACT_ALLOW, SCMP_SYS(newfstatat), {HasBits(3, AT_EMPTY_PATH, AT_EMPTY_PATH)});
  for (const int command : {F_GETFD, F_SETFD, F_GETFL, F_DUPFD, F_DUPFD_CLOEXEC}) {
    Add(filter, SCMP_ACT_ALLOW, SCMP_SYS(fcntl), {Equals(1, static_cast<uint64_t>(command))});
  }
}

void AllowMemory(const Filter& filter) {
  for (const int call : {SCMP_SYS(brk), SCMP_SYS(munmap), SCMP_SYS(mremap), SCMP_SYS(madvise)}) {
    Add(filter, SCMP_ACT_ALLOW, call);
  }
  // Private memory counts as data, and shared memory of a file is that file; shared memory of none would escape the
  // bound. Nothing is ever made executable.
  for (const int kind : {MAP_PRIVATE, MAP_PRIVATE | MAP_ANONYMOUS, MAP_SHARED}) {
    Add(filter, SCMP_ACT_ALLOW, SCMP_SYS(mmap),
        {HasBits(2, PROT_EXEC, 0), HasBits(3, MAP_PRIVATE | MAP_SHARED | MAP_ANONYMOUS, static_cast<uint64_t>(kind))});
  }
  Add(filter, SCMP_ACT_ALLOW, SCMP_SYS(mprotect), {HasBits(2, PROT_EXEC, 0)});
}

void AllowTalking(const Filter& filter, int channel) {
  const auto fd = static_cast<uint64_t>(channel);
  Add(filter, SCMP_ACT_ALLOW, SCMP_SYS(recvmsg), {Equals(0, fd)});
  Add(filter, SCMP_ACT_ALLOW, SCMP_SYS(sendmsg), {Equals(0, fd)});
  // What libraries print goes to the null device.
  for (const int output : {STDOUT_FILENO, STDERR_FILENO}) {
    Add(filter, SCMP_ACT_ALLOW, SCMP_SYS(write), {Equals(0, static_cast<uint64_t>(output))});
    Add(filter, SCMP_ACT_ALLOW, SCMP_SYS(writev), {Equals(0, static_cast<uint64_t>(output))});
  }
}

void AllowRunning(const Filter& filter) {
  for (const int call : {SCMP_SYS(futex),
                         SCMP_SYS(clock_gettime),
                         SCMP_SYS(clock_getres),
                         SCMP_SYS(gettimeofday),
                         SCMP_SYS(time),
                         SCMP_SYS(getpid),
                         SCMP_SYS(gettid),
                         SCMP_SYS(getuid),
                         SCMP_SYS(geteuid),
                         SCMP_SYS(getgid),
                         SCMP_SYS(getegid),
                         SCMP_SYS(getrandom),
                         SCMP_SYS(rt_sigaction),
                         SCMP_SYS(rt_sigprocmask),
                         SCMP_SYS(rt_sigreturn),
                         SCMP_SYS(sigaltstack),
                         SCMP_SYS(sched_yield),
                         SCMP_SYS(sched_getaffinity),
                         SCMP_SYS(sysinfo),
                         SCMP_SYS(uname),
                         SCMP_SYS(getrusage),
                         SCMP_SYS(nanosleep),
                         SCMP_SYS(clock_nanosleep),
                         SCMP_SYS(restart_syscall),
                         SCMP_SYS(set_robust_list),
                         SCMP_SYS(rseq),
                         SCMP_SYS(exit),
                         SCMP_SYS(exit_group)}) {
    Add(filter, SCMP_ACT_ALLOW, call);
  }
  // abort(3) signals its own thread.
  Add(filter, SCMP_ACT_ALLOW, SCMP_SYS(tgkill), {Equals(0, static_cast<uint64_t>(getpid()))});
}

// No reader has a use for these, so whoever calls them is no reader any more.
void EndWithSigsys(const Filter& filter) {
  for (const int call : {SCMP_SYS(execve),
                         SCMP_SYS(execveat),
                         SCMP_SYS(socket),
                         SCMP_SYS(socketpair),
                         SCMP_SYS(connect),
                         SCMP_SYS(bind),
                         SCMP_SYS(listen),
                         SCMP_SYS(accept),
                         SCMP_SYS(accept4),
                         SCMP_SYS(ptrace),
                         SCMP_SYS(process_vm_readv),
                         SCMP_SYS(process_vm_writev),
                         SCMP_SYS(pidfd_getfd),
                         SCMP_SYS(pidfd_open),
                         SCMP_SYS(unshare),
                         SCMP_SYS(setns),
                         SCMP_SYS(mount),
                         SCMP_SYS(chroot),
                         SCMP_SYS(pivot_root),
                         SCMP_SYS(bpf),
                         SCMP_SYS(keyctl),
                         SCMP_SYS(add_key),
                         SCMP_SYS(init_module),
                         SCMP_SYS(finit_module),
                         SCMP_SYS(kexec_load),
                         SCMP_SYS(perf_event_open),
                         SCMP_SYS(userfaultfd),
                         SCMP_SYS(io_uring_setup),
                         SCMP_SYS(memfd_create),
                         SCMP_SYS(kill),
                         SCMP_SYS(setuid),
                         SCMP_SYS(setresuid)}) {
    Add(filter, SCMP_ACT_KILL_PROCESS, call);
  }
}

void CloseWithFilter(int channel) {
  const Filter filter(seccomp_init(SCMP_ACT_ERRNO(EPERM)));
  if (filter == nullptr) {
    Fail(ENOMEM, "seccomp");
  }
  // A program for another architecture of the same machine would have other numbers for its calls.
  seccomp_attr_set(filter.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS);
  AllowReading(filter);
  AllowMemory(filter);
  AllowTalking(filter, channel);
  AllowRunning(filter);
  EndWithSigsys(filter);
  // The C library then tries clone(2), which fails as one expects of a thread that cannot be started.
  Add(filter, SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3));
  const int result = seccomp_load(filter.get());
  if (result != 0) {
    Fail(-result, "seccomp");
  }
}

}  // namespace

void EnterEmptyRoot() {
  for (const char* folder : {"/tmp/nimoce.XXXXXX", "/run/nimoce.XXXXXX"}) {
    std::string path = folder;
    if (mkdtemp(path.data()) == nullptr) {
      continue;
    }
    // A removed folder can be a root all the same, and nothing can be made in it any more.
    const bool inside = chdir(path.c_str()) == 0;
    rmdir(path.c_str());
    if (inside && chroot(".") == 0) {
      return;
    }
    if (chdir("/") != 0) {
      Fail(errno, "chdir");
    }
  }
}

void CloseSandbox(int channel, size_t memory_bytes, pid_t parent) {
  BecomeNobody();
  // The kernel forgets this when the user changes, so it comes after.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || prctl(PR_SET_DUMPABLE, 0) != 0 ||
      prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    Fail(errno, "prctl");
  }
  // It may have died before the kernel knew that this process wants to follow.
  if (getppid() != parent) {
    Fail(ESRCH, "the parent is gone");
  }
  LimitResources(memory_bytes);
  CloseWithLandlock();
  CloseWithFilter(channel);
}

}  // namespace extractor
