// The words between daemon and worker.
#include "services/extractor/worker_reply.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <utility>

#include "orbisk/fileindex/metadata_names.h"
#include "services/base/json_text.h"

namespace extractor {

using service::FromText;
using service::ToText;

namespace {

namespace names = orbisk::fileindex::elastic;

constexpr size_t kLongestMessage = 500;  // of what a reader says about broken content

// What the daemon says itself, what others than the extractor keep in documents, and what has a place of its own.
constexpr const char* kNotFromContent[] = {
    names::kMDPath,          names::kMDParent,         names::kMDFSName,         names::kMDDisplayName,
    names::kMDExtension,     names::kMDKind,           names::kMDFSSize,         names::kMDLogicalSize,
    names::kMDPhysicalSize,  names::kMDIsDir,          names::kMDFSCreationDate, names::kMDFSContentChangeDate,
    names::kMDOwnerUserID,   names::kMDOwnerGroupID,   names::kMDPrivilege,      names::kMDAttributeChangeDate,
    names::kMDIsEncrypted,   names::kMDSearchFileName, names::kMDLastUsedDate,   names::kMDUserTags,
    names::kMDFinderLabel,   names::kMDGroupId,        names::kMDFinderOpenDate, names::kMDDateAdded,
    names::kMDFSInvisible,   names::kMDFSLabel,        names::kMDFSNodeCount,    names::kMDFSIsExtensionHidden,
    names::kMDFinderComment, names::kMDWildcard,       names::kMDTextContent};

const std::unordered_set<std::string>& ContentNames() {
  static const std::unordered_set<std::string> kNames = [] {
    std::unordered_set<std::string> all(std::begin(names::kMetadataNames), std::end(names::kMetadataNames));
    for (const char* name : kNotFromContent) {
      all.erase(name);
    }
    return all;
  }();
  return kNames;
}

bool IsScalar(const Json::Value& value) {
  return value.isString() || value.isNumeric() || value.isBool();
}

}  // namespace

std::string OrderText(const Order& order) {
  Json::Value value;
  value["name"] = order.name;
  value["text_bytes"] = Json::UInt64{order.text_bytes};
  return ToText(value);
}

Order ParseOrder(std::string_view text) {
  const std::optional<Json::Value> value = FromText(text);
  if (!value || !value->isObject()) {
    throw std::runtime_error("no order");
  }
  return {(*value)["name"].asString(), (*value)["text_bytes"].asUInt64()};
}

std::string ReplyHead(const Reply& reply) {
  Json::Value value;
  switch (reply.kind) {
    case Reply::Kind::kRead:
      value["fields"] = reply.fields;
      value["cut"] = reply.cut;
      break;
    case Reply::Kind::kBroken:
      value["broken"] = reply.message.substr(0, kLongestMessage);
      break;
    case Reply::Kind::kMemory:
      value["memory"] = true;
      break;
    case Reply::Kind::kGarbled:
      break;
  }
  std::string head = ToText(value);
  if (!reply.text.empty()) {
    head += '\0';
  }
  return head;
}

Reply ParseReply(std::string text) {
  Reply reply;
  const size_t end = std::min(text.find('\0'), text.size());
  std::optional<Json::Value> value = FromText(std::string_view(text).substr(0, end));
  if (!value || !value->isObject()) {
    return reply;
  }
  const Json::Value& broken = (*value)["broken"];
  Json::Value& fields = (*value)["fields"];
  const Json::Value& cut = (*value)["cut"];
  if ((*value)["memory"].isBool()) {
    reply.kind = Reply::Kind::kMemory;
  } else if (broken.isString()) {
    reply.kind = Reply::Kind::kBroken;
    reply.message = broken.asString().substr(0, kLongestMessage);
  } else if (fields.isObject() && cut.isBool()) {
    reply.kind = Reply::Kind::kRead;
    reply.cut = cut.asBool();
    reply.text = std::move(text.erase(0, end + 1));
    for (const std::string& name : fields.getMemberNames()) {
      if (ContentNames().count(name) != 0 && IsScalar(fields[name])) {
        reply.fields[name].swap(fields[name]);
      }
    }
  }
  return reply;
}

}  // namespace extractor
