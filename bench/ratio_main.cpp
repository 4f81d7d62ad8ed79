// Runs benchmarks and reports ratios.
#include "bench/ratio_main.h"

#include <algorithm>
#include <cstdio>

namespace orbisk::bench {
namespace {

class BestTimes : public benchmark::ConsoleReporter {
 public:
  BestTimes() : ConsoleReporter(OO_None) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) {
        Take(run);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // Seconds per item, or per iteration of a benchmark that counts none; 0 if it did not run.
  double Seconds(const std::string& name) const {
    const auto it = best_.find(name);
    return it == best_.end() ? 0 : it->second;
  }

 private:
  void Take(const Run& run) {
    const auto items = run.counters.find("items_per_second");
    const double seconds = items != run.counters.end()
                               ? 1 / items->second.value
                               : run.real_accumulated_time / static_cast<double>(run.iterations);
    const std::string name = run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
    const auto [it, is_new] = best_.emplace(name, seconds);
    if (!is_new) {
      it->second = std::min(it->second, seconds);
    }
  }

  std::map<std::string, double> best_;
};

}  // namespace

int RunWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios) {
  std::vector<char*> arguments(argv, argv + argc);
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char repeat[] = "--benchmark_repetitions=5";
  arguments.insert(arguments.begin() + 1, {interleave, repeat});
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return 2;
  }
  BestTimes times;
  benchmark::RunSpecifiedBenchmarks(&times);

  bool all_within = true;
  for (const Ratio& ratio : ratios) {
    const double numerator = times.Seconds(ratio.numerator);
    const double denominator = times.Seconds(ratio.denominator);
    if (numerator <= 0 || denominator <= 0) {
      continue;  // filtered out
    }
    const bool within = numerator / denominator <= ratio.bound;
    all_within = all_within && within;
    printf("ratio %-60s %8.3f (at most %.2f) %s\n", ratio.what.c_str(), numerator / denominator, ratio.bound,
           within ? "ok" : "OVER");
  }
  return all_within ? 0 : 1;
}

}  // namespace orbisk::bench
