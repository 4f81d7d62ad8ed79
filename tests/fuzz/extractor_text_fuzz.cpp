// Plain text in any character set, and what decides on the format.
#include "services/extractor/formats/sniff.h"
#include "tests/fuzz/extractor_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  orbisk::fuzz::ReadAs(
      [](extractor::Reading& reading) {
        extractor::SniffMediaType(reading.input, reading.name);
        extractor::ReadText(reading);
      },
      "text/plain", data, size);
  return 0;
}
