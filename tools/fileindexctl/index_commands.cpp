// "fileindexctl index": the indexes of the search daemon, for operators.
#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/json.h"
#include "orbisk/sdk/share.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/confirm.h"
#include "tools/fileindexctl/daemon_client.h"
#include "tools/fileindexctl/output.h"
#include "tools/fileindexctl/table.h"

namespace fileindexctl {
namespace {

namespace elastic = orbisk::fileindex::elastic;

struct Options {
  std::string share;
  bool check = false;
  bool yes = false;
  bool json = false;
};

Json::Value IdOf(const std::string& share) {
  Json::Value data;
  data["id"] = elastic::GetFileIndexID(share);
  return data;
}

std::string OrDash(const Json::Value& value) {
  const std::string text = value.asString();
  return text.empty() ? "-" : text;
}

void List(const Options& options) {
  const Json::Value indexes = AskSearchDaemon("index_list", Json::Value(Json::objectValue));
  Table table({"INDEX", "STATE", "PATH", "PROBLEM"});
  for (const Json::Value& index : indexes) {
    table.Add({OrDash(index["id"]), OrDash(index["state"]), OrDash(index["path"]), OrDash(index["problem"])});
  }
  Output out(STDOUT_FILENO);
  out.Write(options.json ? orbisk::toString(indexes) + "\n" : table.Text());
  out.Flush();
}

std::string StatText(const Json::Value& stat) {
  Table table({"index:", OrDash(stat["id"])});
  table.Add({"path:", OrDash(stat["path"])});
  table.Add({"state:", OrDash(stat["state"])});
  table.Add({"documents:", OrDash(stat["documents"])});
  table.Add({"bytes:", OrDash(stat["bytes"])});
  table.Add({"uncommitted:", stat["uncommitted"].isBool() ? YesNo(stat["uncommitted"].asBool()) : "-"});
  table.Add({"checked:", YesNo(stat["checked"].asBool())});
  table.Add({"problem:", OrDash(stat["problem"])});
  table.Add({"being repaired:", YesNo(stat["repairing"].asBool())});
  return table.Text();
}

void Stat(const Options& options) {
  Json::Value data = IdOf(options.share);
  data["check"] = options.check;
  const Json::Value stat = AskSearchDaemon("index_stat", data);
  Output out(STDOUT_FILENO);
  out.Write(options.json ? orbisk::toString(stat) + "\n" : StatText(stat));
  out.Flush();
  // An index that is not open is not looked at, and that is not the answer that was hoped for.
  if (options.check && (!stat["checked"].asBool() || !stat["problem"].asString().empty())) {
    throw AnswerIsNo();
  }
}

// Not by the library's own call: that one waits for a daemon that is busy, for hours if need be.
void Create(const Options& options) {
  Json::Value data = IdOf(options.share);
  data["path"] = orbisk::sdk::SDKShare(options.share).GetDBPath();
  data["settings"] = elastic::GetFileIndexSettings();
  data["mappings"] = elastic::GetFileIndexMappings();
  data["event_handler"] = elastic::GetFileIndexEventHandler();
  AskSearchDaemon("index_create", data);
}

void Delete(const Options& options) {
  Confirm("Delete the index of the share " + options.share + "?", options.yes);
  AskSearchDaemon("index_delete", IdOf(options.share));
}

}  // namespace

void AddIndexCommands(CLI::App& app) {
  CLI::App* const group = app.add_subcommand("index", "The indexes of the search daemon");
  group->require_subcommand(1);
  const auto options = std::make_shared<Options>();

  CLI::App* const list = group->add_subcommand("list", "All indexes, and whether they can be used");
  list->callback([options] { List(*options); });

  CLI::App* const stat = group->add_subcommand("stat", "Numbers of the index of a share");
  stat->add_flag("--check", options->check, "Read it all and look for damage, which is then repaired");
  stat->callback([options] { Stat(*options); });

  CLI::App* const create = group->add_subcommand("create", "Make an empty index for a share");
  create->callback([options] { Create(*options); });

  CLI::App* const remove = group->add_subcommand("delete", "Delete the index of a share; the share's files stay");
  AddYes(*remove, options->yes);
  remove->callback([options] { Delete(*options); });

  for (CLI::App* const command : {stat, create, remove}) {
    command->add_option("SHARE", options->share, "The share's name")->required();
  }
  for (CLI::App* const command : {list, stat}) {
    command->add_flag("--json", options->json, "Print one line of JSON");
  }
}

}  // namespace fileindexctl
