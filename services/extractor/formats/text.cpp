// Plain text of any character set, streamed: a table of hundreds of megabytes costs no more memory than a letter.
#include <optional>

#include "services/extractor/formats/charset.h"
#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

}  // namespace

void ReadText(Reading& reading) {
  Chunks chunks(reading.input);
  const std::string charset = DetectCharset(chunks.chunk(), chunks.last());
  const bool is_utf8 = charset == "UTF-8";
  std::optional<Decoder> decoder;
  if (!is_utf8) {
    decoder.emplace(charset);
  }
  bool first = true;
  for (; !chunks.chunk().empty() && !reading.text.full(); chunks.Next()) {
    const std::string decoded = is_utf8 ? std::string() : decoder->Decode(chunks.chunk(), chunks.last());
    std::string_view text = is_utf8 ? chunks.chunk() : std::string_view(decoded);
    if (first && text.starts_with(kByteOrderMark)) {
      text.remove_prefix(kByteOrderMark.size());
    }
    first = false;
    reading.text.Append(text);
  }
}

}  // namespace extractor
