// Google Benchmark with ratios: machines are noisy, so what we promise is a ratio within one run.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace orbisk::bench {

/// A promise: the best time of `numerator` is at most `bound` times that of `denominator`. The names are those of
/// Google Benchmark's report; times are per item where a benchmark counts items.
struct Ratio {
  std::string what;
  std::string numerator;
  std::string denominator;
  double bound;
};

/// Runs the benchmarks, several times over in random order, and reports each ratio with its bound. Returns the
/// program's exit status: 1 if a ratio is over its bound.
int RunWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios);

}  // namespace orbisk::bench
