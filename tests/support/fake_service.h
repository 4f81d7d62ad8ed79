// The fake platform's services, and its SMB server's Spotlight answer.
#pragma once

#include <mutex>
#include <set>
#include <string>

#include "nimo/service.h"
#include "nimo/smb.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

/// Knows the three services that the library switches, "nimocontentextractd", "pkg-Orbisk-fileindexd" and "samba", and
/// those that a test adds. None runs at first, and Spotlight is off.
class FakeServiceControl final : public FakeService {
 public:
  FakeServiceControl();

  FakeFunction<int(const char*, int)> start;
  FakeFunction<int(const char*, int)> stop;
  FakeFunction<int(const char*)> restart;
  FakeFunction<int(const char*, int)> package_start;
  FakeFunction<int(const char*, int)> package_stop;
  FakeFunction<int()> is_spotlight;
  FakeFunction<int(int)> set_spotlight;

  void Add(const std::string& name);
  bool IsRunning(const std::string& name) const;
  void SetSpotlight(bool on);
  bool spotlight() const;
  void Reset() override;

 private:
  int Switch(const char* name, bool on);
  int SwitchPackage(const char* name, int kind, bool on);

  mutable std::mutex mutex_;  // guards the rest
  std::set<std::string> known_;
  std::set<std::string> running_;
  bool spotlight_ = false;
};

FakeServiceControl& FakeServices();

}  // namespace orbisk::test
