// Mappings and a document: each is taken or refused, and what was taken comes back. The input is two JSON texts with a
// newline between them.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "services/search/index.h"
#include "services/search/schema.h"
#include "services/search/store.h"

namespace {

using search::Error;
using search::ErrorCode;

Json::Value ParseOrNull(const std::string& text) {
  try {
    return search::ParseJson(text);
  } catch (const Error&) {
    return {};
  }
}

// Nothing is kept of a record without texts.
void RequireSameTexts(const search::Record& record) {
  if (record.texts.empty()) {
    return;
  }
  search::Record again = record;
  again.texts.clear();
  search::UnpackTexts(search::PackTexts(record), again);
  if (again.texts != record.texts) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const size_t newline = std::min(text.find('\n'), text.size());
  try {
    const search::Schema schema(ParseOrNull(text.substr(0, newline)), Json::Value(Json::objectValue));
    const search::Record record = schema.ToRecord(ParseOrNull(text.substr(newline)));
    RequireSameTexts(record);
    for (size_t i = 0; i < schema.word_columns().size(); ++i) {
      std::string room;
      schema.Words(record, i, room);
    }
    const Json::Value written = schema.ToJson(record, std::nullopt);
    if (written[schema.id_field()].isString() && written[schema.id_field()].asString() != record.path) {
      abort();
    }
  } catch (const Error& error) {
    if (error.code() != ErrorCode::kBadMappings && error.code() != ErrorCode::kBadDocument) {
      abort();
    }
  }
  return 0;
}
