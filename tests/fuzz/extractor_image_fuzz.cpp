// Pictures.
#include "tests/fuzz/extractor_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  orbisk::fuzz::ReadAs(extractor::ReadImage, "image/jpeg", data, size);
  orbisk::fuzz::ReadAs(extractor::ReadImage, "image/heic", data, size);
  return 0;
}
