// Finds the function behind a command, and turns what the engine throws into what clients know.
#include "services/search/commands.h"

#include <array>
#include <string_view>
#include <utility>

#include "services/search/command_table.h"
#include "services/search/refusal.h"

namespace nimoelasticd {
namespace {

struct Row {
  std::string_view name;
  Traffic traffic;
  const char* index_member;  // of the data
  Handler handler;
};

constexpr std::array kTable = {
    Row{"index_create", Traffic::kOrdered, "id", IndexCreate},
    Row{"index_delete", Traffic::kOrdered, "id", IndexDelete},
    Row{"index_pause", Traffic::kOrdered, "id", IndexPause},
    Row{"index_resume", Traffic::kOrdered, "id", IndexResume},
    Row{"index_config_set", Traffic::kOrdered, "id", IndexConfigSet},
    Row{"index_list", Traffic::kReading, nullptr, IndexList},
    Row{"index_stat", Traffic::kReading, "id", IndexStat},
    Row{"document_upsert_by_id", Traffic::kDocument, "id", DocumentUpsertById},
    Row{"document_set_by_id", Traffic::kDocument, "id", DocumentSetById},
    Row{"document_del_by_id", Traffic::kDocument, "id", DocumentDelById},
    Row{"document_del_by_query", Traffic::kDocument, "id", DocumentDelByQuery},
    Row{"document_get_by_query", Traffic::kDocument, "id", DocumentGetByQuery},
    Row{"commit", Traffic::kDocument, "id", Commit},
    Row{"document_search", Traffic::kQuestion, nullptr, DocumentSearch},
    Row{"term_suggest", Traffic::kQuestion, "id", TermSuggest},
    Row{"list_term_sugg_db", Traffic::kReading, nullptr, ListTermSuggDb},
    Row{"update_term_suggestion", Traffic::kDocument, "db_name", UpdateTermSuggestion},
};

const Row& RowOf(const Command& command) {
  for (const Row& entry : kTable) {
    if (entry.name == command.name) {
      return entry;
    }
  }
  throw Refusal(Code::kUnknownCommand, "unknown command: " + command.name);
}

}  // namespace

Route Commands::RouteOf(const Command& command) {
  const Row& entry = RowOf(command);
  Route route;
  route.traffic = entry.traffic;
  // Who is content with the last commit need not wait for what is being written.
  if (entry.handler == DocumentGetByQuery && OptionalBool(command.data, "committed", false)) {
    route.traffic = Traffic::kQuestion;
  }
  if (entry.index_member != nullptr) {
    route.index = RequireString(command.data, entry.index_member);
  } else if (command.data["id"].isString()) {
    route.index = command.data["id"].asString();
  }
  return route;
}

void Commands::Prepare(Command& command) {
  if (RowOf(command).handler == DocumentUpsertById) {
    PrepareDocument(catalog_, command);
  }
}

std::string Commands::Run(Command& command) {
  const Row& entry = RowOf(command);
  if (command.data.isMember("as") && entry.handler != DocumentSearch && entry.handler != TermSuggest) {
    // Whoever asks for somebody must not be given everything because nobody looked.
    throw Refusal(Code::kBadMember, "member \"as\": only searches and suggestions can be asked for an account");
  }
  try {
    if (!command.document) {
      Prepare(command);
    }
    return command.document ? UpsertPrepared(catalog_, command)
                            : entry.handler({catalog_, max_answer_bytes_}, command.data);
  } catch (const search::Error& error) {
    if (error.code() == search::ErrorCode::kTooMuchMemory) {
      // The document is too large and will always be; 1401 would have it sent again for ever.
      throw Refusal(Code::kBadDocument, error.what());
    }
    if (error.code() != search::ErrorCode::kCorrupt || entry.index_member == nullptr) {
      throw;
    }
    catalog_.ReportDamage(RequireString(command.data, entry.index_member));
    throw Refusal(Code::kRepairing, std::string("the index is damaged and will be repaired: ") + error.what());
  }
}

}  // namespace nimoelasticd
