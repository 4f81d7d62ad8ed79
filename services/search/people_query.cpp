// The query language of people.
//
//   either  = all { "OR" all }
//   all     = one { [ "AND" ] one }
//   one     = ( "-" | "NOT" ) one | "(" either ")" | "phrase" | FIELD:value | word[*]
#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include "services/search/index.h"
#include "services/search/people_value.h"
#include "services/search/query.h"
#include "services/search/vocabulary.h"
#include "services/search/words.h"

namespace search {
namespace {

constexpr size_t kMaxQueryBytes = 4096;
constexpr int kMaxTerms = 64;
constexpr int kMaxDepth = 10;

const std::map<std::string, std::string, std::less<>>& Aliases() {
  static const std::map<std::string, std::string, std::less<>> aliases = {{"ext", kExtensionField},
                                                                          {"extension", kExtensionField},
                                                                          {"size", kSizeField},
                                                                          {"date", kModifiedField},
                                                                          {"modified", kModifiedField},
                                                                          {"created", kCreatedField},
                                                                          {"name", kNameField},
                                                                          {"title", kTitleField},
                                                                          {"content", kContentField},
                                                                          {"text", kContentField},
                                                                          {"author", "NIMOMDAuthors"},
                                                                          {"album", "NIMOMDAlbum"},
                                                                          {"artist", "NIMOMDAuthors"},
                                                                          {"composer", "NIMOMDComposer"},
                                                                          {"genre", "NIMOMDMusicalGenre"},
                                                                          {"comment", "NIMOMDComment"},
                                                                          {"keyword", "NIMOMDKeywords"},
                                                                          {"tag", "_NIMOMDUserTags"},
                                                                          {"camera", "NIMOMDAcquisitionModel"}};
  return aliases;
}

// What people call a type, and the extensions that they mean.
const std::map<std::string, std::set<std::string>, std::less<>>& Types() {
  static const std::set<std::string> image = {"jpg",  "jpeg", "png", "gif", "bmp", "tif", "tiff", "webp",
                                              "heic", "heif", "svg", "raw", "cr2", "nef", "arw",  "dng"};
  static const std::set<std::string> audio = {"mp3", "m4a", "flac", "ogg", "oga", "opus", "wma",
                                              "wav", "aif", "aiff", "aac", "ape", "mid"};
  static const std::set<std::string> video = {"mp4",  "m4v",  "mkv", "avi", "mov", "wmv", "mpg",
                                              "mpeg", "webm", "flv", "3gp", "ts",  "m2ts"};
  static const std::map<std::string, std::set<std::string>, std::less<>> types = {
      {"image", image},
      {"photo", image},
      {"picture", image},
      {"audio", audio},
      {"music", audio},
      {"video", video},
      {"document",
       {"pdf", "doc", "docx", "odt", "rtf", "txt", "md", "tex", "epub", "xls", "xlsx", "ods", "csv", "ppt", "pptx",
        "odp", "html", "htm"}},
      {"text", {"txt", "md", "log", "csv", "tex", "rst"}},
      {"spreadsheet", {"xls", "xlsx", "ods", "csv"}},
      {"presentation", {"ppt", "pptx", "odp", "key"}},
      {"mail", {"eml", "msg", "mbox"}},
      {"archive", {"zip", "tar", "gz", "tgz", "bz2", "xz", "7z", "rar", "zst"}}};
  return types;
}

class Parser {
 public:
  Parser(const std::string& text, const Schema& schema, std::chrono::system_clock::time_point now)
      : text_(text), conditions_(schema), now_(now) {}

  PeopleQuery Parse() {
    if (text_.size() > kMaxQueryBytes) {
      throw Error(ErrorCode::kBadQuery, "the query is longer than " + std::to_string(kMaxQueryBytes) + " bytes");
    }
    Node node = ReadEither(0);
    if (!AtEnd()) {
      Bad("a closing parenthesis without an opening one");
    }
    if (node.kind == Node::Kind::kNone) {
      Bad("nothing to look for");
    }
    query_.node = std::move(node);
    return std::move(query_);
  }

 private:
  [[noreturn]] void Bad(const std::string& message) const {
    throw Error(ErrorCode::kBadQuery, message + ", at byte " + std::to_string(at_ + 1));
  }

  static bool IsBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r') || c == '\0'; }
  char Peek(size_t ahead = 0) const { return at_ + ahead < text_.size() ? text_[at_ + ahead] : ' '; }
  bool AtEnd() {
    while (at_ < text_.size() && IsBlank(text_[at_])) {
      ++at_;
    }
    return at_ >= text_.size();
  }

  // Takes an operator that stands as a word of its own.
  bool TakeOperator(std::string_view name) {
    if (AtEnd() || text_.compare(at_, name.size(), name) != 0) {
      return false;
    }
    const char after = Peek(name.size());
    if (!IsBlank(after) && after != '(' && after != '"') {
      return false;
    }
    at_ += name.size();
    return true;
  }

  Node ReadEither(int depth) {
    std::vector<Node> ways;
    do {
      Node node = ReadAll(depth);
      if (node.kind != Node::Kind::kNone) {
        ways.push_back(std::move(node));
      }
    } while (TakeOperator("OR"));
    return Pack(std::move(ways), Node::Or);
  }

  static Node Pack(std::vector<Node> nodes, Node (*join)(std::vector<Node>)) {
    return nodes.empty() ? Node::None() : nodes.size() == 1 ? std::move(nodes.front()) : join(std::move(nodes));
  }

  Node ReadAll(int depth) {
    std::vector<Node> nodes;
    bool any = false;
    bool open = false;  // an AND waits for its right side
    while (!AtEnd() && Peek() != ')') {
      const size_t start = at_;
      if (TakeOperator("OR")) {
        at_ = start;
        break;
      }
      if (any && !open && TakeOperator("AND")) {
        open = true;
        continue;
      }
      Node node = ReadOne(depth);
      any = true;
      open = false;
      // Signs that are no words stand for nothing: "a & b" is "a b".
      if (node.kind != Node::Kind::kNone) {
        nodes.push_back(std::move(node));
      }
    }
    if (!any || open) {
      Bad(text_.empty() || (at_ >= text_.size() && terms_ == 0 && !open) ? "nothing to look for"
                                                                         : "a condition is missing");
    }
    return Pack(std::move(nodes), Node::And);
  }

  Node ReadOne(int depth) {
    if (depth > kMaxDepth || ++terms_ > kMaxTerms) {
      Bad("too many conditions, or nested too deep");
    }
    if (AtEnd() || Peek() == ')') {
      Bad("a condition is missing");
    }
    if ((Peek() == '-' && !IsBlank(Peek(1)))) {
      ++at_;
      return Negate(depth);
    }
    if (TakeOperator("NOT")) {
      return Negate(depth);
    }
    if (Peek() == '(') {
      ++at_;
      Node node = ReadEither(depth + 1);
      if (AtEnd() || Peek() != ')') {
        Bad("a closing parenthesis is missing");
      }
      ++at_;
      return node;
    }
    if (Peek() == '"') {
      const std::string phrase = ReadQuoted();
      Mark(phrase, false);
      return conditions_.Words("_all", phrase, WordMatch::kExact, false);
    }
    return ReadField();
  }

  Node Negate(int depth) {
    negative_ = !negative_;
    Node node = ReadOne(depth + 1);
    negative_ = !negative_;
    return node.kind == Node::Kind::kNone ? std::move(node) : Node::Not(std::move(node));
  }

  std::string ReadQuoted() {
    const size_t start = at_++;
    std::string text;
    while (at_ < text_.size() && text_[at_] != '"') {
      if (text_[at_] == '\\' && (Peek(1) == '"' || Peek(1) == '\\')) {
        ++at_;
      }
      text += text_[at_++];
    }
    if (at_ >= text_.size()) {
      at_ = start;
      Bad("a closing quotation mark is missing");
    }
    ++at_;
    return text;
  }

  // Up to a blank, a quotation mark or a parenthesis.
  std::string ReadBare() {
    const size_t start = at_;
    while (at_ < text_.size() && !IsBlank(text_[at_]) && text_[at_] != '"' && text_[at_] != '(' && text_[at_] != ')') {
      ++at_;
    }
    return text_.substr(start, at_ - start);
  }

  Node ReadField() {
    const size_t start = at_;
    const size_t colon = NameEnd();
    if (colon == std::string::npos) {
      return ReadWord(ReadBare(), "_all");
    }
    const std::string name = text_.substr(start, colon - start);
    at_ = colon + 1;
    const bool quoted = Peek() == '"';
    const std::string value = quoted ? ReadQuoted() : ReadBare();
    if (value.empty()) {
      Bad("the value of " + name + ": is missing");
    }
    try {
      return FieldCondition(name, value, quoted);
    } catch (const Error& error) {
      at_ = start;
      Bad(error.what());
    }
  }

  // Where the name of a field before a colon ends; npos when none stands here.
  size_t NameEnd() const {
    size_t end = at_;
    while (end < text_.size() && (isalpha(static_cast<unsigned char>(text_[end])) != 0 || text_[end] == '_')) {
      ++end;
    }
    return end > at_ && end < text_.size() && text_[end] == ':' ? end : std::string::npos;
  }

  Node FieldCondition(const std::string& written, const std::string& value, bool quoted) {
    const std::string name = Fold(written);
    if (name == "folder" || name == "dir" || name == "in") {
      return Below(value);
    }
    if (name == "type" || name == "kind") {
      return Type(Fold(value));
    }
    const auto alias = Aliases().find(name);
    const std::string field_name = alias != Aliases().end() ? alias->second : written;
    const Field* field = conditions_.schema().Find(field_name);
    if (field == nullptr) {
      throw Error(ErrorCode::kBadQuery,
                  "no field is named \"" + written + "\"; put it in quotes to look for the words");
    }
    if (field_name == kExtensionField) {
      return conditions_.EqualFolded(field_name, value.substr(value.front() == '.' ? 1 : 0));
    }
    if (!field->IsText()) {
      return ValueCondition(*field, value);
    }
    if (field->words < 0) {
      return conditions_.EqualFolded(field_name, value);
    }
    if (quoted) {
      Mark(value, false);
      return conditions_.Words(field_name, value, WordMatch::kExact, false);
    }
    return ReadWord(value, field_name);
  }

  Node ReadWord(std::string word, const std::string& field) {
    const bool beginning = word.size() > 1 && word.back() == '*';
    if (beginning) {
      word.pop_back();
    }
    Mark(word, beginning);
    if (const std::string parts = negative_ ? "" : conditions_.NameParts(word); !parts.empty()) {
      query_.name_match += (query_.name_match.empty() ? "(" : " OR (") + parts + ")";
    }
    return conditions_.Words(field, word, beginning ? WordMatch::kBeginning : WordMatch::kAnyForm, true);
  }

  // What was typed may have another Unicode form than the folder's name, which is bytes.
  Node Below(const std::string& path) {
    std::vector<Node> ways;
    for (const std::string& form : UnicodeForms(path)) {
      ways.push_back(conditions_.Below(form));
    }
    return Pack(std::move(ways), Node::Or);
  }

  Node Type(const std::string& type) {
    const Schema& schema = conditions_.schema();
    if (type == "folder" || type == "directory") {
      return conditions_.Compare(kIsDirectoryField, "=", true);
    }
    std::vector<Node> ways;
    ways.push_back(conditions_.EqualFolded(kKindField, type));
    const auto group = Types().find(type);
    if (schema.Find(kExtensionField) != nullptr) {
      if (group == Types().end()) {
        ways.push_back(conditions_.EqualFolded(kExtensionField, type));
      } else {
        for (const std::string& extension : group->second) {
          ways.push_back(conditions_.Compare(kExtensionField, "=", extension));
        }
      }
    }
    return Node::Or(std::move(ways));
  }

  Node ValueCondition(const Field& field, const std::string& value) {
    if (field.type == FieldType::kBool) {
      return conditions_.Compare(field.name, "=", ReadTruth(value));
    }
    const ValueUnit unit = field.name == kSizeField                       ? ValueUnit::kBytes
                           : field.name.find("Date") != std::string::npos ? ValueUnit::kTime
                                                                          : ValueUnit::kNumber;
    const ValueRange range = ReadRange(value, unit, now_);
    std::vector<Node> bounds;
    if (range.from) {
      bounds.push_back(conditions_.Compare(field.name, ">=", *range.from));
    }
    if (range.below) {
      bounds.push_back(conditions_.Compare(field.name, "<", *range.below));
    }
    if (range.to) {
      bounds.push_back(conditions_.Compare(field.name, "<=", *range.to));
    }
    if (range.above) {
      bounds.push_back(conditions_.Compare(field.name, ">", *range.above));
    }
    return Pack(std::move(bounds), Node::And);
  }

  void Mark(const std::string& text, bool beginning) {
    if (!negative_) {
      (beginning ? query_.prefixes : query_.words).push_back(text);
    }
  }

  const std::string& text_;
  Conditions conditions_;
  std::chrono::system_clock::time_point now_;
  PeopleQuery query_;
  size_t at_ = 0;
  int terms_ = 0;
  bool negative_ = false;
};

}  // namespace

PeopleQuery ParsePeopleQuery(const std::string& query, const Schema& schema,
                             std::chrono::system_clock::time_point now) {
  return Parser(query, schema, now).Parse();
}

}  // namespace search
