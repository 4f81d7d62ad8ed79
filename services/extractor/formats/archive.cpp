// Archives: the names within are their text; what they hold is not unpacked.
#include "services/extractor/formats/archive_source.h"
#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

/// The name that gzip keeps in its header, flag 8 of the fourth byte; "" when it was not kept.
std::string GzipName(const Input& input) {
  char head[512];
  const std::string_view bytes(head, input.ReadAt(0, head, sizeof(head)));
  if (bytes.size() < 10 || !bytes.starts_with("\x1F\x8B") || (bytes[3] & 8) == 0) {
    return {};
  }
  std::size_t at = 10;
  if ((bytes[3] & 4) != 0 && bytes.size() >= 12) {
    at += 2U + static_cast<unsigned char>(bytes[10]) + (std::size_t{static_cast<unsigned char>(bytes[11])} << 8U);
  }
  if (at >= bytes.size()) {
    return {};
  }
  const std::string_view name = bytes.substr(at);
  return std::string(name.substr(0, name.find('\0')));
}

/// Goes on after the first entry, whose path is `path`.
void ListNames(Reading& reading, ArchiveSource& source, std::optional<std::string> path) {
  for (; path; path = source.Next()) {
    reading.text.Line(*path);
    if (reading.text.full()) {
      return;
    }
    // Stepping over an entry inflates it; done here it can be given up.
    if (source.is_compressed()) {
      source.Read([&](std::string_view) { return !source.Exhausted(); });
    }
    if (source.Exhausted()) {
      reading.text.MarkCut();
      return;
    }
  }
}

/// A lone compressed file has no more to say than its name; its first block shows whether it is sound.
void CheckCompressed(Reading& reading) {
  ArchiveSource source(reading.input, ArchiveSource::Kind::kCompressed);
  if (source.Next()) {
    source.ReadHead(1);
  }
}

bool IsCompressed(const std::string& media_type) {
  for (const char* type : {"application/gzip", "application/x-bzip2", "application/x-xz", "application/zstd",
                           "application/x-lzma", "application/x-lz4", "application/x-compress"}) {
    if (media_type == type) {
      return true;
    }
  }
  return false;
}

/// What is compressed need not be an archive.
void ListCompressed(Reading& reading) {
  std::optional<ArchiveSource> source;
  std::optional<std::string> path;
  try {
    source.emplace(reading.input, ArchiveSource::Kind::kAny);
    path = source->Next();
  } catch (const BrokenContent&) {
    return;
  }
  ListNames(reading, *source, path);
}

}  // namespace

void ReadArchive(Reading& reading) {
  if (IsCompressed(reading.media_type)) {
    reading.text.Line(GzipName(reading.input));
    CheckCompressed(reading);
    ListCompressed(reading);
    return;
  }
  ArchiveSource source(reading.input, ArchiveSource::Kind::kAny);
  ListNames(reading, source, source.Next());
}

}  // namespace extractor
