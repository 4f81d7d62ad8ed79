// Samba's Spotlight switch: read as Samba reads its configuration, set in the registry part of it.
#include "nimo/smb.h"

#include <optional>
#include <string>

#include "platform/linux/last_error.h"
#include "platform/linux/program.h"

namespace nimo {
namespace {

std::string FirstWord(const std::string& text) {
  return text.substr(0, text.find_first_of(" \r\n"));
}

// Samba's own word for the switch: "Yes", "No", or "" when there is no Samba or it does not say.
std::string SpotlightSetting() {
  const std::string testparm = FindProgram("testparm");
  std::string answer;
  if (testparm.empty() ||
      RunProgram({testparm, "-s", "--section-name=global", "--parameter-name=spotlight"}, {&answer, false}) != 0) {
    return "";
  }
  return FirstWord(answer);
}

// What the registry has of the switch; nothing when it has none.
std::optional<std::string> RegisteredSpotlight(const std::string& net) {
  std::string answer;
  if (RunProgram({net, "conf", "getparm", "global", "spotlight"}, {&answer, false}) != 0) {
    return std::nullopt;
  }
  return FirstWord(answer);
}

}  // namespace
}  // namespace nimo

int NIMOSMBIsEnableSpotlight() {
  return nimo::SpotlightSetting() == "Yes" ? 1 : 0;
}

int NIMOSMBSetSpotlight(int on) {
  if (on != 0 && on != 1) {
    return NIMO_FAIL(EINVAL);
  }
  const std::string net = nimo::FindProgram("net");
  if (net.empty()) {
    return NIMO_FAIL(ENOENT);
  }
  const std::optional<std::string> before = nimo::RegisteredSpotlight(net);
  if (nimo::RunToSuccess({net, "conf", "setparm", "global", "spotlight", on == 1 ? "yes" : "no"}) < 0) {
    return -1;
  }
  // The registry counts only where smb.conf says so, and below what smb.conf itself sets.
  if (nimo::SpotlightSetting() == (on == 1 ? "Yes" : "No")) {
    return 0;
  }
  if (before) {
    nimo::RunProgram({net, "conf", "setparm", "global", "spotlight", *before});
  } else {
    nimo::RunProgram({net, "conf", "delparm", "global", "spotlight"});
  }
  return NIMO_FAIL(ENOTSUP);
}
