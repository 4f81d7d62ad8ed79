// Commands for documents.
#include <cstdint>
#include <limits>
#include <utility>

#include "services/base/json_text.h"
#include "services/search/command_table.h"
#include "services/search/refusal.h"
#include "services/search/request.h"

namespace nimoelasticd {
namespace {

constexpr auto kChanging = HostedIndex::Use::For::kChanging;

// Ends a question that has as many hits as it wants.
struct Enough {};

HostPtr HostOf(Catalog& catalog, const Json::Value& data, const char* member = "id") {
  return catalog.Require(RequireString(data, member));
}

}  // namespace

std::string DocumentUpsertById(const Setting& setting, const Json::Value& data) {
  const HostPtr host = HostOf(setting.catalog, data);
  const HostedIndex::Use open(*host, kChanging);
  RequireString(data, "doc_id");
  RequireObject(data, "data");
  throw Refusal(Code::kNotReady, "the index was opened just now");
}

void PrepareDocument(Catalog& catalog, Command& command) {
  Json::Value& document = command.data["data"];
  if (!document.isObject() || !command.data["id"].isString()) {
    return;
  }
  const HostPtr host = catalog.Find(command.data["id"].asString());
  if (host == nullptr || host->state() != State::kOpen) {
    return;
  }
  try {
    const HostedIndex::Use index(*host);
    command.document = index->Prepare(std::move(document));
  } catch (const Refusal&) {
    // It was closed just now; the command is told so in its turn.
  }
}

std::string UpsertPrepared(Catalog& catalog, Command& command) {
  const HostPtr host = HostOf(catalog, command.data);
  const HostedIndex::Use index(*host, kChanging);
  const std::string id = RequireString(command.data, "doc_id");
  if (!index->Fits(*command.document)) {
    // It was deleted and made anew after the document came.
    throw Refusal(Code::kNotReady, "the index has other mappings now");
  }
  index->Upsert(id, std::move(*command.document));
  return "";
}

std::string DocumentSetById(const Setting& setting, const Json::Value& data) {
  const HostPtr host = HostOf(setting.catalog, data);
  const HostedIndex::Use index(*host, kChanging);
  const search::SetResult result = index->Set(RequireString(data, "doc_id"), RequireObject(data, "data"));
  return result.replaced ? R"({"replaced":true})" : R"({"replaced":false})";
}

std::string DocumentDelById(const Setting& setting, const Json::Value& data) {
  const HostPtr host = HostOf(setting.catalog, data);
  const HostedIndex::Use index(*host, kChanging);
  return index->Delete(RequireString(data, "doc_id")) ? R"({"deleted":1})" : R"({"deleted":0})";
}

std::string DocumentDelByQuery(const Setting& setting, const Json::Value& data) {
  const HostPtr host = HostOf(setting.catalog, data);
  const HostedIndex::Use index(*host, kChanging);
  return "{\"deleted\":" + std::to_string(index->DeleteByQuery(RequireObject(data, "query"))) + "}";
}

std::string DocumentGetByQuery(const Setting& setting, const Json::Value& data) {
  const HostPtr host = HostOf(setting.catalog, data);
  std::optional<std::vector<std::string>> load_fields;
  if (!data["load_field"].isNull()) {
    load_fields = OptionalStrings(data, "load_field");
  }
  // The text is made hit by hit: a tree of a million hits would take many times its room.
  std::string hits = "[";
  std::int64_t wanted =
      OptionalInt(data, "limit", std::numeric_limits<std::int64_t>::max(), 1, std::numeric_limits<std::int64_t>::max());
  const bool committed = OptionalBool(data, "committed", false);
  const auto add_hit = [&hits, &wanted, &setting](Json::Value&& hit) {
    if (hits.size() > 1) {
      hits += ',';
    }
    hits += service::ToText(hit);
    if (hits.size() > setting.max_answer_bytes) {
      throw Refusal(Code::kAnswerTooLarge, "the answer is too long: ask for fewer fields or a smaller folder");
    }
    if (--wanted == 0) {
      throw Enough();
    }
  };
  const HostedIndex::Use index(*host, committed ? HostedIndex::Use::For::kAsking : HostedIndex::Use::For::kReading);
  try {
    index->Get(RequireObject(data, "query"), load_fields, add_hit,
               committed ? search::View::kCommitted : search::View::kLatest);
  } catch (const Enough&) {
    // The hits so far are the first ones.
  }
  hits += ']';
  return hits;
}

std::string Commit(const Setting& setting, const Json::Value& data) {
  const HostPtr host = HostOf(setting.catalog, data);
  const HostedIndex::Use index(*host);
  if (host->TakeLostChanges()) {
    // Whoever commits now may count on changes of before; told once, they send them again.
    throw Refusal(Code::kStorage, "changes since the last commit were lost");
  }
  index->Commit();
  host->NoteCommitted();
  return "";
}

std::string UpdateTermSuggestion(const Setting& setting, const Json::Value& data) {
  const HostPtr host = HostOf(setting.catalog, data, "db_name");
  const HostedIndex::Use index(*host, kChanging);
  index->AddSuggestions(RequireString(data, "doc_id_field"));
  return "";
}

}  // namespace nimoelasticd
