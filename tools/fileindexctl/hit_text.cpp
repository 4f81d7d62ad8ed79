// Hits of a search as lines for people.
#include "tools/fileindexctl/hit_text.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "orbisk/fileindex/metadata_names.h"
#include "tools/fileindexctl/event_text.h"

namespace fileindexctl {
namespace {

namespace names = orbisk::fileindex::elastic;

constexpr char kPathColor[] = "\x1b[35m";
constexpr char kFoundColor[] = "\x1b[1;31m";
constexpr char kNoColor[] = "\x1b[0m";

std::string Colored(const std::string& text, const char* color, bool wanted) {
  return wanted ? color + text + kNoColor : text;
}

std::string TimeText(const Json::Value& seconds) {
  if (!seconds.isInt64()) {
    return "-";
  }
  const auto time = static_cast<time_t>(seconds.asInt64());
  std::tm local{};
  std::array<char, 64> text{};
  if (localtime_r(&time, &local) == nullptr || strftime(text.data(), text.size(), "%F %R", &local) == 0) {
    return "-";
  }
  return text.data();
}

std::string SizeOf(const Json::Value& fields) {
  if (fields[names::kMDIsDir].isBool() && fields[names::kMDIsDir].asBool()) {
    return "dir";
  }
  const Json::Value& size = fields[names::kMDFSSize];
  return size.isUInt64() ? SizeText(size.asUInt64()) : "-";
}

// Lines, tabs and runs of blanks of the text become one blank each.
std::string OneBlank(const std::string& text) {
  std::string narrow;
  for (const char byte : text) {
    const bool blank = byte == ' ' || (byte >= '\t' && byte <= '\r');
    if (!blank) {
      narrow += byte;
    } else if (!narrow.empty() && narrow.back() != ' ') {
      narrow += ' ';
    }
  }
  narrow.erase(narrow.find_last_not_of(' ') + 1);
  return narrow;
}

std::string SnippetText(const std::string& snippet, bool color) {
  std::string line;
  std::string rest = OneBlank(snippet);
  while (!rest.empty()) {
    const size_t mark = std::min(rest.find_first_of(std::string(kMarkBegin) + kMarkEnd), rest.size());
    line += OneLine(rest.substr(0, mark));
    if (mark < rest.size() && color) {
      line += rest[mark] == kMarkBegin[0] ? kFoundColor : kNoColor;
    }
    rest.erase(0, mark + 1);
  }
  return line + (color ? kNoColor : "");
}

}  // namespace

bool WantsColor(int descriptor) {
  const char* const refused = getenv("NO_COLOR");
  const char* const terminal = getenv("TERM");
  return isatty(descriptor) == 1 && (refused == nullptr || *refused == '\0') && terminal != nullptr &&
         strcmp(terminal, "dumb") != 0;
}

Json::Value HitFields() {
  Json::Value fields(Json::arrayValue);
  for (const char* const name : {names::kMDFSSize, names::kMDFSContentChangeDate, names::kMDIsDir}) {
    fields.append(name);
  }
  return fields;
}

std::string HitLine(const Json::Value& hit, bool color) {
  const Json::Value& fields = hit["fields"];
  const std::string snippet = hit["snippet"].asString();
  return Colored(OneLine(hit["path"].asString()), kPathColor, color) + "  " + SizeOf(fields) + "  " +
         TimeText(fields[names::kMDFSContentChangeDate]) + "  " +
         (snippet.empty() ? "-" : SnippetText(snippet, color)) + "\n";
}

std::string SizeText(Json::UInt64 bytes) {
  constexpr char kUnits[] = "BKMGTPE";
  Json::UInt64 whole = bytes;
  Json::UInt64 rest = 0;
  size_t unit = 0;
  while (whole >= 1024) {
    rest = whole % 1024;
    whole /= 1024;
    ++unit;
  }
  const std::string tenths = unit > 0 && whole < 10 ? "." + std::to_string(rest * 10 / 1024) : "";
  return std::to_string(whole) + tenths + kUnits[unit];
}

}  // namespace fileindexctl
