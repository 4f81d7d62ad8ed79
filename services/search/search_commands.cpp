// People's questions, to one index or to many.
#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <set>

#include "orbisk/fileindex/metadata_names.h"
#include "services/base/json_text.h"
#include "services/search/command_table.h"
#include "services/search/file_viewer.h"
#include "services/search/refusal.h"
#include "services/search/request.h"

namespace nimoelasticd {
namespace {

namespace names = orbisk::fileindex::elastic;
using Sort = search::SearchOptions::Sort;

constexpr std::int64_t kMostHits = 10'000;

struct SortName {
  const char* name;
  Sort sort;
  const char* field;  // what hits of several indexes are merged by; null: score or path
};
constexpr std::array kSorts = {SortName{"relevance", Sort::kRelevance, nullptr}, SortName{"path", Sort::kPath, nullptr},
                               SortName{"name", Sort::kName, "NIMOMDFSName"},
                               SortName{"size", Sort::kSize, "NIMOMDFSSize"},
                               SortName{"modified", Sort::kModified, "NIMOMDFSContentChangeDate"}};

const SortName& SortOf(const Json::Value& data) {
  const std::string name = OptionalString(data, "sort", "relevance");
  for (const SortName& sort : kSorts) {
    if (name == sort.name) {
      return sort;
    }
  }
  throw Refusal(Code::kBadMember, "member \"sort\": relevance, path, name, size or modified is wanted");
}

// Whom a question goes to.
struct Asked {
  std::vector<std::pair<std::string, HostPtr>> hosts;
  bool all = false;                   // nobody was named: who cannot answer is left out, and the others are asked
  std::vector<std::string> left_out;  // ids
};

// "id": one index, or an array of them; without it, all that can be asked now.
Asked WhoIsAsked(const Catalog& catalog, const Json::Value& data) {
  Asked asked;
  if (data["id"].isString()) {
    asked.hosts.emplace_back(data["id"].asString(), catalog.Require(data["id"].asString()));
  } else if (!data["id"].isNull()) {
    const std::vector<std::string> ids = OptionalStrings(data, "id");
    for (const std::string& id : std::set<std::string>(ids.begin(), ids.end())) {
      asked.hosts.emplace_back(id, catalog.Require(id));
    }
  } else {
    asked.all = true;
    for (const auto& [id, host] : catalog.All()) {
      if (host->Answers()) {
        asked.hosts.emplace_back(id, host);
      } else if (host->state() != State::kGone) {
        asked.left_out.push_back(id);
      }
    }
  }
  return asked;
}

search::SearchOptions OptionsOf(const Json::Value& data, const SortName& sort) {
  search::SearchOptions options;
  options.offset = static_cast<size_t>(OptionalInt(data, "offset", 0, 0, 1'000'000));
  options.limit = static_cast<size_t>(OptionalInt(data, "limit", 20, 0, kMostHits));
  options.sort = sort.sort;
  options.descending = OptionalBool(data, "descending", false);
  options.load_fields = OptionalStrings(data, "load_field");
  options.snippets = OptionalBool(data, "snippets", true);
  options.facets = OptionalBool(data, "facets", true);
  options.mark_begin = OptionalString(data, "mark_begin", options.mark_begin);
  options.mark_end = OptionalString(data, "mark_end", options.mark_end);
  options.time_limit = std::chrono::milliseconds(OptionalInt(data, "time_limit_ms", 10'000, 1, 60'000));
  return options;
}

// "as": the account whom the answer is for. It is never taken for missing, not even when it is null: who sends it must
// not be shown everything.
std::optional<FileViewer> ViewerOf(const Json::Value& data) {
  if (!data.isMember("as")) {
    return std::nullopt;
  }
  return FileViewer(AccountOf(RequireString(data, "as")));
}

struct FoundHit {
  std::string index;
  search::Hit hit;
};

// Whether the first of two hits of different indexes comes first.
bool ComesFirst(const SortName& sort, bool descending, const FoundHit& first, const FoundHit& second) {
  if (sort.sort == Sort::kRelevance) {
    return first.hit.score > second.hit.score;
  }
  const FoundHit& low = descending ? second : first;
  const FoundHit& high = descending ? first : second;
  if (sort.field == nullptr) {
    return low.hit.path < high.hit.path;
  }
  const Json::Value& low_key = low.hit.fields[sort.field];
  const Json::Value& high_key = high.hit.fields[sort.field];
  return low_key < high_key;
}

void AddFacets(search::SearchResult& all, const search::SearchResult& one) {
  for (const auto& [name, facet] : one.facets) {
    search::Facet& sum = all.facets[name];
    for (const auto& entry : facet) {
      const auto found =
          std::find_if(sum.begin(), sum.end(), [&entry](const auto& item) { return item.first == entry.first; });
      if (found != sum.end()) {
        found->second += entry.second;
      } else {
        sum.push_back(entry);
      }
    }
  }
  for (auto& [name, facet] : all.facets) {
    std::stable_sort(facet.begin(), facet.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
  }
}

// Whether the file has more text than the document, so that words further on are not found.
bool IsCut(const search::Hit& hit) {
  const Json::Value& coverage = hit.fields[names::kMDCoverage];
  const std::string text = coverage.isString() ? coverage.asString() : "";
  return text.substr(0, text.find('\n')) == names::kCoverageOfCutText;
}

Json::Value ToJson(const FoundHit& found, const std::vector<std::string>& load_fields) {
  Json::Value hit;
  hit["id"] = found.index;
  hit["path"] = found.hit.path;
  hit["score"] = found.hit.score;
  hit["snippet"] = found.hit.snippet;
  if (IsCut(found.hit)) {
    hit["cut"] = true;
  }
  hit["fields"] = Json::Value(Json::objectValue);
  for (const std::string& field : load_fields) {
    if (found.hit.fields.isMember(field)) {
      hit["fields"][field] = found.hit.fields[field];
    }
  }
  return hit;
}

Json::Value ToJson(const std::map<std::string, search::Facet>& facets) {
  Json::Value result(Json::objectValue);
  for (const auto& [name, facet] : facets) {
    result[name] = Json::Value(Json::arrayValue);
    for (const auto& [value, count] : facet) {
      Json::Value item;
      item["value"] = value;
      item["count"] = Json::Int64{count};
      result[name].append(item);
    }
  }
  return result;
}

search::SearchResult SearchOne(Catalog& catalog, const std::string& id, HostedIndex& host, const std::string& query,
                               const search::SearchOptions& options) {
  try {
    const HostedIndex::Use index(host, HostedIndex::Use::For::kAsking);
    return index->Search(query, options);
  } catch (const search::Error& error) {
    if (error.code() == search::ErrorCode::kStorage) {
      throw Refusal(Code::kStorage, error.what());
    }
    if (error.code() != search::ErrorCode::kCorrupt) {
      throw;
    }
    catalog.ReportDamage(id);
    throw Refusal(Code::kRepairing, "the index " + id + " is damaged and will be repaired: " + error.what());
  }
}

// The same, but of a question to all, one index that cannot answer is not the end.
std::optional<search::SearchResult> SearchNext(Catalog& catalog, Asked& asked, const std::string& id, HostedIndex& host,
                                               const std::string& query, const search::SearchOptions& options) {
  try {
    return SearchOne(catalog, id, host, query, options);
  } catch (const Refusal&) {
    if (!asked.all) {
      throw;
    }
    if (host.state() != State::kGone) {
      asked.left_out.push_back(id);
    }
    return std::nullopt;
  }
}

// The limit is that of the whole question. One index more that is quick, or nearly done, does no harm. Half of what is
// left is for checking files, shared by the indexes that are still to be asked: each has its newest files checked, and
// there is time for the answer.
void SetLimits(search::SearchOptions& options, std::chrono::steady_clock::time_point deadline, size_t indexes_left) {
  constexpr std::chrono::milliseconds kLeast{1};
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  options.time_limit = std::max(left, kLeast);
  options.viewer_limit = std::max(left / 2 / static_cast<std::int64_t>(indexes_left), kLeast);
}

// Keeps what was asked for of the best hits of each index.
void Merge(std::vector<FoundHit>& found, const SortName& sort, const search::SearchOptions& wanted) {
  std::stable_sort(found.begin(), found.end(), [&](const FoundHit& first, const FoundHit& second) {
    return ComesFirst(sort, wanted.descending, first, second);
  });
  found.erase(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(std::min(wanted.offset, found.size())));
  found.resize(std::min(wanted.limit, found.size()));
}

std::string ResultText(const search::SearchResult& all, const std::vector<FoundHit>& found,
                       const std::vector<std::string>& load_fields, bool for_somebody,
                       const std::vector<std::string>& left_out, bool repairing) {
  Json::Value result;
  if (repairing) {
    result["repairing"] = true;  // what is damaged may be missing
  }
  for (const std::string& id : left_out) {
    if (for_somebody) {
      result["incomplete"] = true;  // an index bears the name of a share that the account may not know of
    } else {
      result["left_out"].append(id);
    }
  }
  if (all.more) {
    result["more"] = true;
  }
  result["total"] = Json::Int64{all.total};
  result["exact"] = all.exact;
  result["facets"] = ToJson(all.facets);
  result["hits"] = Json::Value(Json::arrayValue);
  for (const FoundHit& hit : found) {
    result["hits"].append(ToJson(hit, load_fields));
  }
  return service::ToText(result);
}

}  // namespace

std::string DocumentSearch(const Setting& setting, const Json::Value& data) {
  const std::string query = RequireString(data, "query");
  const SortName& sort = SortOf(data);
  const search::SearchOptions wanted = OptionsOf(data, sort);
  Asked asked = WhoIsAsked(setting.catalog, data);
  search::SearchOptions options = wanted;
  options.max_bytes = setting.max_answer_bytes;
  options.load_fields.emplace_back(names::kMDCoverage);
  const auto deadline = std::chrono::steady_clock::now() + wanted.time_limit;
  std::optional<FileViewer> viewer = ViewerOf(data);
  options.viewer = viewer ? &*viewer : nullptr;
  if (asked.hosts.size() > 1) {
    options.offset = 0;
    options.limit = std::min<size_t>(wanted.offset + wanted.limit, kMostHits);
    if (sort.field != nullptr) {
      options.load_fields.emplace_back(sort.field);
    }
  }
  search::SearchResult all;
  std::vector<FoundHit> found;
  bool repairing = false;
  size_t indexes_left = asked.hosts.size();
  for (const auto& [id, host] : asked.hosts) {
    const bool damaged = host->state() == State::kRepairing;
    SetLimits(options, deadline, indexes_left--);
    std::optional<search::SearchResult> one = SearchNext(setting.catalog, asked, id, *host, query, options);
    if (!one) {
      continue;
    }
    options.max_bytes -= one->bytes;
    repairing = repairing || damaged;
    all.total += one->total;
    all.more = all.more || one->more;
    all.exact = all.exact && one->exact;
    AddFacets(all, *one);
    for (search::Hit& hit : one->hits) {
      found.push_back({id, std::move(hit)});
    }
  }
  if (asked.hosts.size() > 1) {
    Merge(found, sort, wanted);
  }
  return ResultText(all, found, wanted.load_fields, options.viewer != nullptr, asked.left_out, repairing);
}

std::string TermSuggest(const Setting& setting, const Json::Value& data) {
  const HostPtr host = setting.catalog.Require(RequireString(data, "id"));
  const std::string prefix = RequireString(data, "prefix");
  const auto limit = static_cast<size_t>(OptionalInt(data, "limit", 10, 1, 1000));
  std::optional<FileViewer> viewer = ViewerOf(data);
  const HostedIndex::Use index(*host, HostedIndex::Use::For::kAsking);
  Json::Value words(Json::arrayValue);
  for (const std::string& word : viewer ? index->SuggestFor(*viewer, prefix, limit) : index->Suggest(prefix, limit)) {
    words.append(word);
  }
  return service::ToText(words);
}

std::string ListTermSuggDb(const Setting& setting, const Json::Value&) {
  Json::Value result;
  result["unavail"] = Json::Value(Json::arrayValue);
  for (const auto& [id, host] : setting.catalog.All()) {
    try {
      const HostedIndex::Use index(*host);
      if (!index->SuggestionsAvailable()) {
        result["unavail"].append(id);
      }
    } catch (const Refusal&) {              // nothing can be built for it now
    } catch (const search::Error& error) {  // nor for this one, which is no reason to keep the others from it
      if (error.code() == search::ErrorCode::kCorrupt) {
        setting.catalog.ReportDamage(id);
      }
    }
  }
  return service::ToText(result);
}

}  // namespace nimoelasticd
