// Memory of pending operations and of queue scans, as peak resident memory of a process that does nothing else.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/child_peak.h"
#include "bench/event_mix.h"
#include "bench/report.h"
#include "orbisk/fileindex/optree.h"
#include "orbisk/fileindex/queue_mgr.h"

namespace orbisk::bench {
namespace {

constexpr size_t kFiles = 1'000'000;

int Run() {
  char name[] = "/tmp/memory_bench_XXXXXX";
  close(mkstemp(name));
  const std::string path = name;
  const size_t nothing = PeakOf([] {});

  WriteFlatFolder(path, kFiles);
  const size_t tree = PeakOf([&] { fileindex::OPTree pending(path); });
  const auto scan = [&] { fileindex::QueueMgr(path).IsFullPathProcessing("/volume1/elsewhere"); };
  const size_t long_scan = PeakOf(scan);
  WriteFlatFolder(path, 1'000);
  const size_t short_scan = PeakOf(scan);
  unlink(path.c_str());

  const bool tree_within = Report("peak memory per pending file, one folder of 1,000,000",
                                  static_cast<double>(tree - nothing) / kFiles, "bytes", 700);
  const bool scan_within =
      Report("peak memory of asking a queue of 1,000,000 lines, over one of 1,000",
             static_cast<double>(long_scan) - static_cast<double>(short_scan), "bytes", 256 * 1024);
  return tree_within && scan_within ? 0 : 1;
}

}  // namespace
}  // namespace orbisk::bench

int main() {
  return orbisk::bench::Run();
}
