// Web pages, XML and Rich Text Format: each reader on every input.
#include "tests/fuzz/extractor_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  orbisk::fuzz::ReadAs(extractor::ReadHtml, "text/html", data, size);
  orbisk::fuzz::ReadAs(extractor::ReadXml, "text/xml", data, size);
  orbisk::fuzz::ReadAs(extractor::ReadRtf, "text/rtf", data, size);
  return 0;
}
