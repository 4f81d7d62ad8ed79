// One pass over the bytes; no recursion, so depth costs nothing.
#include "services/search/json_scanner.h"

#include <string>

#include "services/search/refusal.h"

namespace nimoelasticd {
namespace {

class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  [[noreturn]] void Fail(const char* what) const {
    throw Refusal(Code::kMalformedRequest, "not JSON: " + std::string(what) + " at byte " + std::to_string(at_));
  }

  // The next byte that is no blank; 0 at the end, where no value may stand anyway.
  char Peek() {
    while (at_ < text_.size() &&
           (text_[at_] == ' ' || text_[at_] == '\n' || text_[at_] == '\t' || text_[at_] == '\r')) {
      ++at_;
    }
    return at_ < text_.size() ? text_[at_] : '\0';
  }

  void Expect(char wanted) {
    if (Peek() != wanted) {
      Fail("unexpected text");
    }
    ++at_;
  }

  std::string_view String() {
    Peek();
    const size_t start = at_;
    Expect('"');
    while (true) {
      at_ = text_.find_first_of("\"\\", at_);
      if (at_ == std::string_view::npos) {
        at_ = text_.size();
        Fail("a string without an end");
      }
      if (text_[at_] == '"') {
        ++at_;
        return text_.substr(start, at_ - start);
      }
      at_ += 2;
    }
  }

  std::string_view Value() {
    const char first = Peek();
    const size_t start = at_;
    if (first == '"') {
      return String();
    }
    if (first == '{' || first == '[') {
      Brackets();
    } else {
      at_ = std::min(text_.find_first_of(",:]} \n\t\r\"{[", at_), text_.size());
    }
    if (at_ == start) {
      Fail("no value");
    }
    return text_.substr(start, at_ - start);
  }

  void End() {
    if (Peek() != '\0' || at_ != text_.size()) {
      Fail("trailing text");
    }
  }

 private:
  void Brackets() {
    std::string open;
    do {
      at_ = text_.find_first_of("\"{}[]", at_);
      if (at_ == std::string_view::npos) {
        at_ = text_.size();
        Fail("a bracket that is not closed");
      }
      const char c = text_[at_];
      if (c == '"') {
        String();
        continue;
      }
      if (c == '{' || c == '[') {
        open += c;
      } else if (open.back() != (c == '}' ? '{' : '[')) {
        Fail("brackets that do not match");
      } else {
        open.pop_back();
      }
      ++at_;
    } while (!open.empty());
  }

  std::string_view text_;
  size_t at_ = 0;
};

}  // namespace

std::vector<std::pair<std::string_view, std::string_view>> ScanObject(std::string_view text) {
  std::vector<std::pair<std::string_view, std::string_view>> members;
  Scanner scanner(text);
  scanner.Expect('{');
  if (scanner.Peek() == '}') {
    scanner.Expect('}');
    scanner.End();
    return members;
  }
  while (true) {
    const std::string_view name = scanner.String();
    scanner.Expect(':');
    members.emplace_back(name, scanner.Value());
    if (scanner.Peek() == '}') {
      break;
    }
    scanner.Expect(',');
  }
  scanner.Expect('}');
  scanner.End();
  return members;
}

std::vector<std::string_view> ScanArray(std::string_view text) {
  std::vector<std::string_view> elements;
  Scanner scanner(text);
  scanner.Expect('[');
  if (scanner.Peek() == ']') {
    scanner.Expect(']');
    scanner.End();
    return elements;
  }
  while (true) {
    elements.push_back(scanner.Value());
    if (scanner.Peek() == ']') {
      break;
    }
    scanner.Expect(',');
  }
  scanner.Expect(']');
  scanner.End();
  return elements;
}

}  // namespace nimoelasticd
