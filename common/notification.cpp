// Notifications to administrators. They stand on the ground floor because the search daemon's channel raises one.
#include "orbisk/notification.h"

#include "nimo/process.h"

namespace orbisk::fileindex {
namespace {

constexpr char kNotifyTool[] = "/usr/nimo/bin/nimonxmnotify";
constexpr char kApplication[] = "NIMO.Scoutly.Application";
constexpr char kAdministrators[] = "@administrators";
constexpr char kTitle[] = "app:displayname";
// How the box starts the tool; see nimo/process.h.
constexpr unsigned kExecFlags = 187;

}  // namespace

int SendNXMNotify() {
  // The last two stand before and behind the message's link text, which opens the application's preferences.
  return NLIBCExecl(kNotifyTool, kExecFlags, "-c", kApplication, "-b", "true", "-e", "false", kAdministrators, kTitle,
                    "error:index_no_space",
                    "<a data-nimo-app=\"NIMO.Scoutly.Application\" data-nimo-fn=\"preference\">", "</a>", nullptr);
}

int NotifyLackOfMemory() {
  return NLIBCExecl(kNotifyTool, kExecFlags, "-c", kApplication, kAdministrators, kTitle, "error:lack_of_memory",
                    nullptr);
}

}  // namespace orbisk::fileindex
