// The quick reader for event lines. Parsing is most of the cost of a queue, and building a tree of JSON values most of
// the cost of parsing.
#include "fileindex/event_line.h"

namespace orbisk::fileindex {
namespace {

// Reads from the front of what is left of a line.
class LineReader {
 public:
  explicit LineReader(std::string_view line) : rest_(line) {}

  bool Skip(std::string_view text) {
    if (rest_.substr(0, text.size()) != text) {
      return false;
    }
    rest_.remove_prefix(text.size());
    return true;
  }

  // Up to the closing quote, which is skipped. The opening quote has been skipped.
  bool ReadString(std::string_view& text) {
    const size_t end = rest_.find('"');
    if (end == std::string_view::npos) {
      return false;
    }
    text = rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
    return text.find('\\') == std::string_view::npos;
  }

  // As many digits as certainly fit.
  bool ReadNumber(std::int32_t& number) {
    constexpr size_t kMostDigits = 9;
    size_t digits = 0;
    number = 0;
    for (; digits < rest_.size() && rest_[digits] >= '0' && rest_[digits] <= '9'; ++digits) {
      if (digits == kMostDigits) {
        return false;
      }
      number = number * 10 + (rest_[digits] - '0');
    }
    rest_.remove_prefix(digits);
    return digits > 0;
  }

  bool ReadBool(bool& value) {
    value = !rest_.empty() && rest_.front() == 't';
    return Skip(value ? "true" : "false");
  }

  bool AtEnd() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};

// What a line holds.
struct Members {
  std::string_view path;
  std::string_view path_old;
  bool has_event = false;
  bool has_path = false;
};

bool ReadMember(LineReader& reader, Event& event, Members& members) {
  if (reader.Skip("\"event\":")) {
    members.has_event = true;
    return reader.ReadNumber(event.event);
  }
  if (reader.Skip("\"is_dir\":")) {
    return reader.ReadBool(event.is_dir);
  }
  if (reader.Skip("\"path\":\"")) {
    members.has_path = true;
    return reader.ReadString(members.path);
  }
  if (reader.Skip("\"path_old\":\"")) {
    return reader.ReadString(members.path_old);
  }
  return reader.Skip("\"data\":null");
}

}  // namespace

bool ReadPlainEvent(std::string_view line, Event& event) {
  LineReader reader(line);
  Members members;
  if (!reader.Skip("{")) {
    return false;
  }
  do {
    if (!ReadMember(reader, event, members)) {
      return false;
    }
  } while (reader.Skip(","));
  if (!reader.Skip("}") || !reader.AtEnd() || !members.has_event || !members.has_path) {
    return false;
  }
  event.path = members.path;
  event.path_old = members.path_old;
  return true;
}

}  // namespace orbisk::fileindex
