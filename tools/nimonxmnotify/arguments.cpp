// The command line of nimonxmnotify.
#include "tools/nimonxmnotify/arguments.h"

#include <getopt.h>

#include <string_view>

namespace nimonxmnotify {
namespace {

enum LongOption { kStrings = 1000, kSessions, kNotifyProgram };

// "+": options end at the first argument that is none. ":": no message of its own.
constexpr char kShortOptions[] = "+:c:b:e:h";
constexpr option kLongOptions[] = {{"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {"strings", required_argument, nullptr, kStrings},
                                   {"sessions", required_argument, nullptr, kSessions},
                                   {"notify-program", required_argument, nullptr, kNotifyProgram},
                                   {nullptr, 0, nullptr, 0}};

bool ParseBool(char option, std::string_view value) {
  if (value != "true" && value != "false") {
    throw WrongUsage(std::string("-") + option + " takes true or false");
  }
  return value == "true";
}

void TakeOption(int option, char* const* argv, Arguments& arguments) {
  switch (option) {
    case 'h':
      arguments.help = true;
      break;
    case 'V':
      arguments.version = true;
      break;
    case 'c':
      arguments.application = optarg;
      break;
    case 'b':
      arguments.on_desktops = ParseBool('b', optarg);
      break;
    case 'e':
      arguments.escape = ParseBool('e', optarg);
      break;
    case kStrings:
      arguments.strings_file = optarg;
      break;
    case kSessions:
      arguments.sessions_folder = optarg;
      break;
    case kNotifyProgram:
      arguments.notify_program = optarg;
      break;
    case ':':
      throw WrongUsage(std::string("a value is missing: ") + argv[optind - 1]);
    default:
      throw WrongUsage(std::string("unknown option: ") + argv[optind - 1]);
  }
}

}  // namespace

Arguments ParseArguments(int argc, char* const* argv) {
  Arguments arguments;
  optind = 0;  // from the beginning, also when another command line was read before
  for (int next = 0; (next = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1;) {
    TakeOption(next, argv, arguments);
  }
  if (arguments.help || arguments.version) {
    return arguments;
  }
  if (arguments.application.empty()) {
    throw WrongUsage("-c APP is missing");
  }
  if (argc - optind < 3) {
    throw WrongUsage("recipients, title and message are needed");
  }
  arguments.recipients = argv[optind];
  arguments.title_key = argv[optind + 1];
  arguments.message_key = argv[optind + 2];
  arguments.texts.assign(argv + optind + 3, argv + argc);
  if (arguments.recipients.empty() || arguments.recipients == "@") {
    throw WrongUsage("nobody is named as recipient");
  }
  return arguments;
}

}  // namespace nimonxmnotify
