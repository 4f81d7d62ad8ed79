// A terminal at which a test sits.
#pragma once

#include <string>

#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace orbisk::test {

/// fileindexctl at a terminal of its own. One thread uses it.
class Terminal {
 public:
  static constexpr char kInterrupt[] = "\x03";
  static constexpr char kEndOfInput[] = "\x04";

  /// Starts fileindexctl with `arguments`, words of the shell.
  explicit Terminal(const std::string& arguments);

  void Type(const std::string& keys) { process_.Write(keys); }
  /// Waits until `text` stands on the screen; false if it does not come within half a minute.
  bool Shows(const std::string& text) const;
  /// All that was written there so far, with what the terminal adds: "\r" before each "\n", and "^C" for an interrupt.
  std::string Screen() const;
  /// Waits for the end of the program. The status of one that a signal ended is 128 and the signal's number, as in a
  /// shell.
  ProcessResult Wait();

 private:
  TempDir dir_;
  Subprocess process_;
};

}  // namespace orbisk::test
