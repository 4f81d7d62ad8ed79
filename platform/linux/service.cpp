// Services: systemd's where it runs; elsewhere those described in /etc/nimo/services.d, and init scripts.
#include "nimo/service.h"

#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/linux/last_error.h"
#include "platform/linux/program.h"

namespace nimo {
namespace {

constexpr char kDescriptions[] = "/etc/nimo/services.d/";
constexpr char kInitScripts[] = "/etc/init.d/";
constexpr char kPidFiles[] = "/run/nimo";
// How long a service may take until it says that it is ready. Who starts one may have others wait for a lock.
constexpr char kReadySeconds[] = "10";
constexpr int kProgramWaits = 2000;
constexpr useconds_t kProgramWaitMicroseconds = 1000;
// Asks it to end, and ends it when it does not.
constexpr char kStopSchedule[] = "TERM/20/KILL/5";

enum class Change { kStart, kStop, kRestart };

const char* Verb(Change change) {
  switch (change) {
    case Change::kStart:
      return "start";
    case Change::kStop:
      return "stop";
    case Change::kRestart:
      break;
  }
  return "restart";
}

// A name that is one component of a path and no option.
bool IsName(const char* name) {
  return name != nullptr && *name != '\0' && *name != '-' && *name != '.' &&
         std::string(name).find('/') == std::string::npos;
}

// What a service is called here: the box calls its SMB server as it likes.
std::string LocalName(const std::string& name) {
  return name == "samba" ? "smbd" : name;
}

bool SystemdRuns() {
  struct stat status {};
  return lstat("/run/systemd/system", &status) == 0 && S_ISDIR(status.st_mode);
}

// A start that is not waited for any more goes on: only the one who asked for it is ended.
int AskSystemd(const std::string& name, Change change) {
  const std::string systemctl = FindProgram("systemctl");
  const std::string timeout = FindProgram("timeout");
  if (systemctl.empty() || timeout.empty()) {
    return NIMO_FAIL(ENOENT);
  }
  std::vector<std::string> command;
  if (change == Change::kStart) {
    command = {timeout, kReadySeconds};
  }
  command.insert(command.end(), {systemctl, "--quiet", "--no-ask-password", Verb(change), name + ".service"});
  return RunToSuccess(command);
}

struct Description {
  std::vector<std::string> command;
  bool notifies = false;  // tells by NOTIFY_SOCKET when it is ready
};

// {"command": [program, argument...], "notify": bool}; nothing when it is not well formed.
std::optional<Description> ParseDescription(const std::string& text) {
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr) || !value.isObject() ||
        !value["command"].isArray()) {
      return std::nullopt;
    }
  } catch (const Json::Exception&) {
    return std::nullopt;
  }
  Description description;
  for (const Json::Value& argument : value["command"]) {
    if (!argument.isString()) {
      return std::nullopt;
    }
    description.command.push_back(argument.asString());
  }
  description.notifies = value["notify"].isBool() && value["notify"].asBool();
  const bool has_program = !description.command.empty() && description.command.front().compare(0, 1, "/") == 0;
  return has_program ? std::optional(description) : std::nullopt;
}

std::string PidFile(const std::string& name) {
  return std::string(kPidFiles) + "/" + name + ".pid";
}

// start-stop-daemon returns when there is a process that will become the program. Until it has, who looks for the
// program, to stop it for example, does not find it. What it becomes need not be the file that has the path now: a
// process that runs already goes on with the old file when a package replaces it.
int AwaitProgram(const std::string& name, const std::string& start_stop_daemon) {
  pid_t pid = 0;
  std::ifstream(PidFile(name)) >> pid;
  struct stat starter {};
  struct stat running {};
  if (stat(start_stop_daemon.c_str(), &starter) != 0) {
    return NIMO_FAIL_ERRNO();
  }
  for (int i = 0; i < kProgramWaits; ++i) {
    if (pid <= 0 || stat(("/proc/" + std::to_string(pid) + "/exe").c_str(), &running) != 0) {
      return NIMO_FAIL(ESRCH);
    }
    if (running.st_dev != starter.st_dev || running.st_ino != starter.st_ino) {
      return 0;
    }
    usleep(kProgramWaitMicroseconds);
  }
  return NIMO_FAIL(ETIMEDOUT);
}

bool IsScript(const std::string& path) {
  char start[2] = {};
  return std::ifstream(path, std::ios::binary).read(start, sizeof(start)) && start[0] == '#' && start[1] == '!';
}

// Stopping and starting look for a process of this very program, so that a number left behind by a dead service and
// given to another process harms nobody.
int Start(const std::string& start_stop_daemon, const std::string& name, const Description& description) {
  if (access(description.command.front().c_str(), X_OK) != 0) {
    return NIMO_FAIL_ERRNO();  // it would be found out behind our back
  }
  if (IsScript(description.command.front())) {
    return NIMO_FAIL(ENOEXEC);  // its process is the interpreter's, and would not be found again
  }
  if (mkdir(kPidFiles, 0755) != 0 && errno != EEXIST) {
    return NIMO_FAIL_ERRNO();
  }
  std::vector<std::string> command = {
      start_stop_daemon, "--start",   "--quiet",     "--oknodo", "--background",
      "--make-pidfile",  "--pidfile", PidFile(name), "--exec",   description.command.front()};
  if (description.notifies) {
    command.insert(command.end(), {"--notify-await", "--notify-timeout", kReadySeconds});
  }
  command.emplace_back("--");
  command.insert(command.end(), description.command.begin() + 1, description.command.end());
  const int result = RunToSuccess(command, {nullptr, true});
  return result < 0 ? result : AwaitProgram(name, start_stop_daemon);
}

int Stop(const std::string& start_stop_daemon, const std::string& name, const Description& description) {
  return RunToSuccess({start_stop_daemon, "--stop", "--quiet", "--oknodo", "--retry", kStopSchedule, "--remove-pidfile",
                       "--pidfile", PidFile(name), "--exec", description.command.front()});
}

int ChangeDescribed(const std::string& name, Change change, const std::string& text) {
  const std::optional<Description> description = ParseDescription(text);
  const std::string start_stop_daemon = FindProgram("start-stop-daemon");
  if (!description || start_stop_daemon.empty()) {
    return NIMO_FAIL(!description ? EINVAL : ENOENT);
  }
  if (change != Change::kStart) {
    if (const int result = Stop(start_stop_daemon, name, *description); result < 0) {
      return result;
    }
  }
  return change == Change::kStop ? 0 : Start(start_stop_daemon, name, *description);
}

int ChangeService(const char* service, Change change) {
  if (!IsName(service)) {
    return NIMO_FAIL(EINVAL);
  }
  const std::string name = LocalName(service);
  if (SystemdRuns()) {
    return AskSystemd(name, change);
  }
  if (std::ifstream file(kDescriptions + name + ".json", std::ios::binary); file) {
    std::stringstream text;
    text << file.rdbuf();
    return ChangeDescribed(name, change, text.str());
  }
  const std::string init_script = kInitScripts + name;
  if (access(init_script.c_str(), X_OK) != 0) {
    return NIMO_FAIL_ERRNO();
  }
  return RunToSuccess({init_script, Verb(change)}, {nullptr, true});
}

int ChangePackageService(const char* name, int kind, Change change) {
  return kind == NLIB_SERVICECTL_UPSTART ? ChangeService(name, change) : NIMO_FAIL(EINVAL);
}

}  // namespace
}  // namespace nimo

int NLIBServiceStart(const char* name, int) {
  return nimo::ChangeService(name, nimo::Change::kStart);
}

int NLIBServiceStop(const char* name, int) {
  return nimo::ChangeService(name, nimo::Change::kStop);
}

int NLIBServiceRestart(const char* name) {
  return nimo::ChangeService(name, nimo::Change::kRestart);
}

int NLIBServicectlStart(const char* name, int kind) {
  return nimo::ChangePackageService(name, kind, nimo::Change::kStart);
}

int NLIBServicectlStop(const char* name, int kind) {
  return nimo::ChangePackageService(name, kind, nimo::Change::kStop);
}
