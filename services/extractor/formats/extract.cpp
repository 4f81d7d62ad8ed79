// Finds a file's format and calls its reader.
#include "services/extractor/formats/extract.h"

#include <libxml/parser.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <string_view>

#include "services/extractor/formats/charset.h"
#include "services/extractor/formats/reading.h"
#include "services/extractor/formats/sniff.h"

namespace extractor {
namespace {

using Reader = void (*)(Reading&);

struct Format {
  std::string_view media_type;  // the beginning of it when it ends in '/' or '.'
  Reader read;
};

// The first row that fits counts.
constexpr Format kFormats[] = {
    {"text/html", ReadHtml},
    {"application/xhtml+xml", ReadHtml},
    {"text/rtf", ReadRtf},
    {"application/rtf", ReadRtf},
    {"text/xml", ReadXml},
    {"application/xml", ReadXml},
    {"image/svg+xml", ReadXml},
    {"message/rfc822", ReadMail},
    {"message/news", ReadMail},
    {"application/pdf", ReadPdf},
    {"application/vnd.openxmlformats-officedocument.", ReadOfficeOpenXml},
    {"application/vnd.oasis.opendocument.", ReadOpenDocument},
    {"application/epub+zip", ReadEpub},
    {"application/zip", ReadArchive},
    {"application/java-archive", ReadArchive},
    {"application/x-tar", ReadArchive},
    {"application/x-7z-compressed", ReadArchive},
    {"application/gzip", ReadArchive},
    {"application/x-bzip2", ReadArchive},
    {"application/x-xz", ReadArchive},
    {"application/x-lzma", ReadArchive},
    {"application/x-lz4", ReadArchive},
    {"application/x-compress", ReadArchive},
    {"application/zstd", ReadArchive},
    {"video/", ReadVideo},
    {"application/ogg", ReadAudio},
    {"audio/mpeg", ReadAudio},
    {"audio/mp4", ReadAudio},
    {"audio/x-m4a", ReadAudio},
    {"audio/flac", ReadAudio},
    {"audio/x-flac", ReadAudio},
    {"audio/ogg", ReadAudio},
    {"audio/x-wav", ReadAudio},
    {"audio/x-aiff", ReadAudio},
    {"audio/x-ape", ReadAudio},
    {"audio/x-musepack", ReadAudio},
    {"audio/x-wavpack", ReadAudio},
    {"audio/x-mpegurl", ReadText},
    {"audio/", ReadVideo},  // what else carries sound, if libmediainfo knows it
    {"image/jpeg", ReadImage},
    {"image/png", ReadImage},
    {"image/tiff", ReadImage},
    {"image/webp", ReadImage},
    {"image/heic", ReadImage},
    {"image/heif", ReadImage},
    {"image/avif", ReadImage},
    {"application/json", ReadText},
    {"application/javascript", ReadText},
    {"application/x-ndjson", ReadText},
    {"application/csv", ReadText},
    {"application/mbox", ReadText},
    {"text/", ReadText},
    {"message/", ReadText},
};

bool Fits(std::string_view pattern, std::string_view media_type) {
  const bool is_prefix = pattern.back() == '/' || pattern.back() == '.';
  return is_prefix ? media_type.starts_with(pattern) : media_type == pattern;
}

Reader ReaderOf(std::string_view media_type) {
  const auto format = std::find_if(std::begin(kFormats), std::end(kFormats),
                                   [&](const Format& row) { return Fits(row.media_type, media_type); });
  return format == std::end(kFormats) ? nullptr : format->read;
}

}  // namespace

void Prepare() {
  static bool is_done = false;
  if (is_done) {
    return;
  }
  // Names in archives and tags are wide characters on their way, which plain "C" cuts to ASCII.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  // Without a zone set, every date of a zip looks /etc/localtime up again.
  setenv("TZ", "UTC0", 1);
  tzset();
  PrepareSniffer();
  PrepareCharsets();
  xmlInitParser();
  PreparePdf();
  PrepareMail();
  PrepareImages();
  PrepareVideo();
  is_done = true;
}

ExtractResult ExtractContent(int fd, const ExtractOptions& options, Json::Value& document) {
  Reading reading{Input(fd), options.name, "", TextSink(options.text_bytes), Fields(document)};
  reading.media_type = SniffMediaType(reading.input, reading.name);
  reading.fields.Text(names::kMDContentType, reading.media_type);
  std::exception_ptr failure;
  if (const Reader read = ReaderOf(reading.media_type)) {
    try {
      read(reading);
    } catch (...) {
      failure = std::current_exception();
    }
  }
  const bool cut = reading.text.cut();
  if (const std::string text = reading.text.Take(); !text.empty()) {
    document[names::kMDTextContent] = text;
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
  return {reading.media_type, cut};
}

}  // namespace extractor
