// nimonxmnotify tells the administrators something: in the system log, and on their desktops where there are any.
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>

#include "tools/nimonxmnotify/arguments.h"
#include "tools/nimonxmnotify/message.h"
#include "tools/nimonxmnotify/sessions.h"

namespace nimonxmnotify {
namespace {

constexpr int kWrongUsage = 2;

constexpr char kHelp[] =
    R"(usage: nimonxmnotify -c APP [-b true|false] [-e true|false] [OPTION]... RECIPIENTS TITLE MESSAGE [TEXT]...
Tells people something about the application APP: in the system log, and on their desktops.

  RECIPIENTS             @GROUP or an account; @administrators are those who administer the machine
  TITLE, MESSAGE         keys of the application's texts; a key without a text is shown as it is
  TEXT                   put in place of {0}, {1} ... in the message

  -c APP                 the application
  -b true|false          whether it is shown on desktops; true if not given
  -e true|false          false: the TEXTs are markup, and their tags are left out; true if not given
  --strings FILE         the texts; the installed ones if not given
  --sessions DIR         a folder for each logged-in account with the socket "bus"; /run/user if not given
  --notify-program FILE  what shows a notification; /usr/bin/notify-send if not given
  -h, --help             print this
  --version              print the version

Exit status: 0, also when nobody is logged in; 2 for a wrong command line.
)";

std::string OwnPath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : "";
}

void Notify(const Arguments& arguments) {
  const std::string file = arguments.strings_file.empty() ? FindStringTable(OwnPath()) : arguments.strings_file;
  const StringTable table = StringTable::Load(file, arguments.application);
  const std::string& title = table.Text(arguments.title_key);
  std::vector<std::string> texts = arguments.texts;
  for (std::string& text : texts) {
    text = arguments.escape ? text : WithoutTags(text);
  }
  const std::string message = FillIn(table.Text(arguments.message_key), texts);
  openlog("nimonxmnotify", LOG_PID, LOG_DAEMON);
  syslog(LOG_WARNING, "event=notification app=%s recipients=%s key=%s title=%s message=%s",
         Quote(arguments.application).c_str(), Quote(arguments.recipients).c_str(),
         Quote(arguments.message_key).c_str(), Quote(title).c_str(), Quote(message).c_str());
  if (arguments.on_desktops) {
    Show(SessionsOf(arguments.recipients, arguments.sessions_folder), arguments.notify_program, title,
         EscapeMarkup(message));
  }
}

int Run(int argc, char* const* argv) {
  Arguments arguments;
  try {
    arguments = ParseArguments(argc, argv);
  } catch (const WrongUsage& error) {
    fprintf(stderr, "nimonxmnotify: %s (see --help)\n", error.what());
    return kWrongUsage;
  }
  if (arguments.help) {
    fputs(kHelp, stdout);
  } else if (arguments.version) {
    puts("nimonxmnotify " NIMONXMNOTIFY_VERSION);
  } else {
    Notify(arguments);
  }
  return 0;
}

}  // namespace
}  // namespace nimonxmnotify

int main(int argc, char** argv) {
  return nimonxmnotify::Run(argc, argv);
}
