// "fileindexctl daemon" and "failures": what the indexing daemon does.
#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <memory>
#include <optional>
#include <string>

#include "orbisk/json.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/daemon_client.h"
#include "tools/fileindexctl/indexed.h"
#include "tools/fileindexctl/output.h"
#include "tools/fileindexctl/progress_text.h"
#include "tools/fileindexctl/table.h"

namespace fileindexctl {
namespace {

struct Options {
  std::optional<std::string> share;
  bool json = false;
  bool count = false;
};

std::string OrDash(const Json::Value& value) {
  const std::string text = value.asString();
  return text.empty() ? "-" : text;
}

std::string StatusText(const Json::Value& status) {
  Table table({"SHARE", "STATE", "DONE", "TO DO", "PER SECOND", "TIME LEFT", "FAILED", "FILE", "PROBLEM"});
  for (const Json::Value& share : status["shares"]) {
    const bool has_pass = share["rate"].isNumeric();
    table.Add({OrDash(share["share"]), OrDash(share["state"]), OrDash(share["done"]), OrDash(share["to_do"]),
               has_pass ? std::to_string(std::lround(share["rate"].asDouble())) : "-", OrDash(TimeLeft(share)),
               OrDash(share["failed"]), OrDash(share["file"]), OrDash(share["problem"])});
  }
  return table.Text() + "paused: " + YesNo(status["paused"].asBool()) + "\n";
}

void ShowStatus(const Options& options) {
  const Json::Value status = AskIndexer("status");
  Output out(STDOUT_FILENO);
  out.Write(options.json ? orbisk::toString(status) + "\n" : StatusText(status));
  out.Flush();
}

// One for each file.
void ListFailures(const Json::Value& share, Table& table, Json::Value& failures) {
  const std::string name = share["share"].asString();
  for (Json::Value failure : share["failures"]) {
    failure["share"] = name;
    table.Add({name, failure["path"].asString(), failure["reason"].asString()});
    failures.append(failure);
  }
}

// One for each reason.
void CountFailures(const Json::Value& share, Table& table, Json::Value& failures) {
  const std::string name = share["share"].asString();
  const Json::Value& reasons = share["reasons"];
  for (const std::string& reason : reasons.isObject() ? reasons.getMemberNames() : Json::Value::Members()) {
    Json::Value count;
    count["share"] = name;
    count["reason"] = reason;
    count["files"] = reasons[reason];
    table.Add({name, reasons[reason].asString(), reason});
    failures.append(count);
  }
}

void ShowFailures(const Options& options) {
  Json::Value failures(Json::arrayValue);
  Table table({"SHARE", options.count ? "FILES" : "PATH", "REASON"});
  Json::Value wanted;
  wanted["failures"] = "all";
  const Json::Value status = AskIndexer("status", options.count ? Json::Value() : wanted);
  bool is_known = !options.share;
  for (const Json::Value& share : status["shares"]) {
    if (!options.share || *options.share == share["share"].asString()) {
      is_known = true;
      (options.count ? CountFailures : ListFailures)(share, table, failures);
    }
  }
  if (!is_known) {  // the daemon may not have heard yet of one that was added just now
    CheckIndexed(*options.share);
  }
  Output out(STDOUT_FILENO);
  out.Write(options.json ? orbisk::toString(failures) + "\n" : table.Text());
  out.Flush();
}

}  // namespace

void AddDaemonCommands(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  CLI::App* const group = app.add_subcommand("daemon", "The indexing daemon");
  group->require_subcommand(1);
  AddPauseAndResume(*group);

  CLI::App* const status = group->add_subcommand("status", "What it does, for each share");
  status->callback([options] { ShowStatus(*options); });

  CLI::App* const failures = app.add_subcommand("failures", "Files that were indexed without their content, or not");
  failures->add_option("--share", options->share, "Only files of this share");
  failures->add_flag("--count", options->count, "How many for each reason");
  failures->callback([options] { ShowFailures(*options); });

  for (CLI::App* const command : {status, failures}) {
    command->add_flag("--json", options->json, "Print one line of JSON");
  }
}

}  // namespace fileindexctl
