// Requests to the search daemon: whatever comes, it is read or refused, and what was found in it is what a parser
// finds.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "services/search/commands.h"
#include "services/search/json_text.h"
#include "services/search/refusal.h"
#include "services/search/request.h"

using nimoelasticd::Commands;
using nimoelasticd::ReadJson;
using nimoelasticd::Refusal;
using nimoelasticd::Request;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  bool is_json = true;
  Json::Value whole;
  try {
    whole = ReadJson(text);
  } catch (const Refusal&) {
    is_json = false;
  }
  try {
    const Request request(text);
    if (is_json && request.compound() != whole.isMember("compound")) {
      abort();
    }
    if (is_json && request.compound() && request.size() != whole["compound"].size()) {
      abort();
    }
    for (size_t i = 0; i < request.size(); ++i) {
      try {
        Commands::RouteOf(request.At(i));
      } catch (const Refusal&) {
        continue;
      }
    }
  } catch (const Refusal&) {
    if (is_json && whole.isObject() && (!whole.isMember("compound") || whole["compound"].isArray())) {
      abort();
    }
  }
  return 0;
}
