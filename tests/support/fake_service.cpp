// The fake platform's services, and its SMB server's Spotlight answer.
#include "tests/support/fake_service.h"

namespace orbisk::test {
namespace {

const std::set<std::string> kKnownAtFirst = {"nimocontentextractd", "pkg-Orbisk-fileindexd", "samba"};

}  // namespace

FakeServiceControl::FakeServiceControl()
    : start("NLIBServiceStart", [this](const char* name, int) { return Switch(name, true); }),
      stop("NLIBServiceStop", [this](const char* name, int) { return Switch(name, false); }),
      restart("NLIBServiceRestart", [this](const char* name) { return Switch(name, true); }),
      package_start("NLIBServicectlStart",
                    [this](const char* name, int kind) { return SwitchPackage(name, kind, true); }),
      package_stop("NLIBServicectlStop",
                   [this](const char* name, int kind) { return SwitchPackage(name, kind, false); }),
      is_spotlight(
          "NIMOSMBIsEnableSpotlight", [this] { return spotlight() ? 1 : 0; }, [] { return 0; }),
      set_spotlight("NIMOSMBSetSpotlight",
                    [this](int on) {
                      if (on != 0 && on != 1) {
                        return FailPlatform(EINVAL);
                      }
                      SetSpotlight(on == 1);
                      return 0;
                    }),
      known_(kKnownAtFirst) {}

void FakeServiceControl::Add(const std::string& name) {
  const std::lock_guard lock(mutex_);
  known_.insert(name);
}

bool FakeServiceControl::IsRunning(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  return running_.count(name) != 0;
}

void FakeServiceControl::SetSpotlight(bool on) {
  const std::lock_guard lock(mutex_);
  spotlight_ = on;
}

bool FakeServiceControl::spotlight() const {
  const std::lock_guard lock(mutex_);
  return spotlight_;
}

void FakeServiceControl::Reset() {
  const std::lock_guard lock(mutex_);
  known_ = kKnownAtFirst;
  running_.clear();
  spotlight_ = false;
}

int FakeServiceControl::Switch(const char* name, bool on) {
  const std::lock_guard lock(mutex_);
  if (name == nullptr || known_.count(name) == 0) {
    return FailPlatform(name == nullptr ? EINVAL : ENOENT);
  }
  if (on) {
    running_.insert(name);
  } else {
    running_.erase(name);
  }
  return 0;
}

int FakeServiceControl::SwitchPackage(const char* name, int kind, bool on) {
  return kind == NLIB_SERVICECTL_UPSTART ? Switch(name, on) : FailPlatform(EINVAL);
}

FakeServiceControl& FakeServices() {
  static auto* const services = new FakeServiceControl;
  return *services;
}

}  // namespace orbisk::test

int NLIBServiceStart(const char* name, int flag) {
  return orbisk::test::FakeServices().start(name, flag);
}

int NLIBServiceStop(const char* name, int flag) {
  return orbisk::test::FakeServices().stop(name, flag);
}

int NLIBServiceRestart(const char* name) {
  return orbisk::test::FakeServices().restart(name);
}

int NLIBServicectlStart(const char* name, int kind) {
  return orbisk::test::FakeServices().package_start(name, kind);
}

int NLIBServicectlStop(const char* name, int kind) {
  return orbisk::test::FakeServices().package_stop(name, kind);
}

int NIMOSMBIsEnableSpotlight() {
  return orbisk::test::FakeServices().is_spotlight();
}

int NIMOSMBSetSpotlight(int on) {
  return orbisk::test::FakeServices().set_spotlight(on);
}
