// Detection by uchardet, conversion by iconv.
#include "services/extractor/formats/charset.h"

#include <uchardet/uchardet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <memory>
#include <utility>

#include "services/extractor/formats/text_sink.h"

namespace extractor {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr char kFallback[] = "WINDOWS-1252";

// What uchardet answers, and what mail and web pages name.
constexpr const char* kCharsets[] = {
    "UTF-16LE",     "UTF-16BE",         "UTF-32LE",     "UTF-32BE",     "UTF-16",       "UTF-7",        "ISO-8859-1",
    "ISO-8859-2",   "ISO-8859-3",       "ISO-8859-4",   "ISO-8859-5",   "ISO-8859-6",   "ISO-8859-7",   "ISO-8859-8",
    "ISO-8859-9",   "ISO-8859-10",      "ISO-8859-11",  "ISO-8859-13",  "ISO-8859-14",  "ISO-8859-15",  "ISO-8859-16",
    "WINDOWS-1250", "WINDOWS-1251",     "WINDOWS-1252", "WINDOWS-1253", "WINDOWS-1254", "WINDOWS-1255", "WINDOWS-1256",
    "WINDOWS-1257", "WINDOWS-1258",     "KOI8-R",       "KOI8-U",       "IBM437",       "IBM850",       "IBM852",
    "IBM855",       "IBM866",           "CP874",        "MACINTOSH",    "MAC-CYRILLIC", "TIS-620",      "VISCII",
    "BIG5",         "BIG5-HKSCS",       "GB2312",       "GBK",          "GB18030",      "EUC-JP",       "EUC-KR",
    "EUC-TW",       "SHIFT_JIS",        "CP932",        "UHC",          "JOHAB",        "ISO-2022-JP",  "ISO-2022-KR",
    "ISO-2022-CN",  "MAC-CENTRALEUROPE"};

const iconv_t kNoHandle = reinterpret_cast<iconv_t>(-1);

const char* MarkedCharset(std::string_view sample) {
  if (sample.starts_with("\xEF\xBB\xBF")) {
    return "UTF-8";
  }
  if (sample.starts_with(std::string_view("\xFF\xFE\0\0", 4))) {
    return "UTF-32LE";
  }
  if (sample.starts_with(std::string_view("\0\0\xFE\xFF", 4))) {
    return "UTF-32BE";
  }
  if (sample.starts_with("\xFF\xFE")) {
    return "UTF-16LE";
  }
  return sample.starts_with("\xFE\xFF") ? "UTF-16BE" : nullptr;
}

std::string GuessByStatistics(std::string_view sample) {
  const std::unique_ptr<uchardet, decltype(&uchardet_delete)> detector(uchardet_new(), uchardet_delete);
  if (uchardet_handle_data(detector.get(), sample.data(), sample.size()) != 0) {
    return kFallback;
  }
  uchardet_data_end(detector.get());
  const std::string name = uchardet_get_charset(detector.get());
  // UTF-8 was ruled out before, so neither answer can hold.
  return name.empty() || name == "UTF-8" || name == "ASCII" ? kFallback : name;
}

// Half of a character beyond U+FFFF as some programs write it; its end may be missing.
constexpr std::size_t kSurrogateBytes = 3;
bool BeginsWithSurrogate(std::string_view bytes) {
  const auto byte = [bytes](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
  return bytes.size() > 1 && byte(0) == 0xED && (byte(1) & 0xE0U) == 0xA0 &&
         (bytes.size() < kSurrogateBytes || (byte(2) & 0xC0U) == 0x80);
}

}  // namespace

// It shows as NULs on one side of most pairs, as nearly all scripts mix with ASCII blanks.
const char* GuessUtf16(std::string_view sample) {
  if (sample.find('\0') == std::string_view::npos) {
    return nullptr;
  }
  std::size_t zeros[2] = {0, 0};
  for (std::size_t i = 0; i < sample.size(); ++i) {
    zeros[i % 2] += sample[i] == '\0' ? 1U : 0U;
  }
  const std::size_t pairs = sample.size() / 2;
  if (pairs == 0) {
    return nullptr;
  }
  if (zeros[1] * 10 > pairs * 3 && zeros[0] * 20 < pairs) {
    return "UTF-16LE";
  }
  if (zeros[0] * 10 > pairs * 3 && zeros[1] * 20 < pairs) {
    return "UTF-16BE";
  }
  return nullptr;
}

void PrepareCharsets() {
  // Never closed: a converter with no user is unloaded. Both ways, as the XML library opens both.
  static std::array<std::pair<iconv_t, iconv_t>, std::size(kCharsets)> kept{};
  for (std::size_t i = 0; i < kept.size(); ++i) {
    kept[i] = {iconv_open("UTF-8", kCharsets[i]), iconv_open(kCharsets[i], "UTF-8")};
  }
}

bool IsUtf8(std::string_view bytes, bool whole) {
  while (true) {
    const Utf8Prefix prefix = ValidUtf8Prefix(bytes);
    bytes.remove_prefix(prefix.bytes);
    if (bytes.empty()) {
      return true;
    }
    const bool surrogate = BeginsWithSurrogate(bytes);
    if (prefix.split || (surrogate && bytes.size() < kSurrogateBytes)) {
      return !whole;
    }
    if (!surrogate) {
      return false;
    }
    bytes.remove_prefix(kSurrogateBytes);
  }
}

std::string DetectCharset(std::string_view sample, bool whole) {
  if (const char* marked = MarkedCharset(sample)) {
    return marked;
  }
  if (const char* utf16 = GuessUtf16(sample)) {
    return utf16;
  }
  // Escape sequences switch the sets of these mail charsets; their bytes alone are ASCII and so UTF-8 too.
  if (IsUtf8(sample, whole) && sample.find("\x1B$") == std::string_view::npos) {
    return "UTF-8";
  }
  return GuessByStatistics(sample);
}

Decoder::Decoder(const std::string& charset)
    : handle_(iconv_open("UTF-8", charset.c_str())), is_utf8_(charset == "UTF-8") {
  if (handle_ == kNoHandle) {
    handle_ = iconv_open("UTF-8", kFallback);
  }
}

Decoder::~Decoder() {
  if (handle_ != kNoHandle) {
    iconv_close(handle_);
  }
}

std::string Decoder::Decode(std::string_view bytes, bool last) {
  std::string input = std::move(split_);
  input += bytes;
  split_.clear();
  if (is_utf8_) {
    const Utf8Prefix prefix = ValidUtf8Prefix(input);
    if (prefix.bytes == input.size() || (prefix.split && !last)) {
      split_.assign(input, prefix.bytes);
      input.resize(prefix.bytes);
      return input;
    }
  }
  std::string out;
  if (handle_ == kNoHandle) {
    return out;
  }
  char buffer[16384];
  char* from = input.data();
  std::size_t left = input.size();
  while (left > 0) {
    char* to = buffer;
    std::size_t room = sizeof(buffer);
    const std::size_t result = iconv(handle_, &from, &left, &to, &room);
    const int error = result == static_cast<std::size_t>(-1) ? errno : 0;
    out.append(buffer, sizeof(buffer) - room);
    if (error == EINVAL && !last) {
      split_.assign(from, left);
      break;
    }
    if (error == EINVAL || error == EILSEQ) {
      out += kReplacement;
      ++from;
      --left;
      iconv(handle_, nullptr, nullptr, nullptr, nullptr);
    } else if (error != 0 && error != E2BIG) {
      break;
    }
  }
  return out;
}

std::string DecodeWhole(const std::string& charset, std::string_view bytes) {
  Decoder decoder(charset);
  return decoder.Decode(bytes, true);
}

}  // namespace extractor
