// Commands of the test's own, where stock Linux looks for the system's.
#include "tests/contract/private_commands.h"

#include <filesystem>
#include <system_error>

#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

namespace fs = std::filesystem;

constexpr char kCommands[] = "/usr/local/bin";
constexpr char kBeforeCommands[] = "/usr/local/sbin";  // is looked at first
constexpr char kLog[] = "/usr/local/bin/log";

bool Cover() {
  try {
    EnterPrivateMounts({kCommands, kBeforeCommands});
    return true;
  } catch (const NotAllowed&) {
    return false;
  }
}

}  // namespace

bool MakePrivateCommands() {
  static const bool covered = Cover();
  if (covered) {
    for (const auto& entry : fs::directory_iterator(kCommands)) {
      fs::remove_all(entry.path());
    }
  }
  return covered;
}

void AddScript(const std::string& path, const std::string& body) {
  WriteFile(path, "#!/bin/sh\necho \"$(basename \"$0\") $*\" >> " + std::string(kLog) + "\n" + body + "\n");
  fs::permissions(path, fs::perms(0755));
}

void AddCommand(const std::string& name, const std::string& body) {
  AddScript(std::string(kCommands) + "/" + name, body);
}

std::string CommandsRun() {
  return fs::exists(kLog) ? ReadFile(kLog) : "";
}

void AddPrivateSamba(const std::string& set_in_file) {
  const std::string registry = kSambaRegistry;
  AddCommand("testparm", set_in_file.empty() ? "grep -qi yes " + registry + " 2>/dev/null && echo Yes || echo No"
                                             : "echo " + set_in_file);
  AddCommand("net", "case $2 in setparm) echo \"$5\" > " + registry + ";; getparm) cat " + registry +
                        " 2>/dev/null;; delparm) rm -f " + registry + ";; esac");
}

std::string SambaRegistry() {
  return fs::exists(kSambaRegistry) ? ReadFile(kSambaRegistry) : "none";
}

}  // namespace orbisk::test
