// A whole status file: it is refused by one of our errors, or flags set in it are read back and cleared.
#include <memory>

#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/json.h"
#include "tests/fuzz/fuzz_box.h"

namespace {

using orbisk::fileindex::StatusMgr;
using orbisk::test::Require;
using orbisk::test::Succeeds;

constexpr char kStatusFile[] = "/var/packages/Orbisk/etc/fileindex.status";

void Change(StatusMgr& status) {
  const long pause = status.GetPauseInfo();
  const bool touch = status.GetVMTouchEnabled();
  const int flags = status.GetShareStatus("photo");
  status.SetShareStatus("photo", 1);
  Require(StatusMgr().GetShareStatus("photo") == (flags | 1));
  status.UnsetShareStatus("photo", 3);
  Require(StatusMgr().GetShareStatus("photo") == (flags & ~3));
  status.ClearShareStatus("photo");
  Require(StatusMgr().GetShareStatus("photo") == 0);
  status.SetVMTouchEnabled(!touch);
  Require(StatusMgr().GetVMTouchEnabled() == !touch);
  Require(StatusMgr().GetPauseInfo() == pause);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const orbisk::test::FuzzBox box;
  orbisk::test::WriteFile(kStatusFile, {reinterpret_cast<const char*>(data), size});
  std::unique_ptr<StatusMgr> status;
  if (!Succeeds([&] { status = std::make_unique<StatusMgr>(); }, 504)) {
    return 0;
  }
  if (!Succeeds([&] { Change(*status); }, 120)) {
    // Nothing of a file that could not be understood is replaced.
    Require(orbisk::test::ReadFile(kStatusFile) == std::string(reinterpret_cast<const char*>(data), size));
  }
  return 0;
}
