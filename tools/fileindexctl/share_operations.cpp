// "fileindexctl share rename", "pause", "rebuild" and the like: what the box does when something became of a share.
#include <CLI/CLI.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "tools/fileindexctl/arguments.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/confirm.h"
#include "tools/fileindexctl/left_over.h"
#include "tools/fileindexctl/share_move.h"

namespace fileindexctl {
namespace {

namespace index = orbisk::fileindex;

struct Options {
  std::string share;
  std::string share_to;
  std::string path;
  std::string path_to;
  bool yes = false;
};

// For such a share the library does nothing and says nothing.
void CheckIndexed(const std::string& share) {
  if (!index::FolderMgr().IsShareIndexed(share)) {
    throw std::runtime_error("no folder of this share is indexed: " + share);
  }
}

void Rebuild(const Options& options) {
  CheckIndexed(options.share);
  Confirm("Delete the index of the share " + options.share + " and build a new one?", options.yes);
  WithIndex(options.share, [&] { index::ShareRebuild(options.share); });
}

void ClearPaused(const Options& options) {
  Confirm("Forget the share " + options.share + " at " + options.path + " and delete its index?", options.yes);
  Forgetting([&] { return std::vector<std::string>{options.share}; },
             [&] { index::ShareClearPaused(options.share, options.path); });
}

void AutoClean(const Options& options) {
  CheckIndexed(options.share);
  Confirm("Delete the index of the share " + options.share + "?", options.yes);
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
  rename->callback([options] { index::ShareRename(options->share, options->share_to); });

  CLI::App* const move = group.add_subcommand("move-name", "Give a share, with its folder and index, another name");
  move->add_option("OLD", options->share, "The name it has")->required();
  move->add_option("NEW", options->share_to, "The name it gets")->required()->check(FolderName());
  move->callback([options] { MoveShareName(options->share, options->share_to); });

  CLI::App* const migrate = group.add_subcommand("migrate", "Follow a share that lies elsewhere now");
  migrate->add_option("SHARE", options->share, "The share's name")->required();
  migrate->add_option("FROM", options->path, "Full path of its folder before")->required()->check(PlainFullPath());
  migrate->add_option("TO", options->path_to, "Full path of its folder now")->required()->check(PlainFullPath());
  migrate->callback([options] {
    CheckIndexed(options->share);
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
    WithIndex(options->share, [&] { index::SharePause(options->share); });
  });

  CLI::App* const resume = AddOfShare(group, "resume", "Go on indexing a share that was paused", options);
  resume->callback([options] {
    CheckIndexed(options->share);
    WithIndex(options->share, [&] { index::ShareResume(options->share); });
  });

  CLI::App* const rebuild = AddOfShare(group, "rebuild", "Replace the index of a share by a new one", options);
  rebuild->callback([options] { Rebuild(*options); });

  CLI::App* const clear = AddOfShare(group, "clear-paused", "Forget a paused share, which may be gone", options);
  clear->add_option("PATH", options->path, "Full path of its folder")->required()->check(PlainFullPath());
  clear->callback([options] { ClearPaused(*options); });

  CLI::App* const clean =
      AddOfShare(group, "auto-clean", "Delete the index of a share; its folders stay configured", options);
  clean->callback([options] { AutoClean(*options); });

  for (CLI::App* const command : {rebuild, clear, clean}) {
    AddYes(*command, options->yes);
  }

  CLI::App* const recycle = AddOfShare(group, "check-recycle", "Compare a share's recycle bin with the disk", options);
  recycle->callback([options] { index::ShareCheckRecycle(options->share); });
}

}  // namespace fileindexctl
