// Tells one way of reading contents from every other.
#pragma once

#include <string>

#include "services/extractor/options.h"

namespace extractor {

/// Another text when anything is different that may make a content readable that was not: the program, a library that
/// it has loaded, the bounds of the workers.
std::string ReaderVersion(const Options& options);

}  // namespace extractor
