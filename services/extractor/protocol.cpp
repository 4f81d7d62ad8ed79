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

// As the JSON library writes it, many times faster.
void AppendEscaped(std::string& json, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  size_t plain = 0;  // where what needs no change begins
  for (size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte >= ' ' && byte != '"' && byte != '\\') {
      continue;
    }
    json += text.substr(plain, at - plain);
    plain = at + 1;
    if (byte == '\n') {
      json += "\\n";
    } else if (byte >= ' ') {
      json += {'\\', text[at]};
    } else {
      json += {'\\', 'u', '0', '0', kHex[byte >> 4], kHex[byte & 15]};
    }
  }
  json += text.substr(plain);
}

}  // namespace

Request ParseRequest(std::string_view text) {
  const std::optional<Json::Value> value = FromText(text);
  if (!value || !value->isObject()) {
    return Malformed("the request is no JSON object");
  }
  Request request;
  if (value->isMember("status")) {
    const Json::Value& since = (*value)["since"];
    request.kind = Request::Kind::kStatus;
    request.wants_failures = since.isUInt64();
    request.since = request.wants_failures ? since.asUInt64() : 0;
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

std::string DataAnswer(const Json::Value& data, Json::Value extra, std::string_view text) {
  extra["success"] = true;
  const std::string fields = ToText(data);
  const std::string others = ToText(extra);
  std::string answer = "{\"data\":{";
  // Escaping makes a text longer by little, unless it was made to.
  answer.reserve(fields.size() + others.size() + text.size() + text.size() / 16 + 64);
  if (!text.empty()) {
    answer += '"';
    answer += names::kMDTextContent;
    answer += "\":\"";
    AppendEscaped(answer, text);
    answer += data.empty() ? "\"" : "\",";
  }
  answer.append(fields, 1);
  answer += ',';
  return answer.append(others, 1);
}

}  // namespace extractor
