// Commands for whole indexes.
#include "services/base/json_text.h"
#include "services/search/command_table.h"
#include "services/search/refusal.h"
#include "services/search/request.h"

namespace nimoelasticd {
namespace {

Json::Value Describe(const std::string& id, const HostedIndex& host) {
  Json::Value description;
  description["id"] = id;
  description["path"] = host.path();
  description["state"] = NameOf(host.state());
  description["problem"] = host.problem();
  return description;
}

}  // namespace

std::string IndexCreate(const Setting& setting, const Json::Value& data) {
  const std::string id = RequireString(data, "id");
  if (id.empty()) {
    throw Refusal(Code::kBadMember, "member \"id\": an index needs a name");
  }
  const Json::Value& settings = data["settings"];
  setting.catalog.Create(id, RequireString(data, "path"), RequireObject(data, "mappings"),
                         settings.isNull() ? Json::Value(Json::objectValue) : RequireObject(data, "settings"),
                         data["event_handler"]);
  return "";
}

std::string IndexDelete(const Setting& setting, const Json::Value& data) {
  setting.catalog.Delete(RequireString(data, "id"));
  return "";
}

std::string IndexPause(const Setting& setting, const Json::Value& data) {
  setting.catalog.Pause(RequireString(data, "id"));
  return "";
}

std::string IndexResume(const Setting& setting, const Json::Value& data) {
  setting.catalog.Resume(RequireString(data, "id"));
  return "";
}

std::string IndexConfigSet(const Setting& setting, const Json::Value& data) {
  const Json::Value& changes = RequireObject(data, "data");
  const std::string new_id = OptionalString(changes, "id", "");
  const std::string new_path = OptionalString(changes, "path", "");
  setting.catalog.Configure(RequireString(data, "id"), new_id, new_path);
  return "";
}

std::string IndexList(const Setting& setting, const Json::Value&) {
  Json::Value list(Json::arrayValue);
  for (const auto& [id, host] : setting.catalog.All()) {
    list.append(Describe(id, *host));
  }
  return service::ToText(list);
}

std::string IndexStat(const Setting& setting, const Json::Value& data) {
  const std::string id = RequireString(data, "id");
  const bool check = OptionalBool(data, "check", false);
  const HostPtr host = setting.catalog.Require(id);
  Json::Value result = Describe(id, *host);
  result["bytes"] = Json::Int64{host->BytesOnDisk()};
  if (check && WillOpenSoon(host->state())) {
    host->RequireOpen();  // who asks for a check is not helped by an answer without one
  }
  if (host->state() != State::kOpen) {
    return service::ToText(result);
  }
  const HostedIndex::Use index(*host);
  const search::StatResult stat = index->Stat(check);
  result["documents"] = Json::Int64{stat.documents};
  result["bytes"] = Json::Int64{stat.bytes};
  result["uncommitted"] = stat.uncommitted;
  if (OptionalBool(data, "schema", false)) {
    result["mappings"] = index->mappings();
    result["settings"] = index->settings();
  }
  if (check) {
    result["checked"] = true;
    result["problem"] = stat.problem.empty() ? host->problem() : stat.problem;
    result["repairing"] = !stat.problem.empty();
    if (!stat.problem.empty()) {
      setting.catalog.ReportDamage(id);
    }
  }
  return service::ToText(result);
}

}  // namespace nimoelasticd
