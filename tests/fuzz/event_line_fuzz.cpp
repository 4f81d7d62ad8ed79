// Event lines: the quick reader must agree with the JSON parser, and nothing but our own errors may come out.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fileindex/event_line.h"
#include "orbisk/error.h"
#include "orbisk/fileindex/op.h"
#include "orbisk/json.h"

namespace {

using orbisk::fileindex::Event;

void Require(bool condition) {
  if (!condition) {
    abort();
  }
}

void CompareWithParser(const std::string& line, const Event& quick) {
  Json::Value record;
  Require(orbisk::fromString(record, line));
  Require(quick.event == record["event"].asInt());
  Require(quick.is_dir == record.get("is_dir", false).asBool());
  Require(quick.path == record["path"].asString());
  Require(quick.path_old == record.get("path_old", "").asString());
  Require(quick.data.isNull() && record.get("data", Json::Value()).isNull());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);
  try {
    const Event event(line);
    Event quick = event;
    if (orbisk::fileindex::ReadPlainEvent(line, quick)) {
      CompareWithParser(line, quick);
    }
  } catch (const orbisk::Error& error) {
    Require(error.code() == 906 || error.code() == 120);
  }
  return 0;
}
