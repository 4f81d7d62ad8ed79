// "fileindexctl search" and "suggest": people's questions to the index.
#include <json/json.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/index_mgr.h"
#include "orbisk/json.h"
#include "tools/fileindexctl/arguments.h"
#include "tools/fileindexctl/commands.h"
#include "tools/fileindexctl/daemon_client.h"
#include "tools/fileindexctl/event_text.h"
#include "tools/fileindexctl/hit_text.h"
#include "tools/fileindexctl/output.h"
#include "tools/fileindexctl/wait_notice.h"

namespace fileindexctl {
namespace {

struct Options {
  std::vector<std::string> words;
  std::string prefix;
  std::string account;
  const CLI::Option* as = nullptr;  // which names the account

  // Also an empty one, which a script's unset variable makes: nobody is not everybody.
  bool for_account() const { return as->count() > 0; }

  std::vector<std::string> shares;
  std::vector<std::string> types;
  std::string sort_by = "relevance";
  bool descending = false;
  unsigned long offset = 0;
  unsigned long limit = 0;
  bool json = false;
};

Json::Value IndexesOf(const std::vector<std::string>& shares) {
  Json::Value ids(Json::arrayValue);
  for (const std::string& share : shares) {
    ids.append(orbisk::fileindex::elastic::GetFileIndexID(share));
  }
  return ids;
}

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char byte : text) {
    quoted += byte == '"' || byte == '\\' ? std::string("\\") + byte : std::string(1, byte);
  }
  return quoted + "\"";
}

// In parentheses, because an OR in the question binds less than what stands beside it.
std::string QueryOf(const Options& options) {
  std::string query;
  for (const std::string& word : options.words) {
    query += (query.empty() ? "" : " ") + word;
  }
  std::string types;
  for (const std::string& type : options.types) {
    types += (types.empty() ? "type:" : " OR type:") + Quoted(type);
  }
  if (types.empty()) {
    return query;
  }
  const bool is_blank = query.find_first_not_of(' ') == std::string::npos;
  return is_blank ? types : "(" + query + ") (" + types + ")";
}

void AddAccount(Json::Value& data, const Options& options) {
  if (options.for_account()) {
    data["as"] = options.account;
  }
}

Json::Value SearchData(const Options& options) {
  Json::Value data;
  data["query"] = QueryOf(options);
  data["sort"] = options.sort_by;
  data["descending"] = options.descending;
  data["offset"] = Json::UInt64{options.offset};
  data["limit"] = Json::UInt64{options.limit};
  data["load_field"] = HitFields();
  data["facets"] = options.json;
  if (!options.json) {
    data["mark_begin"] = kMarkBegin;
    data["mark_end"] = kMarkEnd;
  }
  if (!options.shares.empty()) {
    data["id"] = IndexesOf(options.shares);
  }
  AddAccount(data, options);
  return data;
}

void WriteLeftOut(Output& out, const Json::Value& ids) {
  if (ids.empty()) {
    return;
  }
  out.Write("fileindexctl: these indexes could not be asked, see \"fileindexctl index list\":");
  for (const Json::Value& id : ids) {
    out.Write(" " + OneLine(id.asString()));
  }
  out.Write("\n");
}

// What is missing from the answer. To people, beside the hits: a script that counts lines is not disturbed.
void WriteDoubts(const Json::Value& answer) {
  Output out(STDERR_FILENO);
  WriteLeftOut(out, answer["left_out"]);
  if (answer["incomplete"].asBool()) {
    out.Write("fileindexctl: an index could not be asked, so files may be missing here\n");
  }
  if (answer["repairing"].asBool()) {
    out.Write("fileindexctl: an index is being repaired, so files may be missing here\n");
  }
  for (const Json::Value& hit : answer["hits"]) {
    if (hit["cut"].asBool()) {
      out.Write("fileindexctl: has more text than is searched: " + OneLine(hit["path"].asString()) + "\n");
    }
  }
  out.Flush();
}

void Search(const Options& options) {
  const Json::Value answer = AskSearchDaemon("document_search", SearchData(options));
  Output out(STDOUT_FILENO);
  if (options.json) {
    out.Write(orbisk::toString(answer) + "\n");
  } else {
    const bool color = WantsColor(STDOUT_FILENO);
    for (const Json::Value& hit : answer["hits"]) {
      out.Write(HitLine(hit, color));
    }
    out.Write(std::to_string(answer["hits"].size()) + " of " + (answer["more"].asBool() ? "more than " : "") +
              answer["total"].asString() + " hits\n");
  }
  out.Flush();
  if (!options.json) {
    WriteDoubts(answer);
  }
}

// The indexes that can be asked; the others go to `left_out`.
Json::Value OpenIndexes(Json::Value& left_out) {
  Json::Value ids(Json::arrayValue);
  for (const Json::Value& index : AskSearchDaemon("index_list", Json::Value(Json::objectValue))) {
    (index["state"] == "open" ? ids : left_out).append(index["id"]);
  }
  return ids;
}

// The words of each index come most frequent first and without numbers: the first words of all come before the second
// ones of any.
std::vector<std::string> Merged(const std::vector<Json::Value>& lists, size_t limit) {
  std::vector<std::string> words;
  Json::ArrayIndex longest = 0;
  for (const Json::Value& list : lists) {
    longest = std::max(longest, list.size());
  }
  for (Json::ArrayIndex place = 0; place < longest; ++place) {
    for (const Json::Value& list : lists) {
      const std::string word = place < list.size() ? list[place].asString() : "";
      if (!word.empty() && words.size() < limit && std::find(words.begin(), words.end(), word) == words.end()) {
        words.push_back(word);
      }
    }
  }
  return words;
}

void Suggest(const Options& options) {
  std::vector<Json::Value> lists;
  Json::Value left_out(Json::arrayValue);
  for (const Json::Value& id : options.shares.empty() ? OpenIndexes(left_out) : IndexesOf(options.shares)) {
    Json::Value data;
    data["id"] = id;
    data["prefix"] = options.prefix;
    data["limit"] = Json::UInt64{options.limit};
    AddAccount(data, options);
    lists.push_back(AskSearchDaemon("term_suggest", data));
  }
  const std::vector<std::string> words = Merged(lists, options.limit);
  Output out(STDOUT_FILENO);
  if (options.json) {
    out.Write(orbisk::toString(orbisk::Vec2JsonArr(words)) + "\n");
  } else {
    for (const std::string& word : words) {
      out.Write(OneLine(word) + "\n");
    }
  }
  out.Flush();
  Output doubts(STDERR_FILENO);
  if (!options.for_account()) {
    WriteLeftOut(doubts, left_out);
  } else if (!left_out.empty()) {
    doubts.Write("fileindexctl: an index could not be asked, so words may be missing here\n");
  }
  doubts.Flush();
}

// What both commands take.
void AddCommonOptions(CLI::App& command, Options& options) {
  options.as = command.add_option("--as", options.account, "Show and count only what this account may open");
  command
      .add_option("--share", options.shares,
                  "Ask the index of this share; may be given several times. All indexes without it")
      ->allow_extra_args(false);
  command.add_option("--limit", options.limit, "Print at most so many")->check(PlainNumber())->capture_default_str();
  command.add_flag("--json", options.json, "Print one line of JSON");
}

}  // namespace

void AddSearchCommands(CLI::App& app) {
  const auto asked = std::make_shared<Options>();
  asked->limit = 20;
  CLI::App* const search = app.add_subcommand("search", "Find files by their content, name and metadata");
  search->add_option("QUERY", asked->words, "Words, \"phrases\", -not, OR, name:value; behind -- if it begins with -")
      ->required();
  search->add_option("--type", asked->types, "Only files of this kind or extension; may be given several times")
      ->allow_extra_args(false);
  search->add_option("--sort", asked->sort_by, "What comes first")
      ->check(CLI::IsMember({"relevance", "name", "path", "size", "modified"}))
      ->capture_default_str();
  search->add_flag("--desc", asked->descending, "The other way round; not for relevance");
  search->add_option("--offset", asked->offset, "Leave out the first so many")
      ->check(PlainNumber())
      ->capture_default_str();
  AddCommonOptions(*search, *asked);
  search->callback([asked] { Search(*asked); });

  const auto begun = std::make_shared<Options>();
  begun->limit = 10;
  CLI::App* const suggest = app.add_subcommand("suggest", "Words of the index that begin with a prefix");
  suggest->add_option("PREFIX", begun->prefix, "How the words begin");
  AddCommonOptions(*suggest, *begun);
  CLI::App* const update = suggest->add_subcommand(
      "update", "Build the suggestions of indexes that have none; the word itself goes behind --");
  update->callback([] {
    const WaitNotice notice;
    orbisk::fileindex::UpdateTermSuggestion();
  });
  suggest->callback([suggest, begun] {
    if (suggest->get_subcommands().empty()) {
      if (suggest->count("PREFIX") == 0) {
        throw CLI::RequiredError("PREFIX");
      }
      Suggest(*begun);
    }
  });
}

}  // namespace fileindexctl
