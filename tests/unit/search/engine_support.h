// What the tests of the search engine share: small mappings, documents, an index in a temporary directory.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "services/search/index.h"
#include "tests/support/temp_dir.h"

namespace search::test {

/// Mappings with a field of each kind that matters.
Json::Value Mappings();

/// A JSON value from its text, quotation marks written as '.
Json::Value Json_(std::string text);

/// A document at `path` with the fields that are derived from it.
Json::Value Document(const std::string& path, const std::string& content = "");

/// Document paths that a query in people's language finds, sorted.
std::vector<std::string> Find(Index& index, const std::string& query);
/// Document paths that a query of programs finds, in order.
std::vector<std::string> Get(Index& index, const std::string& qsl, View view = View::kLatest);
/// The stored fields of one document; null when there is none.
Json::Value Fields(Index& index, const std::string& path, const std::vector<std::string>& names);

/// A new index that goes with its directory.
struct Fixture {
  explicit Fixture(const Json::Value& settings = Json::Value(Json::objectValue), const OpenOptions& options = {})
      : index(Index::Create(path(), Mappings(), settings, options)) {}
  std::string path() const { return dir / "db"; }
  void Put(const std::string& at, const std::string& content = "") { index->Upsert(at, Document(at, content)); }
  void Reopen(const OpenOptions& options = {}) {
    index.reset();
    index = Index::Open(path(), options);
  }

  orbisk::test::TempDir dir;
  std::unique_ptr<Index> index;
};

/// The code of the Error that `call` throws; fails the test when it throws none.
template <typename Call>
ErrorCode CodeOf(Call call) {
  try {
    call();
  } catch (const Error& error) {
    return error.code();
  }
  throw std::logic_error("no error was thrown");
}

}  // namespace search::test
