// Films.
#include "tests/fuzz/extractor_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  orbisk::fuzz::ReadAs(extractor::ReadVideo, "video/mp4", data, size);
  return 0;
}
