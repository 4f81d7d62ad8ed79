// The command line of nimonxmnotify.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace nimonxmnotify {

/// What the command line asks for.
struct Arguments {
  bool help = false;
  bool version = false;
  std::string application;   ///< whose texts are shown
  bool on_desktops = true;   ///< shown to sessions, not only recorded
  bool escape = true;        ///< texts are plain; otherwise they are markup for a box's own desktop
  std::string strings_file;  ///< "": the installed one
  std::string sessions_folder = "/run/user";
  std::string notify_program = "/usr/bin/notify-send";
  std::string recipients;  ///< "@group" or an account
  std::string title_key;
  std::string message_key;
  std::vector<std::string> texts;
};

/// The command line is not understood; what() says why.
class WrongUsage : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads the command line. Options end at the first argument that is none, so that texts may begin with "-". Throws
/// WrongUsage. One thread at a time.
Arguments ParseArguments(int argc, char* const* argv);

}  // namespace nimonxmnotify
