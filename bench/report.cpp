// One form for all benches, so that their results can be read side by side.
#include "bench/report.h"

#include <cstdio>

namespace orbisk::bench {

bool Report(const std::string& what, double value, const char* unit, double bound, bool at_least) {
  const bool kept = at_least ? value >= bound : value <= bound;
  printf("%-66s %12.3f %s (at %s %g) %s\n", what.c_str(), value, unit, at_least ? "least" : "most", bound,
         kept ? "ok" : "OVER");
  fflush(stdout);
  return kept;
}

}  // namespace orbisk::bench
