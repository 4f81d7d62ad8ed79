// Finds the function behind a command, and turns what the engine throws into what clients know.
#include "services/search/commands.h"

#include <array>
#include <string_view>
#include <utility>

#include "services/search/command_table.h"
#include "services/search/refusal.h"

namespace nimoelasticd {
namespace {

struct Entry {
  std::string_view name;
  Traffic traffic;
  const char* index_member;  // of the data
  Handler handler;
};

constexpr std::array kTable = {
    Entry{"index_create", Traffic::kOrdered, "id", IndexCreate},
    Entry{"index_delete", Traffic::kOrdered, "id", IndexDelete},
    Entry{"index_pause", Traffic::kOrdered, "id", IndexPause},
    Entry{"index_resume", Traffic::kOrdered, "id", IndexResume},
    Entry{"index_config_set", Traffic::kOrdered, "id", IndexConfigSet},
    Entry{"index_list", Traffic::kReading, nullptr, IndexList},
    Entry{"index_stat", Traffic::kReading, "id", IndexStat},
    Entry{"document_upsert_by_id", Traffic::kDocument, "id", DocumentUpsertById},
    Entry{"document_set_by_id", Traffic::kDocument, "id", DocumentSetById},
    Entry{"document_del_by_id", Traffic::kDocument, "id", DocumentDelById},
    Entry{"document_del_by_query", Traffic::kDocument, "id", DocumentDelByQuery},
    Entry{"document_get_by_query", Traffic::kDocument, "id", DocumentGetByQuery},
    Entry{"commit", Traffic::kDocument, "id", Commit},
    Entry{"document_search", Traffic::kQuestion, nullptr, DocumentSearch},
    Entry{"term_suggest", Traffic::kQuestion, "id", TermSuggest},
    Entry{"list_term_sugg_db", Traffic::kReading, nullptr, ListTermSuggDb},
    Entry{"update_term_suggestion", Traffic::kDocument, "db_name", UpdateTermSuggestion},
};

const Entry& EntryOf(const Command& command) {
  for (const Entry& entry : kTable) {
    if (entry.name == command.name) {
      return entry;
    }
  }
  throw Refusal(Code::kUnknownCommand, "unknown command: " + command.name);
}

}  // namespace

Route Commands::RouteOf(const Command& command) {
  const Entry& entry = EntryOf(command);
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

std::string Commands::Run(const Command& command) {
  const Entry& entry = EntryOf(command);
  try {
    return entry.handler(catalog_, command.data);
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
