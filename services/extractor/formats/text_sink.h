// Collects a document's text: whatever a broken file holds, what comes out is valid UTF-8 of bounded length.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace extractor {

/// `bytes` as valid UTF-8 on one string: control characters but tab and newline become blanks, what is no character
/// becomes U+FFFD.
std::string CleanUtf8(std::string_view bytes);

/// How far bytes are UTF-8.
struct Utf8Prefix {
  std::size_t bytes;  ///< so many are whole characters, none of them overlong, a surrogate or beyond U+10FFFF
  bool split;         ///< what follows is the begin of one more, whose rest is missing
};
Utf8Prefix ValidUtf8Prefix(std::string_view bytes);

/// The text of one document, cut at a bound.
class TextSink {
 public:
  /// Keeps at most `limit` bytes.
  explicit TextSink(std::size_t limit) : limit_(limit) {}

  /// Appends bytes as they are, apart from what CleanUtf8 replaces. A character may be split between two calls.
  void Append(std::string_view bytes);
  /// Appends running text: each run of white space, also across calls, becomes one blank.
  void AppendFlowing(std::string_view bytes);
  /// Asks for a blank before whatever is appended by AppendFlowing next, unless there is white space already.
  void Space() { space_ = true; }
  /// Ends a line, unless one has just ended.
  void Break();
  /// Appends `line` on a line of its own.
  void Line(std::string_view line);

  /// No more is taken: a reader may stop. Something that was refused makes the text cut.
  bool full() const { return full_; }
  bool cut() const { return cut_; }
  /// Says that text was left out for another reason than the bound of this sink.
  void MarkCut() { cut_ = true; }

  /// The text without a character split at its end; the sink is empty afterwards.
  std::string Take();

 private:
  void AppendWhole(std::string_view bytes);
  void Store(std::string_view valid);

  std::size_t limit_;
  std::string text_;
  std::string split_;  // the bytes of a character whose rest has not come yet
  bool space_ = false;
  bool full_ = false;
  bool cut_ = false;
};

}  // namespace extractor
