// Sound.
#include "tests/fuzz/extractor_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  orbisk::fuzz::ReadAs(extractor::ReadAudio, "audio/mpeg", data, size);
  return 0;
}
