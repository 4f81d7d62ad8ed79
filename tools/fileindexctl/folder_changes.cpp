// "fileindexctl folder add", "set", "delete", "reindex" and "groups", and "summary".
#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"
#include "tools/fileindexctl/arguments.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/confirm.h"
#include "tools/fileindexctl/error_text.h"
#include "tools/fileindexctl/event_text.h"
#include "tools/fileindexctl/indexed.h"
#include "tools/fileindexctl/left_over.h"
#include "tools/fileindexctl/output.h"
#include "tools/fileindexctl/table.h"
#include "tools/fileindexctl/wait_notice.h"

namespace fileindexctl {
namespace {

using orbisk::fileindex::FolderMgr;

constexpr std::array kKinds = {"document", "audio", "video", "photo"};

struct Options {
  std::string path;
  std::vector<std::string> paths;
  std::string share;
  std::string name;
  std::vector<std::string> kinds;
  std::string group;
  std::string owner;
  bool privileged = false;
  bool updater = false;
  bool force = false;
  bool yes = false;
  bool json = false;
};

Json::Value ListOf(const Json::Value& item) {
  Json::Value list(Json::arrayValue);
  list.append(item);
  return list;
}

void SetKinds(Json::Value& folder, const std::vector<std::string>& kinds) {
  for (const char* const kind : kKinds) {
    folder[kind] = false;
  }
  for (const std::string& kind : kinds) {
    if (kind != "none") {
      folder[kind] = true;
    }
  }
}

// Nothing is rolled back when something fails late, so the user must hear what is stored. `is_stored` looks whether it
// is.
void StoreAndTell(const std::function<void()>& change, const std::function<bool()>& is_stored) {
  const bool was_stored = is_stored();
  const WaitNotice notice;
  try {
    change();
  } catch (const orbisk::Error& error) {
    if (was_stored || !is_stored()) {
      throw;
    }
    throw WithContext(error, "the change is stored, and the indexing daemon follows when it runs");
  }
}

void Add(const Options& options) {
  Json::Value folder;
  folder["path"] = options.path;
  folder["name"] = options.name.empty() ? options.path.substr(options.path.rfind('/') + 1) : options.name;
  folder["group"] = options.group;
  folder["owner"] = options.owner;
  folder["privileged"] = options.privileged;
  SetKinds(folder, options.kinds);
  StoreAndTell([&] { AddFolder(folder, options.updater); }, [&] { return FolderMgr().HasFolder(options.path); });
}

Json::Value Stored(const std::string& path) {
  Json::Value folder;
  orbisk::fileindex::FolderGet(folder, path);
  return folder;
}

// Only what is given changes; the library replaces the whole entry.
void Set(const CLI::App& command, const Options& options) {
  Json::Value folder = Stored(options.path);
  const std::pair<const char*, const std::string&> members[] = {
      {"name", options.name}, {"group", options.group}, {"owner", options.owner}};
  for (const auto& [member, value] : members) {
    if (command.count(std::string("--") + member) > 0) {
      folder[member] = value;
    }
  }
  if (command.count("--kinds") > 0) {
    SetKinds(folder, options.kinds);
  }
  if (command.count("--privileged") > 0) {
    folder["privileged"] = options.privileged;
  }
  StoreAndTell([&] { orbisk::fileindex::FolderSet(ListOf(folder), options.updater); },
               [&] { return Stored(options.path) == folder; });
}

// The library cleans up behind folders that it does not know, which a misspelt path must not set off.
void CheckConfigured(const std::vector<std::string>& paths) {
  const FolderMgr folder_mgr;
  std::shared_ptr<orbisk::fileindex::Folder> folder;
  for (const std::string& path : paths) {
    folder_mgr.Get(folder, path);
  }
}

bool AnyConfigured(const std::vector<std::string>& paths) {
  const FolderMgr folder_mgr;
  return std::any_of(paths.begin(), paths.end(), [&](const auto& path) { return folder_mgr.HasFolder(path); });
}

std::vector<std::string> SharesOf(const std::vector<std::string>& paths) {
  std::vector<std::string> shares(paths.size());
  for (size_t i = 0; i < paths.size(); ++i) {
    orbisk::fileindex::GetShareNameByPath(shares[i], paths[i]);
  }
  return shares;
}

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

void DeleteShare(const Options& options) {
  CheckIndexed(options.share);
  Confirm("Stop indexing all folders of the share " + options.share + " and delete its index?", options.yes);
  StoreAndTell([&] { WithIndex(options.share, [&] { orbisk::fileindex::FolderDelete(options.share); }); },
               [&] { return !FolderMgr().IsShareIndexed(options.share); });
}

void Delete(const Options& options) {
  if (!options.share.empty()) {
    DeleteShare(options);
    return;
  }
  if (options.paths.empty()) {
    throw CLI::RequiredError("PATH or --share");
  }
  if (!options.force) {
    CheckConfigured(options.paths);
  }
  Confirm("Stop indexing " + Joined(options.paths) + " and delete what the index has of it?", options.yes);
  const auto remove = [&] { orbisk::fileindex::FolderDelete(orbisk::Vec2JsonArr(options.paths)); };
  StoreAndTell([&] { WithIndexes([&] { return SharesOf(options.paths); }, remove); },
               [&] { return !AnyConfigured(options.paths); });
}

// The library passes over what is in no index; a person who asks for it has made a mistake.
void Reindex(const Options& options) {
  const FolderMgr folder_mgr;
  for (const std::string& path : options.paths) {
    std::string share;
    orbisk::fileindex::GetShareNameByPath(share, path);
    if (!folder_mgr.IsShareIndexed(share)) {
      throw std::runtime_error(path + ": no folder of the share is indexed");
    }
  }
  const WaitNotice notice;
  orbisk::fileindex::FolderReindex(orbisk::Vec2JsonArr(options.paths));
}

void Print(const std::string& text) {
  Output out(STDOUT_FILENO);
  out.Write(text);
  out.Flush();
}

void Groups(const Options& options) {
  Json::Value groups;
  orbisk::fileindex::FolderListGroups(groups);
  std::string text;
  for (const Json::Value& group : groups) {
    text += OneLine(group.asString()) + "\n";
  }
  Print(options.json ? orbisk::toString(groups) + "\n" : text);
}

std::string SummaryText(const Json::Value& summary) {
  Table table({"NAME", "KIND", "STATUS"});
  for (const Json::Value& item : summary["items"]) {
    const std::string desc = item.isMember("desc") ? ": " + item["desc"].asString() : "";
    table.Add({item["name"].asString(), item["group"].asBool() ? "group" : "folder", item["text"].asString() + desc});
  }
  return table.Text() + "all together: " + summary["status"].asString() + "\n";
}

void Summary(const Options& options) {
  Json::Value summary;
  orbisk::fileindex::FolderSummary(summary);
  Print(options.json ? orbisk::toString(summary) + "\n" : SummaryText(summary));
}

// What an entry has besides its path.
void AddEntryOptions(CLI::App& command, Options& options) {
  command.add_option("--name", options.name, "What people see");
  command.add_option("--kinds", options.kinds, "Kinds of files whose content is indexed, or 'none'")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->check(CLI::IsMember({"document", "audio", "video", "photo", "none"}));
  command.add_option("--group", options.group, "The group that it belongs to");
  command.add_option("--owner", options.owner, "Whose folder it is");
  command.add_flag("--privileged,!--no-privileged", options.privileged, "The entry's mark of a privileged folder");
  command.add_flag("--updater", options.updater,
                   "As an upgrade does: the path is not looked at, and nothing is queued for indexing");
}

void AddDelete(CLI::App& group, const std::shared_ptr<Options>& options) {
  CLI::App* const remove = group.add_subcommand("delete", "Stop indexing folders; the files stay");
  CLI::Option* const paths = remove->add_option("PATH", options->paths, "Share paths of the folders");
  remove->add_option("--share", options->share, "All folders of this share")->excludes(paths);
  remove->add_flag("--force", options->force,
                   "Also folders that are not configured: what is left of an index is cleaned up");
  AddYes(*remove, options->yes);
  remove->callback([options] { Delete(*options); });
}

}  // namespace

void AddFolderChanges(CLI::App& group) {
  const auto options = std::make_shared<Options>();

  const auto added = std::make_shared<Options>();
  added->kinds.assign(kKinds.begin(), kKinds.end());
  CLI::App* const add = group.add_subcommand("add", "Index a folder");
  add->add_option("PATH", added->path, "Its share path, for example /photo/2019")->required()->check(PlainSharePath());
  AddEntryOptions(*add, *added);
  add->callback([added] { Add(*added); });

  CLI::App* const set = group.add_subcommand("set", "Change an indexed folder; what is not given stays");
  set->add_option("PATH", options->path, "Its share path")->required();
  AddEntryOptions(*set, *options);
  set->callback([set, options] { Set(*set, *options); });

  AddDelete(group, options);

  CLI::App* const reindex = group.add_subcommand("reindex", "Compare folders with the disk");
  reindex->add_option("PATH", options->paths, "Share paths of the folders, which need not be configured themselves")
      ->required()
      ->check(PlainSharePath());
  reindex->callback([options] { Reindex(*options); });

  CLI::App* const groups = group.add_subcommand("groups", "The groups that indexed folders belong to");
  groups->add_flag("--json", options->json, "Print one line of JSON");
  groups->callback([options] { Groups(*options); });
}

void AddSummaryCommand(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  CLI::App* const summary = app.add_subcommand("summary", "How far indexing is, by folders and groups");
  summary->add_flag("--json", options->json, "Print one line of JSON");
  summary->callback([options] { Summary(*options); });
}

}  // namespace fileindexctl
