// Standard output for a million lines.
#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace fileindexctl {

/// Thrown when nobody reads the output any more, for example because `head` has seen enough.
class ReaderGone : public std::exception {};

/// Gathers text and writes it in large pieces.
///
/// Threads: one object is used by one thread at a time.
class Output {
 public:
  /// Writes to `descriptor`, which stays open and the caller's.
  explicit Output(int descriptor) : descriptor_(descriptor) {}
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  /// Adds `text`. Throws as Flush.
  void Write(std::string_view text);

  /// Writes what is gathered; what was never flushed is lost. Throws ReaderGone, and std::system_error if the text
  /// cannot be written.
  void Flush();

 private:
  int descriptor_;
  std::string gathered_;
};

}  // namespace fileindexctl
