// Plain text of any character set, streamed: a table of hundreds of megabytes costs no more memory than a letter.
#include <optional>
#include <vector>

#include "services/extractor/formats/charset.h"
#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

constexpr std::size_t kChunkBytes = std::size_t{64} << 10;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

}  // namespace

void ReadText(Reading& reading) {
  std::vector<char> buffer(kChunkBytes);
  std::uint64_t offset = reading.input.ReadAt(0, buffer.data(), buffer.size());
  std::string_view chunk(buffer.data(), offset);
  const std::string charset = DetectCharset(chunk, offset == reading.input.size());
  const bool is_utf8 = charset == "UTF-8";
  std::optional<Decoder> decoder;
  if (!is_utf8) {
    decoder.emplace(charset);
  }
  bool first = true;
  while (!chunk.empty() && !reading.text.full()) {
    const bool last = offset >= reading.input.size();
    const std::string decoded = is_utf8 ? std::string() : decoder->Decode(chunk, last);
    std::string_view text = is_utf8 ? chunk : std::string_view(decoded);
    if (first && text.starts_with(kByteOrderMark)) {
      text.remove_prefix(kByteOrderMark.size());
    }
    first = false;
    reading.text.Append(text);
    const std::size_t count = reading.input.ReadAt(offset, buffer.data(), buffer.size());
    offset += count;
    chunk = std::string_view(buffer.data(), count);
  }
}

}  // namespace extractor
