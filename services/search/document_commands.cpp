// Commands for documents.
#include "services/base/json_text.h"
#include "services/search/command_table.h"
#include "services/search/refusal.h"
#include "services/search/request.h"

namespace nimoelasticd {
namespace {

constexpr auto kChanging = HostedIndex::Use::For::kChanging;

HostPtr HostOf(Catalog& catalog, const Json::Value& data, const char* member = "id") {
  return catalog.Require(RequireString(data, member));
}

}  // namespace

std::string DocumentUpsertById(Catalog& catalog, const Json::Value& data) {
  const HostPtr host = HostOf(catalog, data);
  const HostedIndex::Use index(*host, kChanging);
  index->Upsert(RequireString(data, "doc_id"), RequireObject(data, "data"));
  return "";
}

std::string DocumentSetById(Catalog& catalog, const Json::Value& data) {
  const HostPtr host = HostOf(catalog, data);
  const HostedIndex::Use index(*host, kChanging);
  const search::SetResult result = index->Set(RequireString(data, "doc_id"), RequireObject(data, "data"));
  return result.replaced ? R"({"replaced":true})" : R"({"replaced":false})";
}

std::string DocumentDelById(Catalog& catalog, const Json::Value& data) {
  const HostPtr host = HostOf(catalog, data);
  const HostedIndex::Use index(*host, kChanging);
  return index->Delete(RequireString(data, "doc_id")) ? R"({"deleted":1})" : R"({"deleted":0})";
}

std::string DocumentDelByQuery(Catalog& catalog, const Json::Value& data) {
  const HostPtr host = HostOf(catalog, data);
  const HostedIndex::Use index(*host, kChanging);
  return "{\"deleted\":" + std::to_string(index->DeleteByQuery(RequireObject(data, "query"))) + "}";
}

std::string DocumentGetByQuery(Catalog& catalog, const Json::Value& data) {
  const HostPtr host = HostOf(catalog, data);
  std::optional<std::vector<std::string>> load_fields;
  if (!data["load_field"].isNull()) {
    load_fields = OptionalStrings(data, "load_field");
  }
  // The text is made hit by hit: a tree of a million hits would take many times its room.
  std::string hits = "[";
  const bool committed = OptionalBool(data, "committed", false);
  const auto add_hit = [&hits](Json::Value&& hit) {
    if (hits.size() > 1) {
      hits += ',';
    }
    hits += service::ToText(hit);
    if (hits.size() > kMaxMessageBytes - 1024) {
      throw Refusal(Code::kAnswerTooLarge, "the answer is over 1 GiB: ask for fewer fields or a smaller folder");
    }
  };
  const HostedIndex::Use index(*host, committed ? HostedIndex::Use::For::kAsking : HostedIndex::Use::For::kReading);
  index->Get(RequireObject(data, "query"), load_fields, add_hit,
             committed ? search::View::kCommitted : search::View::kLatest);
  hits += ']';
  return hits;
}

std::string Commit(Catalog& catalog, const Json::Value& data) {
  const HostPtr host = HostOf(catalog, data);
  const HostedIndex::Use index(*host);
  if (host->TakeLostChanges()) {
    // Whoever commits now may count on changes of before; told once, they send them again.
    throw Refusal(Code::kStorage, "changes since the last commit were lost");
  }
  index->Commit();
  host->NoteCommitted();
  return "";
}

std::string UpdateTermSuggestion(Catalog& catalog, const Json::Value& data) {
  const HostPtr host = HostOf(catalog, data, "db_name");
  const HostedIndex::Use index(*host, kChanging);
  index->AddSuggestions(RequireString(data, "doc_id_field"));
  return "";
}

}  // namespace nimoelasticd
