// Queries of people and of programs: whatever is typed is answered or refused, and never reaches SQL or FTS5 as
// language.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "services/search/index.h"
#include "services/search/store.h"
#include "tests/unit/search/engine_support.h"

namespace {

using search::Error;
using search::ErrorCode;
using search::Index;

Index& SmallIndex() {
  static search::test::Fixture fixture;
  static const bool filled = [] {
    for (const char* path : {"/v/a report.txt", "/v/b/\xff.pdf", "/v/\u4e2d\u6587"}) {
      fixture.Put(path, "the quick brown fox \u4e2d\u6587");
    }
    fixture.index->Commit();
    return true;
  }();
  static_cast<void>(filled);
  return *fixture.index;
}

template <typename Ask>
void RequireAnswerOrRefusal(Ask ask) {
  try {
    ask();
  } catch (const Error& error) {
    if (error.code() != ErrorCode::kBadQuery && error.code() != ErrorCode::kQueryTimeout) {
      abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Index& index = SmallIndex();
  RequireAnswerOrRefusal([&] { index.Search(text); });
  Json::Value query;
  try {
    query["qsl"] = search::ParseJson(text);
  } catch (const Error&) {
    return 0;
  }
  RequireAnswerOrRefusal([&] { index.Get(query, std::nullopt, [](Json::Value&&) {}); });
  return 0;
}
