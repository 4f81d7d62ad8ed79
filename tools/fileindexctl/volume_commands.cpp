// "fileindexctl volume", "home", "user" and "services": what the box does when something became of them.
#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "nimo/home.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/sdk/credentials.h"
#include "tools/fileindexctl/arguments.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/confirm.h"
#include "tools/fileindexctl/daemon_client.h"
#include "tools/fileindexctl/left_over.h"
#include "tools/fileindexctl/wait_notice.h"

namespace fileindexctl {
namespace {

namespace index = orbisk::fileindex;

constexpr std::chrono::seconds kMostToStart{20};
constexpr std::chrono::milliseconds kBetweenLooks{100};

struct Options {
  std::string mount_point;
  std::string accounts;
  std::string user;
  std::string user_to;
  bool yes = false;
};

AUTH_TYPE TypeOf(const std::string& accounts) {
  return accounts == "local" ? AUTH_LOCAL : AUTH_DIRECTORY;
}

// As the library finds them. Those to be forgotten are found by their mark, since they may be registered no more.
std::vector<std::string> SharesToForget(const std::string& mount_point) {
  std::vector<std::string> shares;
  const index::FolderMgr folder_mgr;
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (folder->IsPaused() && folder->GetVolumeToBeClean() == mount_point) {
      shares.push_back(folder->GetShare());
    }
  }
  return shares;
}

std::vector<std::string> SharesOn(const std::string& mount_point) {
  std::vector<std::string> shares;
  const index::FolderMgr folder_mgr;
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (folder->GetFullPath().compare(0, mount_point.size() + 1, mount_point + "/") == 0) {
      shares.push_back(folder->GetShare());
    }
  }
  return shares;
}

// For a volume without any, the library does nothing and says nothing.
void CheckVolume(const std::string& mount_point) {
  if (SharesOn(mount_point).empty()) {
    throw std::runtime_error("no indexed folder lies on " + mount_point);
  }
}

void Pause(const Options& options) {
  CheckVolume(options.mount_point);
  index::VolumePause(options.mount_point);
}

void ClearPaused(const Options& options) {
  if (SharesToForget(options.mount_point).empty()) {
    throw std::runtime_error("no folder was paused with the volume " + options.mount_point);
  }
  Confirm("Forget the paused shares of the volume " + options.mount_point + " and delete their indexes?", options.yes);
  const WaitNotice notice;
  Forgetting([&] { return SharesToForget(options.mount_point); },
             [&] { index::VolumeClearPaused(options.mount_point); });
}

void Resume(const Options& options) {
  CheckVolume(options.mount_point);
  const WaitNotice notice;
  WithIndexes([&] { return SharesOn(options.mount_point); }, [&] { index::VolumeResume(options.mount_point); });
}

void AddVolume(CLI::App& app, const std::shared_ptr<Options>& options) {
  CLI::App* const group = app.add_subcommand("volume", "The volumes that shares lie on");
  group->require_subcommand(1);
  CLI::App* const pause = group->add_subcommand("pause", "Pause the folders of a volume that is about to go");
  pause->callback([options] { Pause(*options); });
  CLI::App* const resume = group->add_subcommand("resume", "Go on with the folders of a volume that is back");
  resume->callback([options] { Resume(*options); });
  CLI::App* const clear =
      group->add_subcommand("clear-paused", "Forget the shares of a volume that will not come back");
  AddYes(*clear, options->yes);
  clear->callback([options] { ClearPaused(*options); });
  for (CLI::App* const command : {pause, resume, clear}) {
    command->add_option("MOUNT_POINT", options->mount_point, "Root folder of the volume")
        ->required()
        ->check(PlainFullPath());
  }
}

void AddHome(CLI::App& app, const std::shared_ptr<Options>& options) {
  CLI::App* const group = app.add_subcommand("home", "The homes of accounts");
  group->require_subcommand(1);
  CLI::App* const enable = group->add_subcommand("enable", "Homes were switched on: look through their recycle bins");
  enable->callback([options] { index::HomeEnable(TypeOf(options->accounts)); });
  CLI::App* const disable = group->add_subcommand("disable", "Homes were switched off: look through all recycle bins");
  disable->callback([options] { index::HomeDisable(TypeOf(options->accounts)); });
  for (CLI::App* const command : {enable, disable}) {
    command->add_option("ACCOUNTS", options->accounts, "Whose: 'local' or 'directory'")
        ->required()
        ->check(CLI::IsMember({"local", "directory"}));
  }
}

// A daemon that was started a moment ago may not listen yet.
void WaitForIndexer() {
  const auto end = std::chrono::steady_clock::now() + kMostToStart;
  while (true) {
    try {
      AskIndexer("status");
      return;
    } catch (const orbisk::Error&) {
      if (std::chrono::steady_clock::now() > end) {
        throw std::runtime_error("the indexing daemon does not answer; see the system log");
      }
    }
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

// The library logs what fails, and goes on.
void Prepare() {
  const orbisk::sdk::SDKCredentials as_root("root");
  const bool is_needed = !index::FolderMgr().IsEmpty();
  index::PrepareServices();
  if (is_needed) {
    WaitForIndexer();
  }
}

}  // namespace

void AddVolumeCommands(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  AddVolume(app, options);
  AddHome(app, options);

  CLI::App* const user = app.add_subcommand("user", "Accounts");
  user->require_subcommand(1);
  CLI::App* const rename = user->add_subcommand("rename", "Follow an account that has another name now");
  rename->add_option("OLD", options->user, "The name it had")->required();
  rename->add_option("NEW", options->user_to, "The name it has")->required();
  rename->callback([options] { index::UserRename(options->user, options->user_to); });

  CLI::App* const services = app.add_subcommand("services", "The services that indexing needs");
  services->require_subcommand(1);
  CLI::App* const prepare = services->add_subcommand("prepare", "Start them if any folder is indexed, else stop them");
  prepare->callback(Prepare);
}

}  // namespace fileindexctl
