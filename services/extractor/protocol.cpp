// Understands requests and writes answers.
#include "services/extractor/protocol.h"

#include <utility>

#include "orbisk/fileindex/metadata_names.h"
#include "services/base/json_text.h"

namespace extractor {

using service::FromText;
using service::ToText;

namespace {

namespace names = orbisk::fileindex::elastic;

Request Malformed(std::string complaint) {
  Request request;
  request.complaint = std::move(complaint);
  return request;
}

bool IsUsablePath(const Json::Value& value) {
  if (!value.isString()) {
    return false;
  }
  const std::string path = value.asString();
  return !path.empty() && path.front() == '/' && path.find('\0') == std::string::npos;
}

}  // namespace

Request ParseRequest(std::string_view text) {
  const std::optional<Json::Value> value = FromText(text);
  if (!value || !value->isObject()) {
    return Malformed("the request is no JSON object");
  }
  Request request;
  if (value->isMember("status")) {
    request.kind = Request::Kind::kStatus;
    return request;
  }
  const Json::Value& path = (*value)[names::kPath];
  const Json::Value& pseudo_path = (*value)[names::kPseudoPath];
  const Json::Value& need_meta = (*value)[names::kNeedMeta];
  if (!IsUsablePath(path)) {
    return Malformed("path is no absolute path");
  }
  if (!pseudo_path.isNull() && !IsUsablePath(pseudo_path)) {
    return Malformed("pseudo_path is no absolute path");
  }
  if (!need_meta.isNull() && !need_meta.isBool()) {
    return Malformed("need_meta is no boolean");
  }
  request.kind = Request::Kind::kParse;
  request.path = path.asString();
  request.pseudo_path = pseudo_path.isNull() ? request.path : pseudo_path.asString();
  request.need_meta = need_meta.isBool() && need_meta.asBool();
  return request;
}

std::string ErrorAnswer(ErrorCode code, const std::string& message) {
  Json::Value answer;
  answer["success"] = false;
  answer["error"]["code"] = static_cast<int>(code);
  answer["error"]["msg"] = message;
  return ToText(answer);
}

std::string DataAnswer(Json::Value data, Json::Value extra) {
  extra["success"] = true;
  extra["data"] = std::move(data);
  return ToText(extra);
}

}  // namespace extractor
