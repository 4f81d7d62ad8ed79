// The fake platform's homes.
#pragma once

#include <mutex>
#include <set>
#include <string>

#include "nimo/home.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

template <>
struct ArgumentText<AUTH_TYPE> {
  static std::string Of(AUTH_TYPE type) { return std::to_string(static_cast<int>(type)); }
};

/// Homes are the real folders below the fake share "homes". Accounts of the fake platform are local, but for those that
/// a test says come from a directory service.
class FakeHomeService final : public FakeService {
 public:
  FakeHomeService();

  FakeFunction<int(SZLIST**)> enumerate;
  FakeFunction<int(SZLIST**, AUTH_TYPE)> enumerate_of;

  /// From now on the account `name`, which need not exist otherwise, is of a directory service.
  void AddToDirectory(const std::string& name);
  void Reset() override;

 private:
  int Enumerate(SZLIST** list, int auth);
  bool IsOf(const std::string& name, int auth) const;

  mutable std::mutex mutex_;  // guards the names
  std::set<std::string> directory_;
};

FakeHomeService& FakeHomes();

}  // namespace orbisk::test
