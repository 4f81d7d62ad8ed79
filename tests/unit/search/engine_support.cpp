// Mappings and documents for the tests of the search engine.
#include "tests/unit/search/engine_support.h"

#include <algorithm>

#include "services/search/store.h"

namespace search::test {

Json::Value Json_(std::string text) {
  std::replace(text.begin(), text.end(), '\'', '"');
  return ParseJson(text);
}

Json::Value Mappings() {
  return Json_(R"({
    'property_id': 'NIMOMDPath',
    'default': {'type': 'string', 'analyzer': 'nimostandard', 'required': false, 'stored': true, '_all': true},
    'properties': {
      'NIMOMDPath': {'analyzer': 'keyword', 'required': true, '_all': false},
      'NIMOMDFSName': {'analyzer': 'keyword', '_all': false},
      'NIMOMDParent': {'analyzer': 'keyword', '_all': false},
      'NIMOMDExtension': {'analyzer': 'keyword', '_all': false},
      'NIMOMDIsDir': {'type': 'bool'},
      'NIMOMDFSSize': {'type': 'int'},
      'NIMOMDFSContentChangeDate': {'type': 'int'},
      'NIMOMDDurationSecond': {'type': 'double'},
      'NIMOMDTitle': {'type': 'text'},
      'NIMOMDAuthors': {'type': 'text', 'analyzer': 'white space'},
      'NIMOMDAperture': {'analyzer': 'keyword'},
      'NIMOMDKeywords': {},
      'NIMOMDSecret': {'type': 'text', '_all': false},
      'NIMOMDTextContent': {'type': 'text'},
      'NIMOMDSearchFileName': {'type': 'text', 'analyzer': 'white space', 'preprocess': ['tolower', 'ngram']},
      'NIMOMDSearchAncestor': {'type': 'text', 'analyzer': 'white space escaped', '_all': false,
                               'preprocess': ['list_ancestor']}
    }})");
}

Json::Value Document(const std::string& path, const std::string& content) {
  const size_t slash = path.rfind('/');
  const std::string name = path.substr(slash + 1);
  const std::string parent = path.substr(0, slash);
  Json::Value document;
  document["NIMOMDPath"] = path;
  document["NIMOMDParent"] = parent;
  document["NIMOMDFSName"] = name;
  document["NIMOMDSearchFileName"] = name;
  document["NIMOMDSearchAncestor"] = parent;
  document["NIMOMDExtension"] = name.rfind('.') == std::string::npos ? "" : name.substr(name.rfind('.') + 1);
  if (!content.empty()) {
    document["NIMOMDTextContent"] = content;
  }
  return document;
}

std::vector<std::string> Find(Index& index, const std::string& query) {
  SearchOptions options;
  options.limit = 10'000;
  std::vector<std::string> paths;
  for (const Hit& hit : index.Search(query, options).hits) {
    paths.push_back(hit.path);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

std::vector<std::string> Get(Index& index, const std::string& qsl, View view) {
  std::vector<std::string> paths;
  const std::string id = index.mappings()["property_id"].asString();
  Json::Value query;
  query["qsl"] = Json_(qsl);
  index.Get(
      query, std::vector<std::string>{id}, [&](Json::Value&& hit) { paths.push_back(hit[id].asString()); }, view);
  return paths;
}

Json::Value Fields(Index& index, const std::string& path, const std::vector<std::string>& names) {
  Json::Value query;
  query["qsl"]["term"][index.mappings()["property_id"].asString()] = path;
  Json::Value fields;
  index.Get(query, names, [&](Json::Value&& hit) { fields = std::move(hit); });
  return fields;
}

}  // namespace search::test
