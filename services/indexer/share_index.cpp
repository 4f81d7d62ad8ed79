// Requests, and the one field that is the daemon's own.
#include "services/indexer/share_index.h"

#include <json/json.h>

#include <iterator>
#include <utility>

#include "orbisk/comm.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/fileindex/metadata_names.h"
#include "orbisk/fileindex/util.h"

namespace fileindexd {

namespace elastic = orbisk::fileindex::elastic;

namespace {

// Not in the mappings, so it is stored with the document and nobody finds it by searching.
constexpr char kStampField[] = "_NIMOMDIndexStamp";

constexpr size_t kPortion = 10'000;  // documents of one answer
constexpr Json::ArrayIndex kChangesAtOnce = 256;
// A document without its stamp is read again after a kill: each kill may cost this many files, whatever their size.
constexpr int kStampsAtOnce = 3;
constexpr int kUnknownDocument = 1200;

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

// Takes the hits apart: there may be a million of each.
std::vector<Entry> EntriesOf(Json::Value& hits) {
  if (!hits.isArray()) {
    throw orbisk::Error(orbisk::Code(916));
  }
  std::vector<Entry> entries;
  entries.reserve(hits.size());
  for (Json::Value& hit : hits) {
    const Json::Value& stamp = hit[kStampField];
    entries.push_back(
        {hit[elastic::kMDPath].asString(), stamp.isString() ? StampFromText(stamp.asString()) : std::nullopt});
    hit = Json::Value();
  }
  return entries;
}

// What one command of a compound request failed with.
void ThrowFailure(const Json::Value& result) {
  if (!result["success"].asBool()) {
    const Json::Value& error = result["error"];
    throw orbisk::Error(orbisk::Code(error["code"].asInt()), error["msg"].asString());
  }
}

// The library moves a folder's documents with it; of a single one, what it sets is this.
Json::Value MovedFields(const std::string& path) {
  namespace fi = orbisk::fileindex;
  const std::string name = fi::Basename(path);
  const std::string parent = fi::Dirname(path);
  const std::string extension = fi::GetFileExtension(path, true);
  Json::Value fields;
  fields[elastic::kMDPath] = path;
  fields[elastic::kMDParent] = parent;
  fields[elastic::kMDFSName] = name;
  fields[elastic::kMDSearchFileName] = name;
  fields[elastic::kMDSearchAncestor] = parent;
  fields[elastic::kMDDisplayName] = name;
  fields[elastic::kMDKind] = extension;
  fields[elastic::kMDExtension] = extension;
  return fields;
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
Json::Value ShareIndex::GetRequest(Json::Value condition, size_t limit) const {
  Json::Value request;
  request["command"] = "document_get_by_query";
  request["data"]["id"] = id_;
  request["data"]["query"]["qsl"] = std::move(condition);
  request["data"]["limit"] = Json::UInt64{limit};
  request["data"]["load_field"].append(elastic::kMDPath);
  request["data"]["load_field"].append(kStampField);
  return request;
}

std::vector<Entry> ShareIndex::Query(Json::Value condition, size_t limit) {
  SendChanges();
  Json::Value answer;
  Ask(answer, GetRequest(std::move(condition), limit));
  return EntriesOf(answer["data"]);
}

void ShareIndex::AppendLookUp(const std::string& path, Json::Value& requests) const {
  requests.append(GetRequest(PathIs(path), 1));
  requests.append(GetRequest(IsBelowAndBehind(path, path + "/"), 1));
}

// The answers to what AppendLookUp made.
std::vector<LookedUp> ShareIndex::AskFor(Json::Value requests) {
  SendChanges();
  Json::Value request;
  request["compound"].swap(requests);
  Json::Value answer;
  Ask(answer, request);
  Json::Value& results = answer["data"];
  if (!results.isArray() || results.size() != request["compound"].size()) {
    throw orbisk::Error(orbisk::Code(916));
  }
  std::vector<LookedUp> looked_up(results.size() / 2);
  for (Json::ArrayIndex i = 0; i < results.size(); ++i) {
    ThrowFailure(results[i]);
    std::vector<Entry> entries = EntriesOf(results[i]["data"]);
    LookedUp& one = looked_up[i / 2];
    if (i % 2 == 1) {
      one.below = !entries.empty();
    } else if (!entries.empty()) {
      one.entry = std::move(entries.front());
    }
  }
  return looked_up;
}

LookedUp ShareIndex::LookUp(const std::string& path) {
  const std::lock_guard lock(mutex_);
  const auto known = looked_up_.find(path);
  if (known != looked_up_.end()) {
    return known->second;
  }
  Json::Value requests(Json::arrayValue);
  AppendLookUp(path, requests);
  return std::move(AskFor(std::move(requests)).front());
}

void ShareIndex::Expect(const std::vector<std::string>& paths) {
  const std::lock_guard lock(mutex_);
  looked_up_.clear();
  Json::Value requests(Json::arrayValue);
  for (const std::string& path : paths) {
    AppendLookUp(path, requests);
  }
  if (paths.empty()) {
    return;
  }
  std::vector<LookedUp> answers = AskFor(std::move(requests));
  for (size_t i = 0; i < paths.size(); ++i) {
    looked_up_[paths[i]] = std::move(answers[i]);
  }
}

// `path` changes, or all below it: what was looked up there, and above, where something lies below then, is old.
void ShareIndex::Forget(const std::string& path) {
  looked_up_.erase(path);
  looked_up_.erase(looked_up_.lower_bound(path + "/"), looked_up_.lower_bound(path + "0"));
  for (std::string above = path; !looked_up_.empty() && !above.empty();) {
    above.resize(above.rfind('/') == std::string::npos ? 0 : above.rfind('/'));
    looked_up_.erase(above);
  }
}

// A change of the document of `path` alone, to be sent with others.
void ShareIndex::Change(const std::string& path, Json::Value request) {
  uncommitted_ = true;
  request["data"]["id"] = id_;
  request["data"]["doc_id"] = path;
  changes_.append(std::move(request));
  changed_.insert(path);
  Forget(path);
  if (changes_.size() >= kChangesAtOnce) {
    SendChanges();
  }
}

// In the order in which they were made.
void ShareIndex::SendChanges() {
  if (changes_.empty()) {
    return;
  }
  Json::Value request;
  request["compound"].swap(changes_);
  changes_ = Json::Value(Json::arrayValue);
  changed_.clear();
  stamps_ = 0;
  Json::Value answer;
  Ask(answer, request);
  if (!answer["has_fail"].isBool() || !answer["has_fail"].asBool()) {
    return;
  }
  const Json::Value& results = answer["data"];
  for (Json::ArrayIndex i = 0; i < results.size() && i < request["compound"].size(); ++i) {
    // Where a document moved from and to is compared afterwards anyway.
    const bool moves = request["compound"][i]["data"]["data"].isMember(elastic::kMDPath);
    if (!moves || results[i]["error"]["code"].asInt() != kUnknownDocument) {
      ThrowFailure(results[i]);
    }
  }
}

void ShareIndex::DropChanges() {
  const std::lock_guard lock(mutex_);
  changes_.clear();
  changed_.clear();
  stamps_ = 0;
  looked_up_.clear();
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
  const std::lock_guard lock(mutex_);
  std::vector<Entry> entries = Query(PathIs(path), 1);
  return entries.empty() ? std::nullopt : std::optional(std::move(entries.front()));
}

// In portions: the values of an answer take many times the room of the entries that are made of them.
std::vector<Entry> ShareIndex::FindTree(const std::string& path) {
  const std::lock_guard lock(mutex_);
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
  const std::lock_guard lock(mutex_);
  Json::Value others;
  others["bool"]["must"].append(BeginsWith("/"));
  others["bool"]["must_not"].append(PathIs(path));
  others["bool"]["must_not"].append(BeginsWith(path + "/"));
  return Query(std::move(others), kPortion);
}

bool ShareIndex::uncommitted() const {
  const std::lock_guard lock(mutex_);
  return uncommitted_;
}

// A change that is sent at once, without the lock: it may take long.
void ShareIndex::BeginChange(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (changed_.count(path) != 0) {
    SendChanges();
  }
  uncommitted_ = true;
  Forget(path);
}

void ShareIndex::Upsert(const std::string& path, bool need_meta) {
  BeginChange(path);
  const Turn turn(extractions_);
  elastic::IndexUpsert(share_, path, need_meta);
}

void ShareIndex::SetAttributes(const std::string& path) {
  BeginChange(path);
  const Turn turn(extractions_);
  elastic::IndexAttr(share_, path);
}

void ShareIndex::SetStamp(const std::string& path, const std::string& stamp) {
  const std::lock_guard lock(mutex_);
  Json::Value request;
  request["command"] = "document_set_by_id";
  request["data"]["data"][kStampField] = stamp;
  Change(path, std::move(request));
  if (++stamps_ >= kStampsAtOnce) {
    SendChanges();
  }
}

void ShareIndex::RemoveOne(const std::string& path) {
  const std::lock_guard lock(mutex_);
  Json::Value request;
  request["command"] = "document_del_by_id";
  Change(path, std::move(request));
}

void ShareIndex::RemoveBelow(const std::string& path) {
  const std::lock_guard lock(mutex_);
  SendChanges();
  uncommitted_ = true;
  Forget(path);
  elastic::IndexDelDir(share_, path);
}

void ShareIndex::Move(const std::string& from, const std::string& to) {
  const std::lock_guard lock(mutex_);
  SendChanges();
  uncommitted_ = true;
  Forget(from);
  Forget(to);
  elastic::IndexRename(share_, to, from);
}

void ShareIndex::MoveOne(const std::string& from, const std::string& to) {
  const std::lock_guard lock(mutex_);
  Json::Value request;
  request["command"] = "document_set_by_id";
  request["data"]["data"] = MovedFields(to);
  Change(from, std::move(request));
  changed_.insert(to);
  Forget(to);
}

void ShareIndex::Commit() {
  const std::lock_guard lock(mutex_);
  SendChanges();
  elastic::IndexCommit(share_);
  uncommitted_ = false;
}

}  // namespace fileindexd
