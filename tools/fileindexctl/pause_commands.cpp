// "fileindexctl pause", "resume" and "status": whether indexing runs.
#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "orbisk/error.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/json.h"
#include "orbisk/sdk/share.h"
#include "tools/fileindexctl/arguments.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/output.h"
#include "tools/fileindexctl/table.h"
#include "tools/fileindexctl/watch.h"

namespace fileindexctl {
namespace {

using orbisk::fileindex::StatusMgr;

// 3600 times this still fits into 32 bits, which is what the library counts with.
constexpr int kMostHours = 596523;

struct Options {
  int hours = 0;
  bool watch = false;
  WatchOptions watch_options;
  bool json = false;
};

// Runs what stores a state first and tells the indexing daemon then. A daemon that cannot be told reads the state when
// it starts, so the user must hear that it is stored.
void StoreAndTell(const std::function<void()>& change) {
  try {
    change();
  } catch (const orbisk::Error& error) {
    if (error.code() != orbisk::Code(502) || error.reason().find("chmod") == 0) {
      throw;
    }
    throw orbisk::Error(error.code(), "stored, but the indexing daemon could not be told and follows when it starts: " +
                                          error.reason());
  }
}

void Pause(const Options& options) {
  StoreAndTell([&] { StatusMgr().Pause(options.hours); });
}

void Resume(const Options&) {
  StoreAndTell([] { StatusMgr().Resume(); });
}

std::string LocalTime(long seconds) {
  const time_t instant = seconds;
  struct tm local = {};
  std::array<char, 64> text;
  if (localtime_r(&instant, &local) == nullptr || strftime(text.data(), text.size(), "%F %T %Z", &local) == 0) {
    return std::to_string(seconds);
  }
  return text.data();
}

std::string PauseText(long resume_time) {
  if (resume_time == 0) {
    return "without end";
  }
  return resume_time > time(nullptr) ? "until " + LocalTime(resume_time) : "no";
}

Json::Value StatusJson(const StatusMgr& status) {
  const long resume_time = status.GetPauseInfo();
  Json::Value value;
  value["paused"] = resume_time == 0 || resume_time > time(nullptr);
  value["resume_time"] = Json::Int64(resume_time);
  value["vmt_enabled"] = status.GetVMTouchEnabled();
  value["share"] = Json::Value(Json::objectValue);
  for (const std::string& share : orbisk::sdk::SDKShare::Enum()) {
    if (const int flags = status.GetShareStatus(share); flags != 0) {
      value["share"][share] = flags;
    }
  }
  return value;
}

std::string StatusText(const Json::Value& status) {
  Table table({"paused:", PauseText(status["resume_time"].asInt64())});
  table.Add({"keep index in memory:", YesNo(status["vmt_enabled"].asBool())});
  for (const std::string& share : status["share"].getMemberNames()) {
    const int flags = status["share"][share].asInt();
    table.Add({"share " + share + ":", (flags & 1) != 0 ? "needs a reindex" : "flags " + std::to_string(flags)});
  }
  return table.Text();
}

void ShowStatus(Options& options) {
  if (options.watch) {
    options.watch_options.json = options.json;
    Watch(options.watch_options);
    return;
  }
  const Json::Value status = StatusJson(StatusMgr());
  Output out(STDOUT_FILENO);
  out.Write(options.json ? orbisk::toString(status) + "\n" : StatusText(status));
  out.Flush();
}

}  // namespace

void AddPauseAndResume(CLI::App& app) {
  const auto options = std::make_shared<Options>();

  CLI::App* const pause = app.add_subcommand("pause", "Pause indexing");
  pause->add_option("HOURS", options->hours, "For so many hours; without end if 0 or not given")
      ->check(PlainNumber())
      ->check(CLI::Range(0, kMostHours));
  pause->callback([options] { Pause(*options); });

  CLI::App* const resume = app.add_subcommand("resume", "End a pause");
  resume->callback([options] { Resume(*options); });
}

void AddPauseCommands(CLI::App& app) {
  AddPauseAndResume(app);
  const auto options = std::make_shared<Options>();
  CLI::App* const status = app.add_subcommand("status", "Whether indexing is paused, and which shares need a reindex");
  status->add_flag("--json", options->json, "Print one line of JSON, with --watch one for each change");
  CLI::Option* const watch =
      status->add_flag("--watch", options->watch, "Show how far the indexing daemon is, until interrupted");
  status->add_flag("--until-done", options->watch_options.until_done, "With --watch: end when nothing is left to do")
      ->needs(watch);
  status->add_option("--share", options->watch_options.share, "With --watch: only this share")->needs(watch);
  status->callback([options] { ShowStatus(*options); });
}

}  // namespace fileindexctl
