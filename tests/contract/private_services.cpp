// Services of the test's own, on a machine that looks as if systemd did not run.
#include "tests/contract/private_services.h"

#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <system_error>

#include "tests/support/private_etc.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

constexpr char kDescriptions[] = "/etc/nimo/services.d";
constexpr char kPidFiles[] = "/run/nimo";

bool CoverRun() {
  try {
    EnterPrivateMounts({"/run"});
    return true;
  } catch (const NotAllowed&) {
    return false;
  }
}

// The program of each service that was described. Never destroyed: it is looked at when the test program ends.
std::map<std::string, std::string>& Programs() {
  static auto* const programs = new std::map<std::string, std::string>;
  return *programs;
}

// A program that has a file of its own, or a script, whose interpreter is told its name.
bool RunsProgram(int process, const std::string& program) {
  std::ifstream file("/proc/" + std::to_string(process) + "/cmdline", std::ios::binary);
  for (std::string argument; std::getline(file, argument, '\0');) {
    if (argument == program) {
      return true;
    }
  }
  return false;
}

// The number in a service's file may be anybody's by now.
void EndServices() {
  for (const auto& [name, program] : Programs()) {
    if (const int process = ServiceProcess(name); process > 1 && process != getpid() && RunsProgram(process, program)) {
      kill(process, SIGKILL);
    }
  }
  Programs().clear();
}

}  // namespace

bool MakePrivateServices() {
  static const bool covered = CoverRun();
  if (!covered || !MakePrivateEtc()) {
    return false;
  }
  static const bool at_exit = std::atexit(EndServices) == 0;
  EndServices();
  fs::remove_all(kPidFiles);
  fs::remove_all("/run/systemd");
  fs::remove_all("/etc/init.d");
  fs::create_directories(kDescriptions);
  return at_exit;
}

void DescribeService(const std::string& name, const std::vector<std::string>& command, bool notifies) {
  Json::Value description;
  description["command"] = Json::Value(Json::arrayValue);
  Programs()[name] = command.front();
  for (const std::string& argument : command) {
    description["command"].append(argument);
  }
  if (notifies) {
    description["notify"] = true;
  }
  WriteFile(std::string(kDescriptions) + "/" + name + ".json",
            Json::writeString(Json::StreamWriterBuilder(), description));
}

int ServiceProcess(const std::string& name) {
  std::ifstream file(std::string(kPidFiles) + "/" + name + ".pid");
  int process = 0;
  file >> process;
  return process;
}

bool DoesProcessLive(int process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(status, text);
  const size_t name_end = text.rfind(')');
  return name_end != std::string::npos && text.compare(name_end + 2, 1, "Z") != 0;
}

bool IsDescribedServiceRunning(const std::string& name) {
  const int process = ServiceProcess(name);
  return process > 0 && DoesProcessLive(process);
}

}  // namespace orbisk::test
