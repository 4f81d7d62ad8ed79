// What clients and workers send to the extractor daemon: a message is understood or refused, nothing else happens.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orbisk/fileindex/metadata_names.h"
#include "services/base/json_text.h"
#include "services/extractor/frame.h"
#include "services/extractor/protocol.h"
#include "services/extractor/worker_reply.h"

namespace {

void Require(bool condition) {
  if (!condition) {
    abort();
  }
}

void TryFrame(const std::string& bytes) {
  extractor::FrameHeader header{};
  memcpy(header.data(), bytes.data(), std::min(bytes.size(), header.size()));
  const auto length = extractor::FrameLength(header, extractor::kLongestRequest);
  Require(!length || *length <= extractor::kLongestRequest);
}

void TryRequest(const std::string& text) {
  const extractor::Request request = extractor::ParseRequest(text);
  if (request.kind == extractor::Request::Kind::kParse) {
    Require(request.path.front() == '/' && request.path.find('\0') == std::string::npos);
    Require(request.pseudo_path.front() == '/' && request.pseudo_path.find('\0') == std::string::npos);
  }
}

void TryReply(const std::string& text) {
  const extractor::Reply reply = extractor::ParseReply(text);
  Require(reply.fields.isObject());
  Require(!reply.fields.isMember(orbisk::fileindex::elastic::kMDPath));
  const std::string answer = extractor::DataAnswer(reply.fields, Json::Value(Json::objectValue), reply.text);
  const auto understood = service::FromText(answer);
  Require(understood.has_value() && (*understood)["data"]["NIMOMDTextContent"].asString() == reply.text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  TryFrame(bytes);
  TryRequest(bytes);
  TryReply(bytes);
  return 0;
}
