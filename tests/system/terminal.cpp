// A terminal at which a test sits.
#include "tests/system/terminal.h"

#include <chrono>
#include <filesystem>

#include "tests/support/eventually.h"

namespace orbisk::test {

// The pipe that its output goes to is read by nobody until the end, so what is on the screen is looked up in a file.
Terminal::Terminal(const std::string& arguments)
    : process_({"script", "-qefc", "stty cols 80 rows 24; exec " + BuiltProgram("fileindexctl") + " " + arguments,
                dir_ / "screen"},
               {"TERM=xterm", "SHELL=/bin/sh"}) {}

bool Terminal::Shows(const std::string& text) const {
  return Eventually([&] { return Screen().find(text) != std::string::npos; });
}

std::string Terminal::Screen() const {
  std::string text = std::filesystem::exists(dir_ / "screen") ? ReadFile(dir_ / "screen") : "";
  text.erase(0, text.find('\n') + 1);                      // "Script started ..."
  return text.substr(0, text.rfind("\nScript done on "));  // or all
}

ProcessResult Terminal::Wait() {
  return process_.Wait(std::chrono::seconds(120));
}

}  // namespace orbisk::test
