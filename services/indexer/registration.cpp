// One JSON file for each registration.
#include "services/indexer/registration.h"

#include <json/json.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <system_error>

#include "services/base/json_text.h"

namespace fileindexd {

bool IsRegistered(const std::string& folder, const std::string& queue) {
  std::error_code error;
  for (std::filesystem::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    std::ifstream file(at->path(), std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::optional<Json::Value> registration = service::FromText(text);
    if (registration && registration->isObject() && (*registration)["queue"] == Json::Value(queue)) {
      return true;
    }
  }
  return static_cast<bool>(error);
}

}  // namespace fileindexd
