// The question before something is destroyed.
#include "tools/fileindexctl/confirm.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>

#include "tools/fileindexctl/event_text.h"

namespace fileindexctl {

void AddYes(CLI::App& command, bool& yes) {
  command.add_flag("-y,--yes", yes, "Do not ask; needed where standard input is no terminal");
}

void Confirm(const std::string& question, bool yes) {
  if (yes) {
    return;
  }
  if (isatty(STDIN_FILENO) == 0) {
    throw std::runtime_error("nothing was done: this needs --yes where nobody can be asked");
  }
  // Not on standard output, which may be a file.
  fprintf(stderr, "%s [y/N] ", OneLine(question).c_str());
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "Y" && answer != "yes") {
    throw std::runtime_error("nothing was done");
  }
}

}  // namespace fileindexctl
