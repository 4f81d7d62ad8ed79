// "fileindexctl share": the shares of this machine.
#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "nimo/share_registry.h"
#include "orbisk/fileindex/folder_mgr.h"
#include "orbisk/json.h"
#include "orbisk/sdk/share.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/event_text.h"
#include "tools/fileindexctl/output.h"
#include "tools/fileindexctl/table.h"

namespace fileindexctl {
namespace {

using NIMO::SHARE::Entry;
using orbisk::fileindex::FolderMgr;
using orbisk::sdk::SDKShare;

struct Options {
  Entry entry;
  bool names = false;
  bool force = false;
  bool json = false;
};

Json::Value EntryJson(const Entry& entry) {
  Json::Value value;
  value["name"] = entry.name;
  value["path"] = entry.path;
  value["encrypted"] = entry.encrypted;
  value["encryption"] = entry.encryption;
  value["read_only"] = entry.read_only;
  value["recycle"] = entry.recycle;
  value["hide_unreadable"] = entry.hide_unreadable;
  value["ftp_privilege"] = entry.ftp_privilege;
  return value;
}

std::string Flags(const Entry& entry) {
  const std::pair<bool, const char*> flags[] = {{entry.encrypted, "encrypted"},
                                                {entry.encryption, "encryption"},
                                                {entry.read_only, "read-only"},
                                                {entry.recycle, "recycle"},
                                                {entry.hide_unreadable, "hide-unreadable"}};
  std::string text;
  for (const auto& [set, name] : flags) {
    if (set) {
      text += (text.empty() ? "" : ",") + std::string(name);
    }
  }
  return text.empty() ? "-" : text;
}

void Register(const Options& options) {
  NIMO::SHARE::Register(options.entry);
}

// What is indexed of a share that is gone can only be forgotten.
void Unregister(const Options& options) {
  const std::string& name = options.entry.name;
  const std::vector<Entry> shares = NIMO::SHARE::List();
  if (std::none_of(shares.begin(), shares.end(), [&](const Entry& entry) { return entry.name == name; })) {
    throw std::runtime_error("no such share: " + name);
  }
  if (!options.force && FolderMgr().IsShareIndexed(name)) {
    throw std::runtime_error("folders of the share " + name + " are indexed; 'fileindexctl folder delete --share " +
                             name + "' ends that, and --force unregisters it nevertheless");
  }
  NIMO::SHARE::Unregister(name);
}

void ListNames() {
  Output out(STDOUT_FILENO);
  for (const Entry& entry : NIMO::SHARE::List()) {
    out.Write(OneLine(entry.name) + "\n");
  }
  out.Flush();
}

void List(const Options& options) {
  if (options.names) {
    ListNames();
    return;
  }
  Json::Value shares(Json::arrayValue);
  Table table({"NAME", "PATH", "FLAGS"});
  for (const Entry& entry : NIMO::SHARE::List()) {
    shares.append(EntryJson(entry));
    table.Add({entry.name, entry.path, Flags(entry)});
  }
  Output out(STDOUT_FILENO);
  out.Write(options.json ? orbisk::toString(shares) + "\n" : table.Text());
  out.Flush();
}

Json::Value AnswersOf(const SDKShare& share) {
  Json::Value value;
  value["name"] = share.GetName();
  value["path"] = share.GetPath();
  value["can_be_indexed"] = share.CanBeIndexed();
  value["encryption"] = share.IsEncryption();
  value["recycle"] = share.IsEnableRecycleBin();
  value["hide_unreadable"] = share.IsHideUnReadable();
  value["space_enough"] = share.IsSpaceEnough();
  value["ftp_privilege"] = share.GetFTPPrivilege();
  value["queue"] = share.GetQueuePath();
  value["db"] = share.GetDBPath();
  value["index"] = share.GetDBName();
  return value;
}

std::string AnswersText(const Json::Value& answers) {
  Table table({"name:", answers["name"].asString()});
  table.Add({"path:", answers["path"].asString()});
  table.Add({"can be indexed:", YesNo(answers["can_be_indexed"].asBool())});
  table.Add({"encrypted kind:", YesNo(answers["encryption"].asBool())});
  table.Add({"recycle bin:", YesNo(answers["recycle"].asBool())});
  table.Add({"hides unreadable:", YesNo(answers["hide_unreadable"].asBool())});
  table.Add({"space enough:", YesNo(answers["space_enough"].asBool())});
  table.Add({"FTP privilege:", answers["ftp_privilege"].asString()});
  table.Add({"queue:", answers["queue"].asString()});
  table.Add({"database:", answers["db"].asString()});
  table.Add({"index:", answers["index"].asString()});
  return table.Text();
}

void Show(const Options& options) {
  const Json::Value answers = AnswersOf(SDKShare(options.entry.name));
  Output out(STDOUT_FILENO);
  out.Write(options.json ? orbisk::toString(answers) + "\n" : AnswersText(answers));
  out.Flush();
}

}  // namespace

void AddShareCommands(CLI::App& app) {
  CLI::App* const group = app.add_subcommand("share", "The shares of this machine");
  group->require_subcommand(1);
  const auto options = std::make_shared<Options>();
  Entry& entry = options->entry;

  AddShareOperations(*group);

  CLI::App* const add = group->add_subcommand("register", "Make a folder a share, or change a share");
  add->add_option("NAME", entry.name, "The share's name")->required();
  add->add_option("PATH", entry.path, "Its folder: an absolute path that ends in NAME")->required();
  add->add_flag("--encrypted", entry.encrypted, "Its content is locked by encryption now");
  add->add_flag("--encryption", entry.encryption, "It is of the encrypted kind, mounted at PATH while unlocked");
  add->add_flag("--read-only", entry.read_only, "Nobody may write to it");
  add->add_flag("--recycle", entry.recycle, "Removed files go to its folder #recycle");
  add->add_flag("--hide-unreadable", entry.hide_unreadable, "People do not see what they may not read");
  add->add_option("--ftp-privilege", entry.ftp_privilege, "What FTP clients may do")->capture_default_str();
  add->callback([options] { Register(*options); });

  CLI::App* const remove = group->add_subcommand("unregister", "Make a share a plain folder again; its files stay");
  remove->add_option("NAME", entry.name, "The share's name")->required();
  remove->add_flag("--force", options->force, "Also while folders of it are indexed, to make it a share elsewhere");
  remove->callback([options] { Unregister(*options); });

  CLI::App* const list = group->add_subcommand("list", "All shares as they are registered");
  list->callback([options] { List(*options); });

  CLI::App* const show = group->add_subcommand("show", "What the library sees of a share");
  show->add_option("NAME", entry.name, "The share's name")->required();
  show->callback([options] { Show(*options); });

  for (CLI::App* const command : {list, show}) {
    command->add_flag("--json", options->json, "Print one line of JSON");
  }
  list->add_flag("--names", options->names, "Print the names alone, one a line")->excludes("--json");
}

}  // namespace fileindexctl
