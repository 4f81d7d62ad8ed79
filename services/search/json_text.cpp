// Refuses what is not JSON.
#include "services/search/json_text.h"

#include <optional>
#include <string>
#include <utility>

#include "services/base/json_text.h"
#include "services/search/refusal.h"

namespace nimoelasticd {
namespace {

// Queries nest as deep as people's languages make them.
constexpr int kDeepestNesting = 1000;

}  // namespace

Json::Value ReadJson(std::string_view text) {
  std::string problem;
  std::optional<Json::Value> value = service::FromText(text, kDeepestNesting, &problem);
  if (!value) {
    throw Refusal(Code::kMalformedRequest, "not JSON: " + problem.substr(0, 200));
  }
  return std::move(*value);
}

}  // namespace nimoelasticd
