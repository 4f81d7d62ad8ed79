// How benches print a measured value beside its bound.
#pragma once

#include <string>

namespace orbisk::bench {

/// Prints the value with its bound, which it must not exceed or, `at_least`, must reach. Returns whether it is kept.
bool Report(const std::string& what, double value, const char* unit, double bound, bool at_least = false);

}  // namespace orbisk::bench
