// "fileindexctl extract": what the extractor sees in a file, for support.
#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>

#include "orbisk/fileindex/metadata_names.h"
#include "orbisk/json.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/daemon_client.h"
#include "tools/fileindexctl/event_text.h"
#include "tools/fileindexctl/output.h"
#include "tools/fileindexctl/table.h"

namespace fileindexctl {
namespace {

constexpr const char* kText = orbisk::fileindex::elastic::kMDTextContent;

struct Options {
  std::string file;
  bool json = false;
};

std::string ValueText(const Json::Value& value) {
  return value.isString() ? value.asString() : orbisk::toString(value);
}

// The fields, then a blank line and the text.
std::string DocumentText(const Json::Value& response) {
  const Json::Value& document = response["data"];
  Table table({"FIELD", "VALUE"});
  for (const std::string& name : document.getMemberNames()) {
    if (name != kText) {
      table.Add({name, ValueText(document[name])});
    }
  }
  std::string text = table.Text();
  if (response.isMember("broken")) {
    text += "\nThe content is broken: " + OneLine(ValueText(response["broken"])) + "\n";
  }
  if (document[kText].isString()) {
    text += "\n";
    std::istringstream lines(document[kText].asString());
    for (std::string line; std::getline(lines, line);) {
      text += OneLine(line) + "\n";
    }
  }
  return text + (response["cut"].asBool() ? "\nThere is more text than is indexed of one file.\n" : "");
}

void Extract(const Options& options) {
  Json::Value request;
  request["path"] = std::filesystem::absolute(options.file).string();
  request["need_meta"] = true;
  const Json::Value response = AskExtractor(request);
  Output out(STDOUT_FILENO);
  out.Write(options.json ? orbisk::toString(response) + "\n" : DocumentText(response));
  out.Flush();
}

}  // namespace

void AddExtractCommand(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  CLI::App* const extract = app.add_subcommand("extract", "What the extractor sees in a file");
  extract->add_option("FILE", options->file, "The file")->required();
  extract->add_flag("--json", options->json, "Print one line of JSON: the extractor's response");
  extract->callback([options] { Extract(*options); });
}

}  // namespace fileindexctl
