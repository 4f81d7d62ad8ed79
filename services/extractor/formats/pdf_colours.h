// Text without its colours: the PDF library shall not compute them.
#pragma once

namespace extractor {

/// Does nothing at run time. The call has the linker take the file with the colour library's stand-in.
void PreparePdfColours();

}  // namespace extractor
