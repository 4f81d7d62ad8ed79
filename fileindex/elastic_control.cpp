// Commands to the search daemon: a share's index, and its documents.
#include "orbisk/fileindex/elastic_control.h"

#include <utility>

#include "common/check.h"
#include "fileindex/index_schema.h"
#include "nimo/content_extract.h"
#include "orbisk/comm.h"
#include "orbisk/fileindex/metadata_names.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/fileindex/util.h"
#include "orbisk/json.h"
#include "orbisk/sdk/share.h"

namespace orbisk::fileindex::elastic {
namespace {

constexpr int kNeedReindex = 1;

Json::Value Command(const char* command) {
  Json::Value request;
  request["command"] = command;
  request["data"] = Json::Value(Json::objectValue);
  return request;
}

Json::Value IndexCommand(const char* command, const std::string& index_id) {
  Json::Value request = Command(command);
  request["data"]["id"] = index_id;
  return request;
}

Json::Value DocumentCommand(const char* command, const std::string& share, const std::string& path) {
  Json::Value request = IndexCommand(command, GetFileIndexID(share));
  request["data"]["doc_id"] = path;
  return request;
}

Json::Value ExactPath(const std::string& path) {
  Json::Value query;
  query["qsl"]["term"][kMDPath] = path;
  return query;
}

// Everything below `dir`. The slash keeps out `dir` itself and its siblings with longer names.
Json::Value Subtree(const std::string& dir) {
  Json::Value query;
  query["qsl"]["prefix"][kMDPath] = dir + "/";
  return query;
}

bool ParseFile(const std::string& path, bool need_meta, Json::Value& document) {
  Json::Value options;
  options[kNeedMeta] = need_meta;
  try {
    NIMO_CONTENT_EXTRACT_ParseFile(path, options, document);
    return document.isObject();
  } catch (...) {
    return false;
  }
}

Json::Value GetDocument(const std::string& path, bool need_meta) {
  Json::Value document(Json::objectValue);
  ORBISK_CHECK(!ParseFile(path, need_meta, document), 914, "Parse failed, path=" + path);
  // Looked up as const, so that a field that the extractor left out is not made.
  document[kMDSearchFileName] = Json::Value(std::as_const(document)[kMDFSName]);
  document[kMDSearchAncestor] = Json::Value(std::as_const(document)[kMDParent]);
  return document;
}

bool IsDocumentExists(const std::string& share, const std::string& path) {
  Json::Value request = IndexCommand("document_get_by_query", GetFileIndexID(share));
  request["data"]["query"] = ExactPath(path);
  Json::Value res;
  SendRequest(res, request);
  ORBISK_CHECK(!res.isMember("data") || !res["data"].isArray(), 916, "");
  return !res["data"].empty();
}

// What moves a document: nothing of its content is touched, and it keeps the identity that it was filed under.
Json::Value RenameRequest(const std::string& share, const std::string& new_path, const std::string& old_path) {
  const std::string name = Basename(new_path);
  const std::string parent = Dirname(new_path);
  const std::string extension = GetFileExtension(new_path, true);
  Json::Value request = DocumentCommand("document_set_by_id", share, old_path);
  Json::Value& fields = request["data"]["data"];
  fields[kMDPath] = new_path;
  fields[kMDParent] = parent;
  fields[kMDFSName] = name;
  fields[kMDSearchFileName] = name;
  fields[kMDSearchAncestor] = parent;
  fields[kMDDisplayName] = name;
  fields[kMDKind] = extension;
  fields[kMDExtension] = extension;
  return request;
}

// What moves a document below a renamed folder. The new parent is a substitution of the first bytes, unchecked.
Json::Value MoveRequest(const std::string& share, const Json::Value& hit, const std::string& new_path,
                        size_t old_path_size) {
  std::string name;
  std::string parent;
  std::string path;
  GetJsonValue(name, hit, kMDFSName, true);
  GetJsonValue(parent, hit, kMDParent, true);
  GetJsonValue(path, hit, kMDPath, true);
  parent.replace(0, old_path_size, new_path);
  Json::Value request = DocumentCommand("document_set_by_id", share, path);
  Json::Value& fields = request["data"]["data"];
  fields[kMDParent] = parent;
  fields[kMDPath] = parent + "/" + name;
  fields[kMDSearchAncestor] = parent;
  return request;
}

Json::Value LoadFields(std::initializer_list<const char*> names) {
  Json::Value fields(Json::arrayValue);
  for (const char* const name : names) {
    fields.append(name);
  }
  return fields;
}

}  // namespace

Json::Value GetFileIndexSettings() {
  return Json::Value(Json::objectValue);
}

Json::Value GetFileIndexMappings() {
  Json::Value ret;
  const std::string mappings = kIndexMappings;
  ORBISK_CHECK_TEXT(!fromString(ret, mappings), "!ret.fromString(mappings)", 502, "");
  return ret;
}

Json::Value GetFileIndexEventHandler() {
  Json::Value ret;
  const std::string event_handler = kIndexEventHandler;
  ORBISK_CHECK_TEXT(!fromString(ret, event_handler), "!ret.fromString(event_handler)", 502, "");
  return ret;
}

std::string GetFileIndexID(const std::string& share) {
  return "fileindex_" + share;
}

void ShareIndexCreate(const std::string& share) {
  const std::string db_path = sdk::SDKShare(share).GetDBPath();
  Json::Value request = IndexCommand("index_create", GetFileIndexID(share));
  request["data"]["path"] = db_path;
  request["data"]["settings"] = GetFileIndexSettings();
  request["data"]["mappings"] = GetFileIndexMappings();
  request["data"]["event_handler"] = GetFileIndexEventHandler();
  SendRequest(request);
}

void ShareIndexDelete(const std::string& share) {
  SendRequest(IndexCommand("index_delete", GetFileIndexID(share)));
}

void ShareIndexPause(const std::string& share) {
  SendRequest(IndexCommand("index_pause", GetFileIndexID(share)));
}

void ShareIndexResume(const std::string& share) {
  SendRequest(IndexCommand("index_resume", GetFileIndexID(share)));
}

void ShareIndexRename(const std::string& share_from, const std::string& share_to, const std::string& db_path) {
  Json::Value request = IndexCommand("index_config_set", GetFileIndexID(share_from));
  request["data"]["data"]["id"] = GetFileIndexID(share_to);
  request["data"]["data"]["path"] = db_path;
  SendRequest(request);
}

void ShareIndexMigrate(const std::string& share, const std::string& db_path) {
  Json::Value request = IndexCommand("index_config_set", GetFileIndexID(share));
  request["data"]["data"]["path"] = db_path;
  SendRequest(request);
}

void IndexDel(const std::string& share, const std::string& path) {
  SendRequest(DocumentCommand("document_del_by_id", share, path));
}

void IndexDelDir(const std::string& share, const std::string& dir) {
  Json::Value request = IndexCommand("document_del_by_query", GetFileIndexID(share));
  request["data"]["query"] = Subtree(dir);
  SendRequest(request);
}

void IndexUpsert(const std::string& share, const std::string& path, bool need_meta) {
  Json::Value document = GetDocument(path, need_meta);
  Json::Value request = DocumentCommand("document_upsert_by_id", share, path);
  request["data"]["data"] = std::move(document);
  SendRequest(request);
}

void IndexAttr(const std::string& share, const std::string& path) {
  ORBISK_CHECK(!IsDocumentExists(share, path), 917, "");
  Json::Value document = GetDocument(path, false);
  Json::Value request = DocumentCommand("document_set_by_id", share, path);
  request["data"]["data"] = std::move(document);
  SendRequest(request);
}

void IndexRename(const std::string& share, const std::string& new_path, const std::string& old_path) {
  ORBISK_CHECK(!IsDocumentExists(share, old_path), 917, "");
  SendRequest(RenameRequest(share, new_path, old_path));

  Json::Value request = IndexCommand("document_get_by_query", GetFileIndexID(share));
  request["data"]["query"] = Subtree(old_path);
  request["data"]["load_field"] = LoadFields({kMDPath, kMDFSName, kMDParent});
  Json::Value res;
  SendRequest(res, request);
  ORBISK_CHECK(!res.isMember("data") || !res["data"].isArray(), 916, "");

  for (Json::Value& hit : res["data"]) {
    hit = MoveRequest(share, hit, new_path, old_path.size());  // in its place: there may be a million of each
  }
  Json::Value moves;
  moves["compound"].swap(res["data"]);
  res = Json::Value();
  SendRequest(moves);
}

void IndexGetByPrefixPath(const std::string& index_id, const std::string& dir, std::vector<std::string>& paths) {
  Json::Value request = IndexCommand("document_get_by_query", index_id);
  request["data"]["query"] = Subtree(dir);
  request["data"]["load_field"] = LoadFields({kMDPath});
  Json::Value res;
  SendRequest(res, request);
  ORBISK_CHECK(!res.isMember("data") || !res["data"].isArray(), 916, "");
  for (const Json::Value& hit : res["data"]) {
    std::string path;
    GetJsonValue(path, hit, kMDPath, true);
    paths.push_back(std::move(path));
  }
}

void IndexCommit(const std::string& share) {
  try {
    SendRequest(IndexCommand("commit", GetFileIndexID(share)));
  } catch (const Error& error) {
    const bool is_space_enough = sdk::SDKShare(share).IsSpaceEnough();
    if (is_space_enough) {
      throw Error(error);
    }
    StatusMgr().SetShareStatus(share, kNeedReindex);
    ORBISK_CHECK(!is_space_enough, 1003, "Share (" + share + ") space not enough");
  }
}

void ListUnAvailTermSuggDB(std::vector<std::string>& dbs) {
  Json::Value res;
  SendRequest(res, Command("list_term_sugg_db"));
  const Json::Value& data = res["data"];
  ORBISK_CHECK(!data.isObject() || !data["unavail"].isArray(), 916, "");
  for (const Json::Value& db : data["unavail"]) {
    ORBISK_CHECK(!isJsonType<std::string>(db), 916, "");
    dbs.push_back(asJsonType<std::string>(db));
  }
}

void UpdateTermSuggestion(const std::string& db_name, const std::vector<std::string>& docs) {
  Json::Value request;
  request["compound"] = Json::Value(Json::arrayValue);
  for (const std::string& doc : docs) {
    Json::Value update = Command("update_term_suggestion");
    update["data"]["doc_id_field"] = doc;
    update["data"]["db_name"] = db_name;
    request["compound"].append(std::move(update));
  }
  SendRequest(request);
}

}  // namespace orbisk::fileindex::elastic
