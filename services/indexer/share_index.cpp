// Requests, and the one field that is the daemon's own.
#include "services/indexer/share_index.h"

#include <json/json.h>

#include <iterator>
#include <utility>

#include "orbisk/comm.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/metadata_names.h"

namespace fileindexd {

namespace elastic = orbisk::fileindex::elastic;

namespace {

// Not in the mappings, so it is stored with the document and nobody finds it by searching.
constexpr char kStampField[] = "_NIMOMDIndexStamp";

constexpr size_t kPortion = 10'000;  // documents of one answer

class Turn {
 public:
  explicit Turn(Extractions& extractions) : extractions_(extractions) { extractions_.acquire(); }
  ~Turn() { extractions_.release(); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  Extractions& extractions_;
};

bool IsBusy(int code) {
  return code == 1400 || code == 1401;
}

// As orbisk::SendRequest; but while the database is not ready, which after a power cut takes the search daemon a
// moment, this throws and does not wait half a minute: the worker tries again in its own time, and can be stopped
// meanwhile.
void Ask(Json::Value& answer, const Json::Value& request) {
  try {
    orbisk::SendRequestImpl(answer, request);
  } catch (const orbisk::Error& error) {
    if (!IsBusy(error.code())) {
      throw;
    }
    orbisk::SendRequest(answer, request);
  }
}

Json::Value PathIs(const std::string& path) {
  Json::Value condition;
  condition["term"][elastic::kMDPath] = path;
  return condition;
}

Json::Value BeginsWith(const std::string& prefix) {
  Json::Value condition;
  condition["prefix"][elastic::kMDPath] = prefix;
  return condition;
}

// What of the tree of `path` comes behind `last` in the order of bytes: "0" is the byte behind "/".
Json::Value IsBelowAndBehind(const std::string& path, const std::string& last) {
  Json::Value condition;
  condition["range"][elastic::kMDPath]["gt"] = last;
  condition["range"][elastic::kMDPath]["lt"] = path + "0";
  return condition;
}

// A member that is null says as much as one that is missing.
Json::Value WithoutNulls(const Json::Value& object) {
  Json::Value rest(Json::objectValue);
  for (const std::string& name : object.getMemberNames()) {
    if (!object[name].isNull()) {
      rest[name] = object[name];
    }
  }
  return rest;
}

}  // namespace

ShareIndex::ShareIndex(std::string share, Extractions& extractions)
    : share_(std::move(share)), id_(elastic::GetFileIndexID(share_)), extractions_(extractions) {}

// The first `limit` hits, in the order of their paths.
std::vector<Entry> ShareIndex::Query(Json::Value condition, size_t limit) const {
  Json::Value request;
  request["command"] = "document_get_by_query";
  request["data"]["id"] = id_;
  request["data"]["query"]["qsl"] = std::move(condition);
  request["data"]["limit"] = Json::UInt64{limit};
  request["data"]["load_field"].append(elastic::kMDPath);
  request["data"]["load_field"].append(kStampField);
  Json::Value answer;
  Ask(answer, request);
  if (!answer["data"].isArray()) {
    throw orbisk::Error(orbisk::Code(916));
  }
  std::vector<Entry> entries;
  entries.reserve(answer["data"].size());
  for (Json::Value& hit : answer["data"]) {
    const Json::Value& stamp = hit[kStampField];
    entries.push_back(
        {hit[elastic::kMDPath].asString(), stamp.isString() ? StampFromText(stamp.asString()) : std::nullopt});
    hit = Json::Value();  // there may be a million of each
  }
  return entries;
}

// A search daemon that does not tell, or an index that is not open, says nothing.
bool ShareIndex::IsOutdated() const {
  Json::Value request;
  request["command"] = "index_stat";
  request["data"]["id"] = id_;
  request["data"]["schema"] = true;
  Json::Value answer;
  Ask(answer, request);
  const Json::Value& made_with = std::as_const(answer)["data"];
  return made_with.isObject() && made_with["mappings"].isObject() && made_with["settings"].isObject() &&
         (made_with["mappings"] != elastic::GetFileIndexMappings() ||
          WithoutNulls(made_with["settings"]) != WithoutNulls(elastic::GetFileIndexSettings()));
}

std::optional<Entry> ShareIndex::Find(const std::string& path) {
  std::vector<Entry> entries = Query(PathIs(path), 1);
  return entries.empty() ? std::nullopt : std::optional(std::move(entries.front()));
}

// In portions: the values of an answer take many times the room of the entries that are made of them.
std::vector<Entry> ShareIndex::FindTree(const std::string& path) {
  std::vector<Entry> tree = Query(PathIs(path), 1);
  std::string last = path + "/";
  for (size_t got = kPortion; got == kPortion;) {
    std::vector<Entry> portion = Query(IsBelowAndBehind(path, last), kPortion);
    got = portion.size();
    last = portion.empty() ? "" : portion.back().path;
    tree.insert(tree.end(), std::make_move_iterator(portion.begin()), std::make_move_iterator(portion.end()));
  }
  return tree;
}

std::vector<Entry> ShareIndex::FindOutside(const std::string& path) {
  Json::Value others;
  others["bool"]["must"].append(BeginsWith("/"));
  others["bool"]["must_not"].append(PathIs(path));
  others["bool"]["must_not"].append(BeginsWith(path + "/"));
  return Query(std::move(others), kPortion);
}

void ShareIndex::Upsert(const std::string& path, bool need_meta) {
  uncommitted_ = true;
  const Turn turn(extractions_);
  elastic::IndexUpsert(share_, path, need_meta);
}

void ShareIndex::SetAttributes(const std::string& path) {
  uncommitted_ = true;
  const Turn turn(extractions_);
  elastic::IndexAttr(share_, path);
}

void ShareIndex::SetStamp(const std::string& path, const std::string& stamp) {
  uncommitted_ = true;
  Json::Value request;
  request["command"] = "document_set_by_id";
  request["data"]["id"] = id_;
  request["data"]["doc_id"] = path;
  request["data"]["data"][kStampField] = stamp;
  Json::Value answer;
  Ask(answer, request);
}

void ShareIndex::RemoveOne(const std::string& path) {
  uncommitted_ = true;
  elastic::IndexDel(share_, path);
}

void ShareIndex::RemoveBelow(const std::string& path) {
  uncommitted_ = true;
  elastic::IndexDelDir(share_, path);
}

void ShareIndex::Move(const std::string& from, const std::string& to) {
  uncommitted_ = true;
  elastic::IndexRename(share_, to, from);
}

void ShareIndex::Commit() {
  elastic::IndexCommit(share_);
  uncommitted_ = false;
}

}  // namespace fileindexd
