// Lists as the management operations take them.
#pragma once

#include <json/json.h>

#include <vector>

namespace orbisk::test {

inline Json::Value ListOf(const std::vector<Json::Value>& items) {
  Json::Value list(Json::arrayValue);
  for (const Json::Value& item : items) {
    list.append(item);
  }
  return list;
}

}  // namespace orbisk::test
