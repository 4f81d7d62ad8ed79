// Keeps the PDF library from computing colours, of which a text has none.
#include "services/extractor/formats/pdf_colours.h"

namespace extractor {

void PreparePdfColours() {}

}  // namespace extractor

// In place of the colour library's. Poppler asks for a transform on each page that has a colour space with a profile;
// inverting the profile's curves took a fifth of all the time spent on PDF. Without a transform it takes the colour
// space that the document gives as an alternative.
extern "C" __attribute__((visibility("default"))) void* cmsCreateTransform(void* /*input_profile*/,
                                                                           unsigned /*input_format*/,
                                                                           void* /*output_profile*/,
                                                                           unsigned /*output_format*/,
                                                                           unsigned /*intent*/, unsigned /*flags*/) {
  return nullptr;
}
