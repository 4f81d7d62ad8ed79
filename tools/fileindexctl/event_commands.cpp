// "fileindexctl event": events of one's own, for repair.
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <map>
#include <memory>
#include <string>

#include "orbisk/fileindex/op.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"
#include "tools/fileindexctl/arguments.h"
#include "tools/fileindexctl/commands.h"

namespace fileindexctl {
namespace {

const std::map<std::string, int> kTypes = {{"reindex", orbisk::fileindex::EVENT_REINDEX},
                                           {"rename", orbisk::fileindex::EVENT_RENAME},
                                           {"update_directory", orbisk::fileindex::EVENT_UPDATE_DIRECTORY}};

struct Options {
  std::string type;
  std::string path;
  std::string path_old;
  std::string data;
};

void Add(const Options& options) {
  const int type = kTypes.at(options.type);
  const bool is_rename = type == orbisk::fileindex::EVENT_RENAME;
  if (is_rename != !options.path_old.empty()) {
    throw CLI::ValidationError("--old", is_rename ? "a rename needs it" : "only a rename has it");
  }
  Json::Value data;
  if (!options.data.empty() && !orbisk::fromString(data, options.data)) {
    throw CLI::ValidationError("--data", "not JSON: " + options.data);
  }
  orbisk::fileindex::AddCustomEvent(type, options.path, options.path_old, data);
}

}  // namespace

void AddEventCommands(CLI::App& app) {
  CLI::App* const group = app.add_subcommand("event", "Events of one's own, for repair");
  group->require_subcommand(1);
  const auto options = std::make_shared<Options>();

  CLI::App* const add = group->add_subcommand(
      "add",
      "Append an event to the queue of the share that holds a path. Writes nothing if the share cannot be indexed "
      "or a reindex that covers the path is waiting already");
  add->add_option("TYPE", options->type, "What to ask for")
      ->required()
      ->check(CLI::IsMember({"reindex", "rename", "update_directory"}));
  add->add_option("PATH", options->path, "The full path that it is about; of a rename, the new one")
      ->required()
      ->check(PlainFullPath());
  add->add_option("--old", options->path_old, "The full path before a rename")->check(PlainFullPath());
  add->add_option("--data", options->data, "JSON that belongs to the type, for example {\"document\":true}");
  add->callback([options] { Add(*options); });
}

}  // namespace fileindexctl
