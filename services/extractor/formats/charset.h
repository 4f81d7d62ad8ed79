// Text in any character set becomes UTF-8.
#pragma once

#include <iconv.h>

#include <string>
#include <string_view>

namespace extractor {

/// Loads the converters of every character set that is met in files and keeps them, because a converter is opened by
/// path when it is first asked for.
void PrepareCharsets();

/// The character set of text that begins with `sample`: by its byte order mark, as UTF-8 or UTF-16 when it can be
/// that, else by statistics. `whole` says that nothing follows. A name for Decoder.
std::string DetectCharset(std::string_view sample, bool whole);

/// "UTF-16LE" or "UTF-16BE" when `sample` is likely to be that without a byte order mark, else null.
const char* GuessUtf16(std::string_view sample);

/// True when `bytes` are meant as UTF-8: all of it, apart from a character that may be split at the end unless `whole`,
/// and from the pairs of surrogates that some programs write for characters beyond U+FFFF.
bool IsUtf8(std::string_view bytes, bool whole);

/// Turns bytes of one character set into UTF-8, piece by piece. What is no character becomes U+FFFD.
class Decoder {
 public:
  /// A character set that is not known is read as windows-1252, the usual answer to an unlabelled file.
  explicit Decoder(const std::string& charset);
  ~Decoder();
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  /// The UTF-8 of what `bytes` complete; a character split at the end waits for the next call, unless `last`.
  std::string Decode(std::string_view bytes, bool last);

 private:
  iconv_t handle_;
  bool is_utf8_;
  std::string split_;
};

/// One go over text that is whole.
std::string DecodeWhole(const std::string& charset, std::string_view bytes);

}  // namespace extractor
