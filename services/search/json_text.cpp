// jsoncpp with the settings that keep bytes.
#include "services/search/json_text.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>

#include "services/search/refusal.h"

namespace nimoelasticd {

std::string WriteJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

Json::Value ReadJson(std::string_view text) {
  Json::CharReaderBuilder builder;
  builder["allowComments"] = false;
  builder["collectComments"] = false;
  builder["failIfExtra"] = true;
  builder["strictRoot"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string problem;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, &problem)) {
      return value;
    }
  } catch (const Json::Exception& error) {  // nesting too deep
    problem = error.what();
  }
  throw Refusal(Code::kMalformedRequest, "not JSON: " + problem.substr(0, 200));
}

}  // namespace nimoelasticd
