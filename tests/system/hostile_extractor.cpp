// The extractor daemon with a reader that does what the file tells it to: what a file could do that takes its reader
// over.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "services/extractor/daemon.h"

namespace {

using Argument = const std::string&;

constexpr int kChannel = 3;
constexpr size_t kMiB = size_t{1} << 20;

// What a call that must not succeed says; a sandbox with a hole is seen by the word "escaped".
void Report(Json::Value& document, bool escaped) {
  const int error = errno;
  document["NIMOMDTitle"] = escaped ? "escaped" : strerror(error);
}

[[noreturn]] void Stall() {
  for (;;) {
    sleep(1000);
  }
}

[[noreturn]] void Spin() {
  for (volatile unsigned long turns = 0;;) {
    turns = turns + 1;
  }
}

[[noreturn]] void Allocate() {
  std::vector<std::string> all;
  for (;;) {
    all.emplace_back(kMiB, 'x');
  }
}

// As libraries in C do it: no memory is no reason to go on.
[[noreturn]] void AllocateOrAbort() {
  for (;;) {
    void* memory = malloc(kMiB);
    if (memory == nullptr) {
      abort();
    }
    memset(memory, 1, kMiB);
  }
}

void ShareMemory(Json::Value& document) {
  void* memory = mmap(nullptr, kMiB, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Report(document, memory != MAP_FAILED);
}

void RunCode(Json::Value& document) {
  void* memory = mmap(nullptr, kMiB, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  Report(document, memory != MAP_FAILED);
}

void StartThread(Json::Value& document) {
  try {
    std::thread([] {}).join();
    document["NIMOMDTitle"] = "escaped";
  } catch (const std::system_error& error) {
    document["NIMOMDTitle"] = strerror(error.code().value());
  }
}

void ListDescriptors(Json::Value& document) {
  std::string open;
  for (int fd = 0; fd < 64; ++fd) {
    if (fcntl(fd, F_GETFD) >= 0) {
      open += std::to_string(fd) + " ";
    }
  }
  document["NIMOMDTitle"] = open;
}

// Waits until the file says more than it did, which it may do already.
void Hold(int fd, Argument more) {
  char byte = 0;
  while (more.empty() && read(fd, &byte, 1) == 0) {
    usleep(5'000);
  }
}

void Lie(Json::Value& document) {
  document["NIMOMDPath"] = "/etc/shadow";
  document["NIMOMDOwnerUserID"] = "0";
  document["NIMOMDIsDir"] = true;
  document["Invented"] = "x";
  document["NIMOMDAuthors"]["nested"] = "x";
  document["NIMOMDTitle"] = "kept";
}

void Say(const std::string& bytes) {
  iovec part{const_cast<char*>(bytes.data()), bytes.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  sendmsg(kChannel, &message, 0);
}

using Deed = std::function<void(int fd, Argument argument, Json::Value& document)>;

const std::map<std::string, Deed>& EndingDeeds() {
  static const std::map<std::string, Deed> kDeeds = {
      {"crash", [](int, Argument, Json::Value&) { raise(SIGSEGV); }},
      {"abort", [](int, Argument, Json::Value&) { abort(); }},
      {"exit", [](int, Argument, Json::Value&) { _exit(0); }},
      {"stall", [](int, Argument, Json::Value&) { Stall(); }},
      {"spin", [](int, Argument, Json::Value&) { Spin(); }},
      {"allocate", [](int, Argument, Json::Value&) { Allocate(); }},
      {"allocate_or_abort", [](int, Argument, Json::Value&) { AllocateOrAbort(); }},
      {"broken", [](int, Argument, Json::Value&) { throw std::runtime_error("this content is broken"); }},
      {"endless_reply", [](int, Argument, Json::Value&) { Say(std::string(8, '\x7f')), Stall(); }},
      {"garbled_reply", [](int, Argument, Json::Value&) { Say(std::string("\3\0\0\0\0\0\0\0xyz", 11)), Stall(); }},
      {"half_reply", [](int, Argument, Json::Value&) { Say(std::string("\3\0\0\0\0\0\0\0x", 9)), Stall(); }},
      {"reply_twice",
       [](int, Argument, Json::Value& d) {
         const std::string first = R"({"cut":false,"fields":{"NIMOMDTitle":"first"}})";
         Say(std::string(1, static_cast<char>(first.size())) + std::string(7, '\0') + first);
         d["NIMOMDTitle"] = "second";
       }},
      {"hang_up", [](int, Argument, Json::Value&) { close(kChannel), Stall(); }},
      {"socket", [](int, Argument, Json::Value& d) { Report(d, socket(AF_INET, SOCK_STREAM, 0) >= 0); }},
      {"unix_socket", [](int, Argument, Json::Value& d) { Report(d, socket(AF_UNIX, SOCK_STREAM, 0) >= 0); }},
      {"exec", [](int, Argument, Json::Value& d) { Report(d, execl("/bin/true", "true", nullptr) == 0); }},
      {"memfd", [](int, Argument, Json::Value& d) { Report(d, memfd_create("x", 0) >= 0); }},
      {"ptrace", [](int, Argument, Json::Value& d) { Report(d, ptrace(PTRACE_ATTACH, 1, nullptr, nullptr) == 0); }},
      {"kill_parent", [](int, Argument, Json::Value& d) { Report(d, kill(1, 0) == 0 || errno == EPERM); }},
  };
  return kDeeds;
}

const std::map<std::string, Deed>& RefusedDeeds() {
  static const std::map<std::string, Deed> kDeeds = {
      {"open", [](int, Argument path, Json::Value& d) { Report(d, open(path.c_str(), O_RDONLY) >= 0); }},
      {"write",
       [](int, Argument path, Json::Value& d) { Report(d, open(path.c_str(), O_WRONLY | O_CREAT, 0666) >= 0); }},
      {"mkdir", [](int, Argument path, Json::Value& d) { Report(d, mkdir(path.c_str(), 0777) == 0); }},
      {"unlink", [](int, Argument path, Json::Value& d) { Report(d, unlink(path.c_str()) == 0); }},
      {"access", [](int, Argument path, Json::Value& d) { Report(d, access(path.c_str(), F_OK) == 0); }},
      {"stat",
       [](int, Argument path, Json::Value& d) {
         // With the flag that the filter lets through.
         struct stat attributes {};
         Report(d, fstatat(AT_FDCWD, path.c_str(), &attributes, AT_EMPTY_PATH) == 0);
       }},
      {"reopen", [](int fd, Argument,
                    Json::Value& d) { Report(d, open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_RDWR) >= 0); }},
      {"chmod", [](int fd, Argument, Json::Value& d) { Report(d, fchmod(fd, 0777) == 0); }},
      {"write_file", [](int fd, Argument, Json::Value& d) { Report(d, write(fd, "x", 1) == 1); }},
      {"fork", [](int, Argument, Json::Value& d) { Report(d, fork() >= 0); }},
      {"thread", [](int, Argument, Json::Value& d) { StartThread(d); }},
      {"shared_memory", [](int, Argument, Json::Value& d) { ShareMemory(d); }},
      {"run_code", [](int, Argument, Json::Value& d) { RunCode(d); }},
      {"more_memory",
       [](int, Argument, Json::Value& d) {
         const rlimit all{RLIM_INFINITY, RLIM_INFINITY};
         Report(d, setrlimit(RLIMIT_DATA, &all) == 0);
       }},
  };
  return kDeeds;
}

const std::map<std::string, Deed>& OtherDeeds() {
  static const std::map<std::string, Deed> kDeeds = {
      {"lie", [](int, Argument, Json::Value& d) { Lie(d); }},
      {"descriptors", [](int, Argument, Json::Value& d) { ListDescriptors(d); }},
      {"leak", [](int fd, Argument, Json::Value&) { fcntl(fd, F_DUPFD, 10); }},
      {"whoami", [](int, Argument, Json::Value& d) { d["NIMOMDTitle"] = std::to_string(geteuid()); }},
      {"process", [](int, Argument, Json::Value& d) { d["NIMOMDTitle"] = std::to_string(getpid()); }},
      {"sleep_ms", [](int, Argument ms, Json::Value&) { usleep(static_cast<useconds_t>(std::stoul(ms) * 1000)); }},
      {"hold", [](int fd, Argument more, Json::Value&) { Hold(fd, more); }},
      {"print", [](int, Argument, Json::Value&) { puts("noise"), fflush(stdout); }},
      {"date", [](int, Argument, Json::Value& d) { d["NIMOMDContentCreationDate"] = 12345; }},
  };
  return kDeeds;
}

class ObedientReader : public extractor::ContentReader {
 public:
  void Prepare() override {
    if (getenv("HOSTILE_PREPARE_FAILS") != nullptr) {
      throw std::runtime_error("the readers' data is missing");
    }
  }

  bool Read(int fd, const std::string& name, size_t text_bytes, Json::Value& document) override {
    std::string text = ReadAll(fd);
    const size_t blank = text.find(' ');
    const std::string word = text.substr(0, blank);
    const std::string argument = blank == std::string::npos ? "" : text.substr(blank + 1);
    for (const auto* deeds : {&EndingDeeds(), &RefusedDeeds(), &OtherDeeds()}) {
      const auto deed = deeds->find(word);
      if (deed != deeds->end()) {
        deed->second(fd, argument, document);
        return false;
      }
    }
    document["NIMOMDSubject"] = name;
    document["NIMOMDTextContent"] = text.substr(0, text_bytes);
    return text.size() > text_bytes;
  }

 private:
  static std::string ReadAll(int fd) {
    std::string text;
    char buffer[65536];
    for (ssize_t got = read(fd, buffer, sizeof(buffer)); got > 0; got = read(fd, buffer, sizeof(buffer))) {
      text.append(buffer, static_cast<size_t>(got));
    }
    return text;
  }
};

}  // namespace

int main(int argc, char** argv) {
  ObedientReader reader;
  return extractor::RunDaemon(argc, argv, reader);
}
