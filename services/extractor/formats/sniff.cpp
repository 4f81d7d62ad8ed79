// libmagic, with the cases that it leaves open or is slow at decided here.
#include "services/extractor/formats/sniff.h"

#include <magic.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "services/extractor/formats/archive_source.h"
#include "services/extractor/formats/charset.h"
#include "services/extractor/formats/plain_bytes.h"

namespace extractor {
namespace {

constexpr std::size_t kHeadBytes = std::size_t{64} << 10;
// libmagic tells texts by their first lines, and takes a millisecond for each 50 KiB that it is given.
constexpr std::size_t kTextHeadBytes = std::size_t{4} << 10;
constexpr std::size_t kMaxEntriesLookedAt = 1'000;

struct MagicCloser {
  void operator()(magic_t handle) const { magic_close(handle); }
};
using Magic = std::unique_ptr<std::remove_pointer_t<magic_t>, MagicCloser>;

Magic& Database() {
  static Magic database;
  return database;
}

std::string LowerAscii(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

std::string LowerExtension(const std::string& name) {
  const std::size_t dot = name.rfind('.');
  return dot == std::string::npos ? "" : LowerAscii(std::string_view(name).substr(dot + 1));
}

/// "Name: value" as the first line, as every mail begins.
bool BeginsWithHeader(std::string_view head) {
  const std::size_t colon = head.substr(0, 80).find(':');
  if (colon == std::string_view::npos || colon == 0) {
    return false;
  }
  const std::string_view word = head.substr(0, colon);
  return std::all_of(word.begin(), word.end(), [](char c) { return c > ' ' && c < 0x7F; });
}

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\r' && c != '\t' && c != '\f';
}

bool HasNoControls(std::string_view head) {
  std::size_t at = 0;
  while ((at += PlainRun(head, at)) < head.size()) {
    if (IsControl(head[at++])) {
      return false;
    }
  }
  return true;
}

/// As much of the head as libmagic needs.
std::string_view Telling(std::string_view head) {
  const std::size_t begin = head.find_first_not_of(" \t\r\n");
  const bool json = begin != std::string_view::npos && head[begin] == '{';  // known by being whole
  return head.size() > kTextHeadBytes && !json && HasNoControls(head) ? head.substr(0, kTextHeadBytes) : head;
}

/// What libmagic makes something of besides plain text: mail, news, cards, calendars.
bool BeginsWithTellingHeader(std::string_view start) {
  static constexpr std::string_view kWords[] = {
      "article",    "begin",        "content-type", "date",    "delivered-to", "from",
      "message-id", "mime-version", "newsgroups",   "path",    "received",     "relay-version",
      "reply-to",   "return-path",  "sender",       "subject", "to",           "xref"};
  if (!BeginsWithHeader(start)) {
    return false;
  }
  const std::string word = LowerAscii(start.substr(0, start.find(':')));
  return word.starts_with("x-") || std::find(std::begin(kWords), std::end(kWords), word) != std::end(kWords);
}

/// As nearly all pages begin.
bool IsPlainlyHtml(std::string_view head) {
  constexpr std::size_t kLongestStart = 16;
  const std::size_t begin = std::min(head.find_first_not_of(" \t\r\n"), head.size());
  const std::string start = LowerAscii(head.substr(begin, kLongestStart));
  return (start.starts_with("<!doctype html") || start.starts_with("<html>") || start.starts_with("<html ")) &&
         HasNoControls(head);
}

/// A roff page begins with a control character and a request or a comment; what begins with ".." or ". " is a comment
/// of reStructuredText, or prose.
bool MayBeginRoff(std::string_view start) {
  const char next = start.size() > 1 ? start[1] : '\n';
  return start.front() == '\'' || (start.front() == '.' && next != '.' && next > ' ');
}

/// Prose and code without any sign of another format: libmagic would take milliseconds to come to the same end.
bool IsPlainlyText(std::string_view head, bool whole) {
  const std::size_t begin = std::min(head.find_first_not_of(" \t\r\n"), head.size());
  const std::string_view start = head.substr(begin);
  if (start.empty() || start.starts_with('<') || start.starts_with('{') || start.starts_with('%') ||
      MayBeginRoff(start) || start.starts_with("\xEF\xBB\xBF") || BeginsWithTellingHeader(start) ||
      start.starts_with("From ")) {
    return false;
  }
  // A signature made of letters alone (RIFF, PK, ID3, OggS) is followed by some control character within its header.
  return HasNoControls(head) && IsUtf8(head, whole);
}

/// UTF-16 without a byte order mark is no text to libmagic.
bool IsUtf16Text(std::string_view head) {
  const char* charset = GuessUtf16(head);
  if (charset == nullptr) {
    return false;
  }
  const std::string text = DecodeWhole(charset, head.substr(0, head.size() / 2 * 2));
  return std::none_of(text.begin(), text.end(), IsControl) && text.find("\uFFFD") == std::string::npos;
}

std::string TrimmedMimetype(std::string type) {
  type.erase(std::find_if(type.begin(), type.end(), [](char c) { return c <= ' ' || c > '~'; }), type.end());
  return type;
}

/// Which kind of document a zip holds, told by the entries that its format demands; "application/zip" for none.
std::string RefineZip(const Input& input) {
  constexpr std::string_view kOpenXml = "application/vnd.openxmlformats-officedocument.";
  try {
    ArchiveSource source(input, ArchiveSource::Kind::kZip);
    for (std::size_t i = 0; i < kMaxEntriesLookedAt; ++i) {
      const std::optional<std::string> path = source.Next();
      if (!path) {
        break;
      }
      if (*path == "mimetype") {
        // Any word can stand there; only those that make the zip a document are believed.
        std::string type = TrimmedMimetype(source.ReadHead(128));
        const bool is_document =
            type == "application/epub+zip" || type.starts_with("application/vnd.oasis.opendocument.");
        return is_document ? type : "application/zip";
      }
      if (*path == "word/document.xml") {
        return std::string(kOpenXml) + "wordprocessingml.document";
      }
      if (*path == "xl/workbook.xml") {
        return std::string(kOpenXml) + "spreadsheetml.sheet";
      }
      if (*path == "ppt/presentation.xml") {
        return std::string(kOpenXml) + "presentationml.presentation";
      }
    }
  } catch (const std::exception&) {
    // The archive reader meets the same fault and says what it is.
    return "application/zip";
  }
  return "application/zip";
}

/// libmagic knows mail by some usual first headers; a file that is called mail and begins with any header is one too.
bool IsMail(std::string_view head, const std::string& media_type, const std::string& name) {
  return media_type.starts_with("text/") && LowerExtension(name) == "eml" && BeginsWithHeader(head);
}

/// Pages without a doctype are often nothing but a tag to libmagic.
bool IsHtml(const std::string& media_type, std::string_view head, const std::string& name) {
  const std::string extension = LowerExtension(name);
  return media_type == "text/plain" && (extension == "html" || extension == "htm") &&
         head.find('<') != std::string_view::npos;
}

}  // namespace

void PrepareSniffer() {
  if (Database()) {
    return;
  }
  // Looking into compressed files would fork; tar is told by its reader's own check.
  Magic database(magic_open(MAGIC_MIME_TYPE | MAGIC_NO_CHECK_COMPRESS));
  if (!database || magic_load(database.get(), nullptr) != 0) {
    throw std::runtime_error("cannot load the database of file signatures");
  }
  Database() = std::move(database);
}

std::string SniffMediaType(const Input& input, const std::string& name) {
  std::vector<char> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(kHeadBytes, input.size())));
  const std::string_view head(buffer.data(), input.ReadAt(0, buffer.data(), buffer.size()));
  if (head.empty()) {
    return "inode/x-empty";
  }
  if (IsPlainlyText(head, head.size() == input.size())) {
    if (IsMail(head, "text/plain", name)) {
      return "message/rfc822";
    }
    return IsHtml("text/plain", head, name) ? "text/html" : "text/plain";
  }
  if (IsPlainlyHtml(head)) {
    return "text/html";
  }
  const std::string_view telling = Telling(head);
  const char* answer = magic_buffer(Database().get(), telling.data(), telling.size());
  const std::string media_type = answer != nullptr ? answer : "application/octet-stream";
  if (head.starts_with("PK\x03\x04") && media_type != "application/java-archive") {
    return RefineZip(input);
  }
  if (IsMail(head, media_type, name)) {
    return "message/rfc822";
  }
  if (media_type == "application/octet-stream" && IsUtf16Text(head)) {
    return "text/plain";
  }
  return IsHtml(media_type, head, name) ? "text/html" : media_type;
}

}  // namespace extractor
