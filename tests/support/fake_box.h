// The fake platform's smaller services: index locations, room, text comparison, starting programs.
#pragma once

#include <string>
#include <vector>

#include "nimo/index_location.h"
#include "nimo/process.h"
#include "nimo/quota.h"
#include "nimo/unicode.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

/// For a share at <volume>/<name>: <volume>/@fileindex/<name>/queue and .../db, and fileindex_<name>.
struct FakeIndexLocations {
  FakeFunction<int(const char*, char*, size_t)> queue_path;
  FakeFunction<int(const char*, char*, size_t)> db_path;
  FakeFunction<int(const char*, char*, size_t)> index_id;
};
FakeIndexLocations& FakeIndexLocation();

/// There is always room, but for 2^64 - 1 bytes.
FakeFunction<int(int, const char*, unsigned long long)>& FakeQuota();

/// Folds character by character, as the C library does.
FakeFunction<int(const char*, const char*)>& FakeCaseCompare();

template <>
struct ArgumentText<std::vector<std::string>> {
  static std::string Of(const std::vector<std::string>& arguments);
};

/// Starts nothing; every program ends with 0.
struct FakeProcesses {
  FakeFunction<int(std::string, unsigned, std::vector<std::string>)> execl;  ///< program, flags, arguments; recorded
                                                                             ///< as "arg|arg"
  FakeFunction<int(std::string, std::vector<std::string>)> exec;             ///< program, arguments
};
FakeProcesses& FakeProcess();

}  // namespace orbisk::test
