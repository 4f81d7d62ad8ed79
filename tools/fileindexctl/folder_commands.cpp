// "fileindexctl folder": the indexed folders.
#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/json.h"
#include "tools/fileindexctl/arguments.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/error_text.h"
#include "tools/fileindexctl/event_text.h"
#include "tools/fileindexctl/output.h"
#include "tools/fileindexctl/table.h"

namespace fileindexctl {
namespace {

using orbisk::fileindex::Folder;
using orbisk::fileindex::FolderMgr;

constexpr char kFoldersFile[] = "/var/packages/Orbisk/etc/fileindex.folders";

struct Options {
  std::string path;
  std::string sort_by = "name";
  bool descending = false;
  std::string group = "all";
  std::string keyword;
  unsigned long offset = 0;
  unsigned long limit = std::numeric_limits<unsigned long>::max();
  bool status = false;
  bool paths = false;
  bool json = false;
};

Json::Value Additional(const Options& options) {
  Json::Value additional(Json::arrayValue);
  if (options.status) {
    additional.append("status");
  }
  return additional;
}

std::string OrDash(const std::string& text) {
  return text.empty() ? "-" : text;
}

std::string Kinds(const Json::Value& folder) {
  std::string kinds;
  for (const char* const kind : {"document", "audio", "video", "photo"}) {
    if (folder[kind].asBool()) {
      kinds += (kinds.empty() ? "" : ",") + std::string(kind);
    }
  }
  return OrDash(kinds);
}

std::string Status(const Json::Value& folder) {
  const Json::Value& status = folder["additional"]["status"];
  return status["text"].asString() + (status.isMember("desc") ? ": " + status["desc"].asString() : "");
}

std::string ListText(const Json::Value& folders, const Options& options, unsigned long total) {
  std::vector<std::string> headings = {"PATH", "NAME", "KINDS", "GROUP", "OWNER"};
  if (options.status) {
    headings.emplace_back("STATUS");
  }
  Table table(headings);
  for (const Json::Value& folder : folders) {
    std::vector<std::string> cells = {folder["path"].asString(), folder["name"].asString(), Kinds(folder),
                                      OrDash(folder["group"].asString()), OrDash(folder["owner"].asString())};
    if (options.status) {
      cells.push_back(Status(folder));
    }
    table.Add(cells);
  }
  return table.Text() + std::to_string(folders.size()) + " of " + std::to_string(total) + " folders\n";
}

// Where in the folders file the first entry stands that cannot be read.
std::string PlaceOfBadEntry() {
  Json::Value entries;
  orbisk::fromFile(entries, kFoldersFile);
  for (Json::ArrayIndex i = 0; entries.isArray() && i < entries.size(); ++i) {
    try {
      const Folder checked(entries[i]);
    } catch (const orbisk::Error&) {
      return "entry " + std::to_string(i + 1) + " of " + kFoldersFile;
    }
  }
  return kFoldersFile;
}

// The folders file may be edited by hand, so a fault in it is shown with its place.
FolderMgr LoadFolders() {
  try {
    return {};
  } catch (const orbisk::Error& error) {
    if (error.reason().find(kFoldersFile) != std::string::npos) {
      throw;
    }
    throw WithContext(error, PlaceOfBadEntry());
  }
}

// The data of all `folders`, which are asked together: that reads each queue once. Only when this fails are they asked
// one by one, to name the one at fault.
Json::Value DataOf(const std::vector<std::shared_ptr<Folder>>& folders, const Json::Value& additional) {
  try {
    return GetDataWithAdditional(folders, additional);
  } catch (const orbisk::Error&) {
    for (const auto& folder : folders) {
      try {
        folder->GetDataWithAdditional(additional);
      } catch (const orbisk::Error& error) {
        throw WithContext(error, "indexed folder " + folder->GetPath());
      }
    }
    throw;
  }
}

void PrintPaths(const std::vector<std::shared_ptr<Folder>>& folders) {
  Output out(STDOUT_FILENO);
  for (const auto& folder : folders) {
    out.Write(OneLine(folder->GetPath()) + "\n");
  }
  out.Flush();
}

void List(const Options& options) {
  std::vector<std::shared_ptr<Folder>> page;
  unsigned long total = 0;
  LoadFolders().List(page, total, options.offset, options.limit, options.sort_by, options.descending ? "desc" : "asc",
                     options.group, options.keyword);
  if (options.paths) {
    PrintPaths(page);
    return;
  }
  const Json::Value folders = DataOf(page, Additional(options));
  Output out(STDOUT_FILENO);
  if (options.json) {
    Json::Value answer;
    answer["folder"] = folders;
    answer["total"] = Json::UInt64(total);
    answer["offset"] = Json::UInt64(options.offset);
    out.Write(orbisk::toString(answer) + "\n");
  } else {
    out.Write(ListText(folders, options, total));
  }
  out.Flush();
}

std::string FolderText(const Json::Value& folder, const Options& options) {
  Table table({"path:", folder["path"].asString()});
  table.Add({"name:", folder["name"].asString()});
  table.Add({"kinds:", Kinds(folder)});
  table.Add({"group:", OrDash(folder["group"].asString())});
  table.Add({"owner:", OrDash(folder["owner"].asString())});
  table.Add({"privileged:", YesNo(folder["privileged"].asBool())});
  table.Add({"paused:", YesNo(folder["paused"].asBool())});
  table.Add({"volume to be cleaned:", OrDash(folder["volume_to_be_clean"].asString())});
  if (options.status) {
    table.Add({"status:", Status(folder)});
  }
  return table.Text();
}

void Get(const Options& options) {
  std::shared_ptr<Folder> folder;
  LoadFolders().Get(folder, options.path);
  const Json::Value data = folder->GetDataWithAdditional(Additional(options));
  Output out(STDOUT_FILENO);
  out.Write(options.json ? orbisk::toString(data) + "\n" : FolderText(data, options));
  out.Flush();
}

}  // namespace

void AddFolderCommands(CLI::App& app) {
  CLI::App* const group = app.add_subcommand("folder", "The indexed folders");
  group->require_subcommand(1);
  const auto options = std::make_shared<Options>();

  AddFolderChanges(*group);

  CLI::App* const list = group->add_subcommand("list", "The indexed folders, sorted and filtered");
  list->add_option("--sort", options->sort_by, "What to sort by")
      ->check(CLI::IsMember({"name", "path", "document", "audio", "video", "photo"}))
      ->capture_default_str();
  list->add_flag("--desc", options->descending, "The other way round");
  list->add_option("--group", options->group, "Only folders of this group; 'all' for any, '' for none")
      ->capture_default_str();
  list->add_option("--keyword", options->keyword, "Only folders with this in their name, in any case");
  list->add_option("--offset", options->offset, "Leave out the first so many")
      ->type_name("COUNT")
      ->check(PlainNumber())
      ->capture_default_str();
  list->add_option("--limit", options->limit, "At most so many; all if not given")
      ->type_name("COUNT")
      ->check(PlainNumber());
  list->callback([options] { List(*options); });

  CLI::App* const get = group->add_subcommand("get", "One indexed folder");
  get->add_option("PATH", options->path, "Its share path, for example /photo/2019")->required();
  get->callback([options] { Get(*options); });

  for (CLI::App* const command : {list, get}) {
    command->add_flag("--status", options->status, "Say how far its indexing is");
    command->add_flag("--json", options->json, "Print one line of JSON");
  }
  list->add_flag("--paths", options->paths, "Print the share paths alone, one a line")
      ->excludes("--json")
      ->excludes("--status");
}

}  // namespace fileindexctl
