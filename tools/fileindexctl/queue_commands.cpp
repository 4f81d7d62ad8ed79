// "fileindexctl queue": the operations that a queue file folds into, and its raw events.
#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "orbisk/error.h"
#include "orbisk/fileindex/optree.h"
#include "orbisk/json.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/event_text.h"
#include "tools/fileindexctl/output.h"
#include "tools/fileindexctl/queue_file.h"

namespace fileindexctl {
namespace {

using orbisk::toString;
using orbisk::fileindex::Event;
using orbisk::fileindex::OP;
using orbisk::fileindex::OPTree;

struct Options {
  std::string file;
  bool count = false;
  bool json = false;
};

// Reasons hold the whole line they are about, which can be a megabyte of rubbish.
constexpr size_t kShownReasonBytes = 200;

Json::Value OperationJson(const OP& op) {
  Json::Value value;
  value["op"] = static_cast<Json::Int>(op.op);
  value["name"] = OperationName(op.op);
  value["path"] = op.node->GetPath();
  value["path_old"] = op.op == orbisk::fileindex::OP_RENAME ? op.path : "";
  value["data"] = op.data;
  return value;
}

void WriteCount(int count, Output& out) {
  out.Write("count=" + std::to_string(count) + "\n");
}

void WriteOperationsText(OPTree& tree, Output& out) {
  std::ostringstream printed;
  const int count = tree.ProcessOP([&](const std::shared_ptr<OP>& op) {
    printed.str("");
    printed << op;
    out.Write(OneLine(printed.view()) + "\n");
  });
  WriteCount(count, out);
}

// The count stands first and is known last: the operations are kept until then, which is little beside their tree.
void WriteOperationsJson(OPTree& tree, Output& out) {
  std::vector<std::shared_ptr<OP>> operations;
  const int count = tree.ProcessOP([&](const std::shared_ptr<OP>& op) { operations.push_back(op); });
  out.Write("{\"count\":" + std::to_string(count) + ",\"operations\":[");
  const char* separator = "\n";
  for (const std::shared_ptr<OP>& op : operations) {
    out.Write(separator + toString(OperationJson(*op)));
    separator = ",\n";
  }
  out.Write("]}\n");
}

void ShowOperations(const Options& options) {
  RequireReadableFile(options.file);
  OPTree tree(options.file);
  Output out(STDOUT_FILENO);
  if (options.count) {
    WriteCount(tree.ProcessOP([](const std::shared_ptr<OP>&) {}), out);
  } else if (options.json) {
    WriteOperationsJson(tree, out);
  } else {
    WriteOperationsText(tree, out);
  }
  out.Flush();
}

std::string JoinBits(const Event& event) {
  std::string joined;
  for (const std::string& name : EventBitNames(event.event)) {
    joined += (joined.empty() ? "" : "|") + name;
  }
  return joined;
}

std::string EventText(const Event& event) {
  std::string text = JoinBits(event) + (event.is_dir ? "  dir  " : "  file  ");
  if ((event.event & orbisk::fileindex::EVENT_RENAME) != 0) {
    text += event.path_old + " -> ";
  }
  text += event.path;
  if (!event.data.isNull()) {
    text += "  data=" + toString(event.data);
  }
  return OneLine(text);
}

std::string MalformedText(const orbisk::Error& error) {
  const std::string& reason = error.reason();
  std::string text = "malformed  code=" + std::to_string(error.code()) + "  " +
                     OneLine(std::string_view(reason).substr(0, kShownReasonBytes));
  if (reason.size() > kShownReasonBytes) {
    text += "... (" + std::to_string(reason.size()) + " bytes)";
  }
  return text;
}

std::string EventJson(const Event& event, size_t line_number) {
  Json::Value value;
  value["line"] = Json::UInt64(line_number);
  value["event"] = event.event;
  value["bits"] = orbisk::Vec2JsonArr(EventBitNames(event.event));
  value["is_dir"] = event.is_dir;
  value["path"] = event.path;
  value["path_old"] = event.path_old;
  value["data"] = event.data;
  return toString(value);
}

std::string MalformedJson(const orbisk::Error& error, size_t line_number) {
  Json::Value value;
  value["line"] = Json::UInt64(line_number);
  value["malformed"]["code"] = static_cast<Json::Int>(error.code());
  value["malformed"]["reason"] = error.reason();
  return toString(value);
}

std::string LineText(const std::string& line, size_t line_number, bool json) {
  const std::string number = std::to_string(line_number) + "  ";
  try {
    const Event event(line);
    return json ? EventJson(event, line_number) : number + EventText(event);
  } catch (const orbisk::Error& error) {
    return json ? MalformedJson(error, line_number) : number + MalformedText(error);
  }
}

void ShowEvents(const Options& options) {
  RequireReadableFile(options.file);
  std::ifstream stream(options.file);
  if (!stream) {
    throw std::runtime_error("cannot read " + options.file + ": " + strerror(errno));
  }
  Output out(STDOUT_FILENO);
  std::string line;
  for (size_t line_number = 1; std::getline(stream, line); ++line_number) {
    out.Write(LineText(line, line_number, options.json) + "\n");
  }
  out.Flush();
}

CLI::App* AddCommand(CLI::App& group, const std::string& name, const std::string& description,
                     const std::shared_ptr<Options>& options, void (*run)(const Options&)) {
  CLI::App* const command = group.add_subcommand(name, description);
  command->add_option("FILE", options->file, "Queue file, or a side file")->required();
  command->callback([options, run] { run(*options); });
  return command;
}

}  // namespace

void AddQueueCommands(CLI::App& app) {
  CLI::App* const group = app.add_subcommand("queue", "What is in a queue file; the file is never changed");
  group->require_subcommand(1);
  const auto options = std::make_shared<Options>();

  CLI::App* const ops = AddCommand(*group, "ops", "The operations that the events fold into, in order of delivery",
                                   options, ShowOperations);
  CLI::Option* const count = ops->add_flag("--count", options->count, "Print the last line alone");
  ops->add_flag("--json", options->json, "Print one JSON object")->excludes(count);

  CLI::App* const events = AddCommand(*group, "events", "The raw events, line by line", options, ShowEvents);
  events->add_flag("--json", options->json, "Print one JSON object for each line");
}

}  // namespace fileindexctl
