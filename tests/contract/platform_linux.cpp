// The contract suites against libnimo.
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <system_error>

#include "tests/contract/directory_accounts.h"
#include "tests/contract/platform_under_test.h"
#include "tests/contract/private_commands.h"
#include "tests/contract/private_services.h"
#include "tests/support/private_etc.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {

Account KnownAccount() {
  const passwd* account = getpwuid(geteuid());
  if (account == nullptr) {
    return {"root", 0, 0};
  }
  return {account->pw_name, account->pw_uid, account->pw_gid};
}

bool MakeMountPoint(const std::string& path) {
  try {
    EnterPrivateMounts({});
    MountEmptyFileSystem(path, 1024UL * 1024);
    return true;
  } catch (const NotAllowed&) {
    return false;
  }
}

bool ForgetSharesAndAccounts() {
  return MakePrivateEtc();
}

void AddShare(const NIMO::SHARE::Entry& share) {
  NIMO::SHARE::Register(share);
}

void AddAccount(const Account& account, bool administrator) {
  AddPrivateAccount(account.name, account.uid, account.gid,
                    administrator ? std::vector<std::string>{"administrators"} : std::vector<std::string>{});
}

void AddDirectoryAccount(const Account& account) {
  AddDirectoryServiceAccount(account.name, account.uid, account.gid);
  WriteFile("/etc/nsswitch.conf", "passwd: files orbisk_directory\ngroup: files\n");
}

bool ForgetRegistrations() {
  try {
    EnterPrivateMounts({"/var/lib/nimotifyd", "/run"});
    std::filesystem::remove_all("/var/lib/nimotifyd/queues.d");
    return true;
  } catch (const NotAllowed&) {
    return false;
  }
}

bool ForgetServices() {
  return MakePrivateServices();
}

void AddService(const std::string& name) {
  DescribeService(name, {"/bin/sleep", "1000"});
}

bool IsServiceRunning(const std::string& name) {
  return IsDescribedServiceRunning(name);
}

bool ReplaceSamba() {
  if (!MakePrivateCommands()) {
    return false;
  }
  AddPrivateSamba();
  return true;
}

std::vector<Json::Value> RegisteredConfigs() {
  std::vector<Json::Value> configs;
  std::error_code missing;
  for (const auto& file : std::filesystem::directory_iterator("/var/lib/nimotifyd/queues.d", missing)) {
    const std::string text = ReadFile(file.path());
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value registration;
    reader->parse(text.data(), text.data() + text.size(), &registration, nullptr);
    configs.push_back(registration["config"]);
  }
  return configs;
}

}  // namespace orbisk::test
