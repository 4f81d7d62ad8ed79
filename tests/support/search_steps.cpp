// What library and search daemon say to each other, as one table.
#include "tests/support/search_steps.h"

#include "orbisk/error.h"
#include "orbisk/fileindex/elastic_control.h"
#include "orbisk/json.h"

namespace orbisk::test {
namespace {

using namespace fileindex::elastic;

constexpr char kDone[] = R"({"success":true})";
constexpr char kSet[] = R"({"data":{"replaced":false},"success":true})";

std::string Refused(int code, const std::string& message) {
  return R"({"error":{"code":)" + std::to_string(code) + R"(,"msg":")" + message + R"("},"success":false})";
}

std::string Found(const std::string& documents) {
  return R"({"data":[)" + documents + R"(],"success":true})";
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) {
    joined += (joined.empty() ? "" : " ") + text;
  }
  return joined;
}

// Makes a call of the library whose outcome is an Error, or nothing.
std::function<std::string()> Call(std::function<void()> call) {
  return [call = std::move(call)]() -> std::string {
    try {
      call();
    } catch (const Error& error) {
      return std::to_string(error.code()) + " " + error.what();
    }
    return "done";
  };
}

std::string Request(const std::string& command, const std::string& data, const std::string& id = "fileindex_photo") {
  return R"({"command":")" + command + R"(","data":{)" + data + (data.empty() ? "" : ",") + R"("id":")" + id + R"("}})";
}

// The document of a file or folder as the extractor makes it, with the library's two copies, and nothing else.
std::string Document(const std::string& parent, const std::string& name) {
  return R"("NIMOMDFSName":")" + name + R"(","NIMOMDParent":")" + parent + R"(","NIMOMDPath":")" + parent + "/" + name +
         R"(","NIMOMDSearchAncestor":")" + parent + R"(","NIMOMDSearchFileName":")" + name + '"';
}

std::string WriteRequest(const std::string& command, const std::string& parent, const std::string& name) {
  return Request(command, R"("data":{)" + Document(parent, name) + R"(},"doc_id":")" + parent + "/" + name + '"');
}

std::string Exact(const std::string& path) {
  return R"x({"command":"document_get_by_query","data":{"id":"fileindex_photo","query":{"qsl":{"term":{"NIMOMDPath":")x" +
         path + R"("}}}}})";
}

std::string Below(const std::string& fields, const std::string& folder) {
  return R"({"command":"document_get_by_query","data":{"id":"fileindex_photo","load_field":[)" + fields +
         R"(],"query":{"qsl":{"prefix":{"NIMOMDPath":")" + folder + R"(/"}}}}})";
}

// The command of a compound request that moves a document below a renamed folder.
std::string Move(const std::string& from, const std::string& to, const std::string& name) {
  return R"({"command":"document_set_by_id","data":{"data":{"NIMOMDParent":")" + to + R"(","NIMOMDPath":")" + to + "/" +
         name + R"(","NIMOMDSearchAncestor":")" + to + R"("},"doc_id":")" + from + "/" + name +
         R"(","id":"fileindex_photo"}})";
}

std::string Suggestion(const std::string& path) {
  return R"({"command":"update_term_suggestion","data":{"db_name":"fileindex_photo","doc_id_field":")" + path + "\"}}";
}

using Steps = std::vector<SearchStep>;

void AddCreation(Steps& steps, const std::string& volume) {
  const std::string create =
      R"({"command":"index_create","data":{"event_handler":{"lib_path":)"
      R"("/var/packages/Orbisk/target/handler/fileindex_event_handler.so"},"id":"fileindex_photo","mappings":)" +
      toString(GetFileIndexMappings()) + R"(,"path":")" + volume + R"(/@fileindex/photo/db","settings":{}}})";
  steps.push_back({"an index is made", Call([] { ShareIndexCreate("photo"); }), "done", {{create, kDone}}});
  steps.push_back({"an index is not made twice",
                   Call([] { ShareIndexCreate("photo"); }),
                   "1220 Request failed, msg=the index exists: fileindex_photo",
                   {{create, Refused(1220, "the index exists: fileindex_photo")}}});
}

void AddDocuments(Steps& steps, const std::string& share) {
  for (const auto& [parent, name] :
       {std::pair(share, "a"), {share + "/a", "b.jpg"}, {share + "/a", "\xff é.txt"}, {share, "ab"}}) {
    steps.push_back({"a document is added",
                     Call([path = parent + "/" + name] { IndexUpsert("photo", path, true); }),
                     "done",
                     {{WriteRequest("document_upsert_by_id", parent, name), kDone}}});
  }
  steps.push_back({"attributes are set where a document is",
                   Call([share] { IndexAttr("photo", share + "/ab"); }),
                   "done",
                   {{Exact(share + "/ab"), Found("{" + Document(share, "ab") + "}")},
                    {WriteRequest("document_set_by_id", share, "ab"), kSet}}});
  steps.push_back({"attributes are not set where no document is",
                   Call([share] { IndexAttr("photo", share + "/a/c"); }),
                   "917 ",
                   {{Exact(share + "/a/c"), Found("")}}});
}

void AddPause(Steps& steps, const std::string& share) {
  const std::string refusal = Refused(608, "the index is paused");
  const std::string error = "608 Request failed, msg=the index is paused";
  steps.push_back(
      {"an index is paused", Call([] { ShareIndexPause("photo"); }), "done", {{Request("index_pause", ""), kDone}}});
  steps.push_back({"a paused index takes no document",
                   Call([share] { IndexUpsert("photo", share + "/c", false); }),
                   error,
                   {{WriteRequest("document_upsert_by_id", share, "c"), refusal}}});
  steps.push_back({"a paused index is not committed",
                   Call([] { IndexCommit("photo"); }),
                   error,
                   {{Request("commit", ""), refusal}}});
  steps.push_back({"a paused index refuses a compound request whole",
                   Call([share] { UpdateTermSuggestion("fileindex_photo", {share + "/ab"}); }),
                   error,
                   {{R"({"compound":[)" + Suggestion(share + "/ab") + "]}", refusal}}});
  steps.push_back(
      {"an index is resumed", Call([] { ShareIndexResume("photo"); }), "done", {{Request("index_resume", ""), kDone}}});
}

void AddRename(Steps& steps, const std::string& share) {
  const std::string from = share + "/a";
  const std::string to = share + "/New.Folder";
  const std::string fields =
      R"("NIMOMDDisplayName":"New.Folder","NIMOMDExtension":"folder","NIMOMDFSName":"New.Folder",)"
      R"("NIMOMDKind":"folder","NIMOMDParent":")" +
      share + R"(","NIMOMDPath":")" + to + R"(","NIMOMDSearchAncestor":")" + share +
      R"(","NIMOMDSearchFileName":"New.Folder")";
  const auto hit = [&from](const std::string& name) {
    return R"({"NIMOMDFSName":")" + name + R"(","NIMOMDParent":")" + from + R"(","NIMOMDPath":")" + from + "/" + name +
           "\"}";
  };
  steps.push_back(
      {"a folder is renamed with all below it, and nothing beside it",
       Call([from, to] { IndexRename("photo", to, from); }),
       "done",
       {{Exact(from), Found("{" + Document(share, "a") + "}")},
        {Request("document_set_by_id", R"("data":{)" + fields + R"(},"doc_id":")" + from + '"'), kSet},
        {Below(R"("NIMOMDPath","NIMOMDFSName","NIMOMDParent")", from), Found(hit("b.jpg") + "," + hit("\xff é.txt"))},
        {R"({"compound":[)" + Move(from, to, "b.jpg") + "," + Move(from, to, "\xff é.txt") + "]}",
         R"({"data":[)" + std::string(kSet) + "," + kSet + R"(],"has_fail":false,"success":true})"}}});
  steps.push_back(
      {"a file is renamed with an empty compound request",
       Call([share] { IndexRename("photo", share + "/abc", share + "/ab"); }),
       "done",
       {{Exact(share + "/ab"), Found("{" + Document(share, "ab") + "}")},
        {Request("document_set_by_id", R"("data":{"NIMOMDDisplayName":"abc","NIMOMDExtension":"","NIMOMDFSName":"abc",)"
                                       R"("NIMOMDKind":"","NIMOMDParent":")" +
                                           share + R"(","NIMOMDPath":")" + share + R"(/abc","NIMOMDSearchAncestor":")" +
                                           share + R"(","NIMOMDSearchFileName":"abc"},"doc_id":")" + share + R"(/ab")"),
         kSet},
        {Below(R"("NIMOMDPath","NIMOMDFSName","NIMOMDParent")", share + "/ab"), Found("")},
        {R"({"compound":[]})", R"({"data":[],"has_fail":false,"success":true})"}}});
  steps.push_back({"what is not indexed is not renamed",
                   Call([from, to] { IndexRename("photo", to, from); }),
                   "917 ",
                   {{Exact(from), Found("")}}});
}

void AddSuggestions(Steps& steps, const std::string& share) {
  const auto unavailable = [] {
    std::vector<std::string> databases;
    ListUnAvailTermSuggDB(databases);
    return Joined(databases);
  };
  const std::string list = R"({"command":"list_term_sugg_db","data":{}})";
  const std::string folder = share + "/New.Folder";
  steps.push_back(
      {"a commit makes it last", Call([] { IndexCommit("photo"); }), "done", {{Request("commit", ""), kDone}}});
  steps.push_back({"an index lacks its suggestions",
                   unavailable,
                   "fileindex_photo",
                   {{list, R"({"data":{"unavail":["fileindex_photo"]},"success":true})"}}});
  steps.push_back(
      {"the documents below a folder are listed",
       [folder] {
         std::vector<std::string> paths = {"before"};
         IndexGetByPrefixPath("fileindex_photo", folder, paths);
         return Joined(paths);
       },
       "before " + folder + "/b.jpg " + folder + "/\xff é.txt",
       {{Below(R"("NIMOMDPath")", folder),
         Found(R"({"NIMOMDPath":")" + folder + R"(/b.jpg"},{"NIMOMDPath":")" + folder + "/\xff é.txt\"}")}}});
  steps.push_back({"a missing document among suggestions is tolerated",
                   Call([folder] {
                     UpdateTermSuggestion("fileindex_photo", {folder + "/b.jpg", "/gone"});
                   }),
                   "done",
                   {{R"({"compound":[)" + Suggestion(folder + "/b.jpg") + "," + Suggestion("/gone") + "]}",
                     R"({"data":[{"success":true},)" + Refused(1200, "no document has the id /gone") +
                         R"(],"has_fail":true,"success":true})"}}});
  steps.push_back(
      {"suggestions are committed", Call([] { IndexCommit("photo"); }), "done", {{Request("commit", ""), kDone}}});
  steps.push_back(
      {"no index lacks its suggestions", unavailable, "", {{list, R"({"data":{"unavail":[]},"success":true})"}}});
}

void AddDeletions(Steps& steps, const std::string& share) {
  const auto del_dir = [](const std::string& folder) {
    return R"({"command":"document_del_by_query","data":{"id":"fileindex_photo","query":{"qsl":{"prefix":{)"
           R"("NIMOMDPath":")" +
           folder + R"(/"}}}}})";
  };
  const std::string folder = share + "/New.Folder";
  steps.push_back({"what is below a folder is deleted",
                   Call([folder] { IndexDelDir("photo", folder); }),
                   "done",
                   {{del_dir(folder), R"({"data":{"deleted":2},"success":true})"}}});
  steps.push_back({"the folder itself and a sibling with a longer name are still there",
                   [share] {
                     std::vector<std::string> paths;
                     IndexGetByPrefixPath("fileindex_photo", share, paths);
                     return Joined(paths);
                   },
                   folder + " " + share + "/abc",
                   {{Below(R"("NIMOMDPath")", share),
                     Found(R"({"NIMOMDPath":")" + folder + R"("},{"NIMOMDPath":")" + share + R"(/abc"})")}}});
  for (const int deleted : {1, 0}) {
    steps.push_back({deleted == 1 ? "a document is deleted" : "a missing document is deleted too",
                     Call([folder] { IndexDel("photo", folder); }),
                     "done",
                     {{Request("document_del_by_id", R"("doc_id":")" + folder + '"'),
                       R"({"data":{"deleted":)" + std::to_string(deleted) + R"(},"success":true})"}}});
  }
}

void AddMoves(Steps& steps, const std::string& volume) {
  const std::string path = volume + "/@fileindex/p \xff/db";
  const std::string moved = volume + "/moved/db";
  const std::string name = "p \xff";
  const std::string id = "fileindex_" + name;
  steps.push_back({"an index gets the name and place of a renamed share",
                   Call([name, path] { ShareIndexRename("photo", name, path); }),
                   "done",
                   {{Request("index_config_set", R"("data":{"id":")" + id + R"(","path":")" + path + "\"}"), kDone}}});
  steps.push_back({"the old name is unknown",
                   Call([] { IndexCommit("photo"); }),
                   "1204 Request failed, msg=no such index: fileindex_photo",
                   {{Request("commit", ""), Refused(1204, "no such index: fileindex_photo")}}});
  steps.push_back({"an index is moved",
                   Call([name, moved] { ShareIndexMigrate(name, moved); }),
                   "done",
                   {{Request("index_config_set", R"("data":{"path":")" + moved + "\"}", id), kDone}}});
  steps.push_back({"an index is deleted",
                   Call([name] { ShareIndexDelete(name); }),
                   "done",
                   {{Request("index_delete", "", id), kDone}}});
}

}  // namespace

std::vector<SearchStep> SearchSteps(const std::string& volume) {
  const std::string share = volume + "/photo";
  Steps steps;
  AddCreation(steps, volume);
  AddDocuments(steps, share);
  AddPause(steps, share);
  AddRename(steps, share);
  AddSuggestions(steps, share);
  AddDeletions(steps, share);
  AddMoves(steps, volume);
  return steps;
}

}  // namespace orbisk::test
