// Office documents and books: a zip and the XML within.
#include "tests/fuzz/extractor_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  orbisk::fuzz::ReadAs(extractor::ReadOfficeOpenXml,
                       "application/vnd.openxmlformats-officedocument.wordprocessingml.document", data, size);
  orbisk::fuzz::ReadAs(extractor::ReadOpenDocument, "application/vnd.oasis.opendocument.text", data, size);
  orbisk::fuzz::ReadAs(extractor::ReadEpub, "application/epub+zip", data, size);
  return 0;
}
