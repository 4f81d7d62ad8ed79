// The whole stack on a disk, for benches: the boxes of tests keep their shares in memory.
#pragma once

#include <string>

#include "bench/report.h"
#include "tests/system/indexer_box.h"

namespace orbisk::bench {

/// The body of a test without the test: an IndexerBox whose volume is a folder of the disk that holds /var/tmp, or that
/// $ORBISK_BENCH_DIR names. The folder goes when the process ends, however it ends.
class DiskBox : public test::IndexerBox {
 public:
  /// Once for each process, from its main thread while it has no other. Throws std::system_error.
  static void EnterNamespace();

  void TestBody() override {}

 protected:
  void MountVolume() override;
};

}  // namespace orbisk::bench
