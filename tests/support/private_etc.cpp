// An /etc of the test's own.
#include "tests/support/private_etc.h"

#include <filesystem>
#include <map>
#include <system_error>

#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {
namespace {

struct Group {
  gid_t gid;
  std::string members;  // with commas
};

std::map<std::string, Group>& Groups() {
  static std::map<std::string, Group> groups;
  return groups;
}

constexpr gid_t kFirstGid = 5001;
gid_t next_gid = kFirstGid;

void WriteGroups() {
  std::string text;
  for (const auto& [name, group] : Groups()) {
    text += name + ":x:" + std::to_string(group.gid) + ":" + group.members + "\n";
  }
  WriteFile("/etc/group", text);
}

bool CoverEtc() {
  try {
    EnterPrivateMounts({});
    MountEmptyFileSystem("/etc", 64UL * 1024 * 1024);
    return true;
  } catch (const NotAllowed&) {
    return false;
  }
}

}  // namespace

bool MakePrivateEtc() {
  static const bool covered = CoverEtc();
  if (covered) {
    std::filesystem::remove_all("/etc/nimo");
    Groups() = {{"root", {0, ""}}};
    next_gid = kFirstGid;
    WriteGroups();
    WriteFile("/etc/passwd", "root:x:0:0::/:/bin/sh\n");
    WriteFile("/etc/nsswitch.conf", "passwd: files\ngroup: files\n");
  }
  return covered;
}

void AddPrivateAccount(const std::string& name, uid_t uid, gid_t gid, const std::vector<std::string>& groups) {
  WriteFile("/etc/passwd",
            ReadFile("/etc/passwd") + name + ":x:" + std::to_string(uid) + ":" + std::to_string(gid) + "::/:/bin/sh\n");
  Groups()[name] = {gid, ""};
  for (const std::string& group : groups) {
    if (Groups().count(group) == 0) {
      Groups()[group] = {next_gid++, ""};
    }
    std::string& members = Groups()[group].members;
    members += (members.empty() ? "" : ",") + name;
  }
  WriteGroups();
}

void AddPrivateGroup(const std::string& name, gid_t gid) {
  Groups()[name] = {gid, ""};
  WriteGroups();
}

}  // namespace orbisk::test
