// A file system that does not say what lies at a path, which no test can have for real.
#pragma once

#include <string>

namespace fileindexd {

/// While it lives, statx(2) fails with `error` at and below `path`; "" for everywhere. One at a time.
class FailingStatx {
 public:
  explicit FailingStatx(int error, std::string path = "");
  ~FailingStatx();
  FailingStatx(const FailingStatx&) = delete;
  FailingStatx& operator=(const FailingStatx&) = delete;
};

}  // namespace fileindexd
