// Archives, alone and compressed.
#include "tests/fuzz/extractor_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  orbisk::fuzz::ReadAs(extractor::ReadArchive, "application/zip", data, size);
  orbisk::fuzz::ReadAs(extractor::ReadArchive, "application/gzip", data, size);
  return 0;
}
