// "fileindexctl monitor": which folders the change monitor watches for which queue file.
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "nimo/monitor_queue.h"
#include "orbisk/json.h"
#include "tools/fileindexctl/commands.h"

namespace fileindexctl {
namespace {

using NIMO::NIMOTIFYD::MONITOR_QUEUE_TYPE_APPLICATION;
using NIMO::NIMOTIFYD::MonitorQueue;

// The bits that the library registers for an indexed folder; reindex and update-directory lines are its own.
constexpr int kMask = 0xffc6;

struct Options {
  std::string queue;
  std::string folder;
  std::vector<std::string> ignore;
  std::string app = "fileindexctl";
};

std::string Absolute(const std::string& path) {
  std::string absolute = std::filesystem::absolute(path).lexically_normal();
  while (absolute.size() > 1 && absolute.back() == '/') {
    absolute.pop_back();
  }
  return absolute;
}

void Register(const Options& options) {
  const std::string folder = Absolute(options.folder);
  if (!std::filesystem::is_directory(folder)) {
    throw std::runtime_error("not a folder: " + folder);
  }
  Json::Value config;
  config["path"] = folder;
  config["mask"] = kMask;
  config["ignore"] = orbisk::Vec2JsonArr(options.ignore);
  Json::Value description;
  description["queue"] = Absolute(options.queue);
  description["config"].append(config);
  if (!MonitorQueue::Upsert(MonitorQueue(description), options.app, MONITOR_QUEUE_TYPE_APPLICATION)) {
    throw std::runtime_error("cannot register " + options.queue + " with the change monitor");
  }
}

void Unregister(const Options& options) {
  if (!MonitorQueue::Delete(Absolute(options.queue), options.app, MONITOR_QUEUE_TYPE_APPLICATION)) {
    throw std::runtime_error("cannot remove the registration of " + options.queue);
  }
}

}  // namespace

void AddMonitorCommands(CLI::App& app) {
  CLI::App* const group = app.add_subcommand("monitor", "What the change monitor watches");
  group->require_subcommand(1);
  const auto options = std::make_shared<Options>();

  CLI::App* const add = group->add_subcommand(
      "register", "Watch a folder for a queue file, in place of what was registered for that file");
  add->add_option("QUEUE", options->queue, "Queue file that changes are appended to")->required();
  add->add_option("FOLDER", options->folder, "Folder that is watched with everything below it")->required();
  add->add_option("--ignore", options->ignore, "Name that is skipped at any depth; may be given several times")
      ->allow_extra_args(false);
  add->callback([options] { Register(*options); });

  CLI::App* const remove = group->add_subcommand("unregister", "Stop watching for a queue file; the file stays");
  remove->add_option("QUEUE", options->queue, "Queue file")->required();
  remove->callback([options] { Unregister(*options); });

  for (CLI::App* const command : {add, remove}) {
    command->add_option("--app", options->app, "Application that the registration belongs to")->capture_default_str();
  }
}

}  // namespace fileindexctl
