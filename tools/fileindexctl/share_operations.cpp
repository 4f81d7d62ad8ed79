// "fileindexctl share rename", "pause", "rebuild" and the like: what the box does when something became of a share.
#include <limits.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "nimo/index_location.h"
#include "nimo/monitor_queue.h"
#include "nimo/share_registry.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "tools/fileindexctl/arguments.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/confirm.h"
#include "tools/fileindexctl/daemon_client.h"
#include "tools/fileindexctl/indexed.h"
#include "tools/fileindexctl/left_over.h"
#include "tools/fileindexctl/share_move.h"
#include "tools/fileindexctl/wait_notice.h"

namespace fileindexctl {
namespace {

namespace index = orbisk::fileindex;
using NIMO::NIMOTIFYD::MonitorQueue;
using NIMO::SHARE::Entry;

constexpr char kLibrary[] = "fileindex";  // what it registers queues as

struct Options {
  std::string share;
  std::string share_to;
  std::string path;
  std::string path_to;
  bool force = false;
  bool yes = false;
};

void Rebuild(const Options& options) {
  CheckIndexed(options.share);
  Confirm("Delete the index of the share " + options.share + " and build a new one?", options.yes);
  const WaitNotice notice;
  WithIndex(options.share, [&] { index::ShareRebuild(options.share); });
}

// The library believes any path, and removes what lies beside it under the name of its folder.
void CheckPathOf(const Options& options) {
  const std::vector<Entry> shares = NIMO::SHARE::List();
  const auto named =
      std::find_if(shares.begin(), shares.end(), [&](const Entry& e) { return e.name == options.share; });
  if (named != shares.end() && named->path != options.path) {
    throw std::runtime_error("the share " + options.share + " is at " + named->path + ", not at " + options.path);
  }
  const auto placed =
      std::find_if(shares.begin(), shares.end(), [&](const Entry& e) { return e.path == options.path; });
  if (placed != shares.end() && placed->name != options.share) {
    throw std::runtime_error(options.path + " is the share " + placed->name);
  }
  if (options.path.substr(options.path.rfind('/') + 1) != options.share) {
    throw std::runtime_error("the path " + options.path + " does not end in the share's name " + options.share);
  }
}

void CheckPaused(const std::string& share) {
  CheckIndexed(share);
  const index::FolderMgr folder_mgr;
  for (const auto& folder : folder_mgr.GetFolders()) {
    if (folder->GetShare() == share && !folder->IsPaused()) {
      throw std::runtime_error("the folder " + folder->GetPath() +
                               " is not paused; --force forgets the share nevertheless");
    }
  }
}

// A share that was not paused is watched still, and nobody would ever read what is recorded of it.
void StopWatching(const std::string& share_path) {
  std::array<char, PATH_MAX> queue{};
  if (FILEIDXQueuePathCompose(share_path.c_str(), queue.data(), queue.size()) < 0 ||
      !MonitorQueue::Delete(queue.data(), kLibrary, NIMO::NIMOTIFYD::MONITOR_QUEUE_TYPE_APPLICATION)) {
    throw std::runtime_error("cannot have the change monitor let go of " + share_path);
  }
}

void ClearPaused(const Options& options) {
  CheckPathOf(options);
  if (!options.force) {
    CheckPaused(options.share);
  }
  Confirm("Forget the share " + options.share + " at " + options.path + " and delete its index?", options.yes);
  const WaitNotice notice;
  if (options.force) {
    HasIndex(options.share);  // throws if the search daemon does not answer, before anything is gone
    StopWatching(options.path);
  }
  Forgetting([&] { return std::vector<std::string>{options.share}; },
             [&] { index::ShareClearPaused(options.share, options.path); });
}

void AutoClean(const Options& options) {
  CheckIndexed(options.share);
  Confirm("Delete the index of the share " + options.share + "?", options.yes);
  const WaitNotice notice;
  WithIndex(options.share, [&] { index::ShareAutoClean(options.share); });
}

// Accepts what a folder can be called.
CLI::Validator FolderName() {
  return {[](const std::string& text) {
            const bool is_name = !text.empty() && text != "." && text != ".." && text.find('/') == std::string::npos;
            return is_name ? std::string() : "not a name for a share: " + text;
          },
          "", "FolderName"};
}

void AddMoves(CLI::App& group, const std::shared_ptr<Options>& options) {
  CLI::App* const rename = group.add_subcommand("rename", "Follow a share that has another name now");
  rename->add_option("OLD", options->share, "The name it had")->required();
  rename->add_option("NEW", options->share_to, "The name it has")->required();
  rename->callback([options] {
    const WaitNotice notice;
    index::ShareRename(options->share, options->share_to);
  });

  CLI::App* const move = group.add_subcommand("move-name", "Give a share, with its folder and index, another name");
  move->add_option("OLD", options->share, "The name it has")->required();
  move->add_option("NEW", options->share_to, "The name it gets")->required()->check(FolderName());
  move->callback([options] {
    const WaitNotice notice;
    MoveShareName(options->share, options->share_to);
  });

  CLI::App* const migrate = group.add_subcommand("migrate", "Follow a share that lies elsewhere now");
  migrate->add_option("SHARE", options->share, "The share's name")->required();
  migrate->add_option("FROM", options->path, "Full path of its folder before")->required()->check(PlainFullPath());
  migrate->add_option("TO", options->path_to, "Full path of its folder now")->required()->check(PlainFullPath());
  migrate->callback([options] {
    CheckIndexed(options->share);
    const WaitNotice notice;
    index::ShareMigrate(options->share, options->path, options->path_to);
  });
}

CLI::App* AddOfShare(CLI::App& group, const std::string& name, const std::string& help,
                     const std::shared_ptr<Options>& options) {
  CLI::App* const command = group.add_subcommand(name, help);
  command->add_option("SHARE", options->share, "The share's name")->required();
  return command;
}

}  // namespace

void AddShareOperations(CLI::App& group) {
  const auto options = std::make_shared<Options>();
  AddMoves(group, options);

  CLI::App* const pause =
      AddOfShare(group, "pause", "Stop indexing a share; its changes are recorded by nobody", options);
  pause->callback([options] {
    CheckIndexed(options->share);
    const WaitNotice notice;
    WithIndex(options->share, [&] { index::SharePause(options->share); });
  });

  CLI::App* const resume = AddOfShare(group, "resume", "Go on indexing a share that was paused", options);
  resume->callback([options] {
    CheckIndexed(options->share);
    const WaitNotice notice;
    WithIndex(options->share, [&] { index::ShareResume(options->share); });
  });

  CLI::App* const rebuild = AddOfShare(group, "rebuild", "Replace the index of a share by a new one", options);
  rebuild->callback([options] { Rebuild(*options); });

  CLI::App* const clear = AddOfShare(group, "clear-paused", "Forget a paused share, which may be gone", options);
  clear->add_option("PATH", options->path, "Full path of its folder")->required()->check(PlainFullPath());
  clear->add_flag("--force", options->force, "Also if no folder of it is configured, or one is not paused");
  clear->callback([options] { ClearPaused(*options); });

  CLI::App* const clean =
      AddOfShare(group, "auto-clean", "Delete the index of a share; its folders stay configured", options);
  clean->callback([options] { AutoClean(*options); });

  for (CLI::App* const command : {rebuild, clear, clean}) {
    AddYes(*command, options->yes);
  }

  CLI::App* const recycle = AddOfShare(group, "check-recycle", "Compare a share's recycle bin with the disk", options);
  recycle->callback([options] {
    CheckIndexed(options->share);
    index::ShareCheckRecycle(options->share);
  });
}

}  // namespace fileindexctl
