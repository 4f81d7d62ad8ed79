// What the fuzz targets of the format readers share: the input as a file, one reader on it, and what must hold after.
#pragma once

#include <json/json.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "services/extractor/formats/reading.h"
#include "services/extractor/formats/text_sink.h"

namespace orbisk::fuzz {

/// Calls `read` on the input as if its content had been found to be of `media_type`. Ends the process when the text is
/// longer than asked for, or anything written is not UTF-8.
inline void ReadAs(void (*read)(extractor::Reading&), const char* media_type, const std::uint8_t* data, size_t size) {
  [[maybe_unused]] static const bool is_prepared = (extractor::Prepare(), true);
  constexpr size_t kTextBytes = 65536;
  // One file for all inputs, as a worker keeps its own process.
  static const int fd = memfd_create("input", MFD_CLOEXEC);
  if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) {
    abort();
  }
  Json::Value document;
  extractor::Reading reading{extractor::Input(fd), "input", media_type, extractor::TextSink(kTextBytes),
                             extractor::Fields(document)};
  try {
    read(reading);
  } catch (const std::exception&) {
    // A reason; which one is up to the tests.
  }
  document["text"] = reading.text.Take();
  if (document["text"].asString().size() > kTextBytes) {
    abort();
  }
  for (const std::string& name : document.getMemberNames()) {
    const std::string text = document[name].isString() ? document[name].asString() : "";
    if (extractor::ValidUtf8Prefix(text).bytes != text.size()) {
      abort();
    }
  }
}

}  // namespace orbisk::fuzz
