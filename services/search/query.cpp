// Conditions and their SQL.
#include "services/search/query.h"

#include <algorithm>
#include <utility>

#include "services/search/index.h"
#include "services/search/words.h"

namespace search {
namespace {

constexpr char kAllFields[] = "_all";

// A string of FTS5's language. It ends at NUL, which no word contains.
std::string Quote(TokenMode mode, std::string_view text) {
  std::string quoted = {'"', mode};
  for (const char c : text) {
    if (c == '"') {
      quoted += '"';
    }
    quoted += c == '\0' ? ' ' : c;
  }
  return quoted + '"';
}

// The smallest byte string above all that begin with `prefix`; "" when there is none.
std::string Successor(std::string prefix) {
  while (!prefix.empty() && static_cast<unsigned char>(prefix.back()) == 0xff) {
    prefix.pop_back();
  }
  if (!prefix.empty()) {
    prefix.back() = static_cast<char>(prefix.back() + 1);
  }
  return prefix;
}

Node PrefixOf(const std::string& column, const std::string& prefix) {
  const std::string end = Successor(prefix);
  return end.empty() ? Node::Sql(column + " >= ?", {{prefix}})
                     : Node::Sql(column + " >= ? AND " + column + " < ?", {{prefix}, {end}});
}

class CountSink : public TokenSink {
 public:
  bool Take(std::string_view token, size_t, size_t, bool colocated) override {
    count_ += colocated ? 0 : 1;
    single_ = token;
    return count_ < 2;
  }
  size_t count() const { return count_; }
  const std::string& single() const { return single_; }

 private:
  size_t count_ = 0;
  std::string single_;
};

size_t Characters(std::string_view folded) {
  return static_cast<size_t>(std::count_if(folded.begin(), folded.end(),
                                           [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
}

// One Chinese, Japanese or Korean character is kept only in pairs, so it is asked for as the beginning of one.
bool IsHalfPair(const CountSink& tokens) {
  return tokens.count() == 1 && Characters(tokens.single()) == 1 && tokens.single().size() >= 3;
}

std::string PiecesExpression(std::string_view text) {
  const std::string folded = Fold(text);
  const size_t length = Characters(folded);
  const bool ascii_letter = length == 1 && folded.size() == 1;
  if (length == 0 || ascii_letter) {
    return "";  // a single letter is part of nearly every name
  }
  return Quote(kPieces, text) + (length < 3 ? " *" : "");
}

bool IsText(const Node& node) {
  return node.kind == Node::Kind::kText;
}
bool IsNotText(const Node& node) {
  return node.kind == Node::Kind::kNot && IsText(node.children.front());
}

std::string JoinText(const std::vector<Node>& nodes, const char* operation) {
  std::string joined;
  for (const Node& node : nodes) {
    joined += (joined.empty() ? "(" : std::string(" ") + operation + " (") + node.text + ")";
  }
  return joined;
}

// Puts conditions on the full text that stand side by side into one, which FTS5 answers far quicker than SQL joins.
Node Simplify(Node node) {
  for (Node& child : node.children) {
    child = Simplify(std::move(child));
  }
  if (node.kind != Node::Kind::kAnd && node.kind != Node::Kind::kOr) {
    return node;
  }
  std::vector<Node> with;
  std::vector<Node> without;
  std::vector<Node> others;
  const bool is_and = node.kind == Node::Kind::kAnd;
  for (Node& child : node.children) {
    if (IsText(child)) {
      with.push_back(std::move(child));
    } else if (is_and && IsNotText(child)) {
      without.push_back(std::move(child));
    } else if (child.kind != (is_and ? Node::Kind::kAll : Node::Kind::kNone)) {
      others.push_back(std::move(child));
    }
  }
  if (!with.empty()) {
    std::string text = JoinText(with, is_and ? "AND" : "OR");
    if (!without.empty()) {
      std::vector<Node> unwanted;
      unwanted.reserve(without.size());
      for (Node& child : without) {
        unwanted.push_back(std::move(child.children.front()));
      }
      text = "(" + text + ") NOT (" + JoinText(unwanted, "OR") + ")";
    }
    others.insert(others.begin(), Node::Text(std::move(text)));
  } else {
    others.insert(others.end(), std::make_move_iterator(without.begin()), std::make_move_iterator(without.end()));
  }
  if (others.size() == 1) {
    return std::move(others.front());
  }
  if (others.empty()) {
    return is_and ? Node::All() : Node::None();
  }
  node.children = std::move(others);
  return node;
}

void AppendSql(const Node& node, std::string& sql, std::vector<Parameter>& parameters) {
  switch (node.kind) {
    case Node::Kind::kAll:
      sql += "1";
      return;
    case Node::Kind::kNone:
      sql += "0";
      return;
    case Node::Kind::kText:
      sql += "d.id IN (SELECT rowid FROM fts WHERE fts MATCH ?)";
      parameters.push_back({node.text, true});
      return;
    case Node::Kind::kSql:
      sql += "(" + node.sql + ")";
      parameters.insert(parameters.end(), node.parameters.begin(), node.parameters.end());
      return;
    case Node::Kind::kNot:
      // A document without the field is one that does not fulfil the condition; to SQL it is neither.
      sql += "NOT coalesce(";
      AppendSql(node.children.front(), sql, parameters);
      sql += ", 0)";
      return;
    case Node::Kind::kAnd:
    case Node::Kind::kOr:
      sql += "(";
      for (size_t i = 0; i < node.children.size(); ++i) {
        sql += i == 0 ? "" : node.kind == Node::Kind::kAnd ? " AND " : " OR ";
        AppendSql(node.children[i], sql, parameters);
      }
      sql += ")";
  }
}

[[noreturn]] void Bad(const std::string& message) {
  throw Error(ErrorCode::kBadQuery, message);
}

// The value as the column of `field` has it.
Cell ToCell(const Field& field, const Json::Value& value) {
  if (field.IsText() && value.isString()) {
    return value.asString();
  }
  if (field.type == FieldType::kBool && value.isBool()) {
    return int64_t{value.asBool()};
  }
  if ((field.type == FieldType::kInt || field.type == FieldType::kDouble) && value.isNumeric() && !value.isBool()) {
    return value.isInt64() ? Cell(int64_t{value.asInt64()}) : Cell(value.asDouble());
  }
  Bad("the value for the field \"" + field.name + "\" has the wrong type");
}

}  // namespace

Node Node::None() {
  Node node;
  node.kind = Kind::kNone;
  return node;
}

Node Node::Text(std::string text) {
  Node node;
  node.kind = Kind::kText;
  node.text = std::move(text);
  return node;
}

Node Node::Sql(std::string sql, std::vector<Parameter> parameters) {
  Node node;
  node.kind = Kind::kSql;
  node.sql = std::move(sql);
  node.parameters = std::move(parameters);
  return node;
}

Node Node::And(std::vector<Node> children) {
  Node node;
  node.kind = Kind::kAnd;
  node.children = std::move(children);
  return node;
}

Node Node::Or(std::vector<Node> children) {
  Node node;
  node.kind = Kind::kOr;
  node.children = std::move(children);
  return node;
}

Node Node::Not(Node child) {
  Node node;
  node.kind = Kind::kNot;
  node.children.push_back(std::move(child));
  return node;
}

CompiledQuery Compile(Node node) {
  node = Simplify(std::move(node));
  CompiledQuery query;
  if (IsText(node)) {
    query.match = std::move(node.text);
    node = Node::All();
  } else if (node.kind == Node::Kind::kAnd && IsText(node.children.front())) {
    query.match = std::move(node.children.front().text);
    node.children.erase(node.children.begin());
  }
  AppendSql(node, query.where, query.parameters);
  return query;
}

void BindAll(Statement& statement, int first, const std::vector<Parameter>& parameters) {
  for (const Parameter& parameter : parameters) {
    if (const auto* number = std::get_if<int64_t>(&parameter.value)) {
      statement.Bind(first, *number);
    } else if (const auto* real = std::get_if<double>(&parameter.value)) {
      statement.Bind(first, *real);
    } else if (const auto* bytes = std::get_if<std::string>(&parameter.value)) {
      parameter.is_text ? statement.BindText(first, *bytes) : statement.Bind(first, std::string_view(*bytes));
    }
    ++first;
  }
}

const Field& Conditions::Require(const std::string& name) const {
  const Field* field = schema_.Find(name);
  if (field == nullptr) {
    Bad("no field is named \"" + name + "\"");
  }
  return *field;
}

// "{w1 w2} : " for the columns that `field` means; "" when those are all; nothing when there are none.
std::optional<std::string> Conditions::ColumnFilter(const std::string& name, bool pieces) const {
  std::string columns;
  bool all = true;
  for (size_t i = 0; i < schema_.word_columns().size(); ++i) {
    const WordColumn& column = schema_.word_columns()[i];
    const Field& field = schema_.fields()[column.field];
    const bool wanted = column.pieces == pieces && (name == kAllFields ? field.in_all : field.name == name);
    // Words are never taken for pieces, which bear a mark, so it does no harm to look for words among pieces.
    all = all && (wanted || (column.pieces && !pieces && name == kAllFields));
    columns += wanted ? (columns.empty() ? "w" : " w") + std::to_string(i) : "";
  }
  if (columns.empty()) {
    return std::nullopt;
  }
  return all ? "" : "{" + columns + "} : ";
}

Node Conditions::Words(const std::string& name, std::string_view text, WordMatch match, bool pieces) const {
  if (name != kAllFields && Require(name).words < 0) {
    return EqualFolded(name, text);
  }
  const Field* field = schema_.Find(name);
  const bool keyword = field != nullptr && field->analyzer == Analyzer::kKeyword;
  std::vector<Node> ways;
  CountSink tokens;
  WordAnalyzer analyzer({});
  analyzer.Words(text, WordAnalyzer::Stems::kNone, tokens);
  const std::optional<std::string> columns = ColumnFilter(name, false);
  if (columns && (tokens.count() > 0 || (keyword && !text.empty()))) {
    const bool beginning = match == WordMatch::kBeginning || IsHalfPair(tokens);
    const TokenMode mode = keyword ? kKeyword : match == WordMatch::kAnyForm && !beginning ? kWords : kPlainWords;
    ways.push_back(Node::Text(*columns + Quote(mode, text) + (beginning ? " *" : "")));
  }
  // What stands between white space, and whole values, are tokens beside the words in them.
  const std::string folded = Fold(text);
  if (columns && match == WordMatch::kAnyForm && !keyword && tokens.count() > 0 &&
      (tokens.count() > 1 || tokens.single() != folded)) {
    ways.push_back(Node::Text(*columns + Quote(kVerbatim, folded)));
  }
  const std::optional<std::string> piece_columns = pieces ? ColumnFilter(name, true) : std::nullopt;
  const std::string expression = piece_columns ? PiecesExpression(text) : "";
  if (!expression.empty()) {
    ways.push_back(Node::Text(*piece_columns + expression));
  }
  return ways.empty() ? Node::None() : ways.size() == 1 ? std::move(ways.front()) : Node::Or(std::move(ways));
}

std::string Conditions::NameParts(std::string_view text) const {
  const std::optional<std::string> columns = ColumnFilter(kAllFields, true);
  const std::string expression = columns ? PiecesExpression(text) : "";
  return expression.empty() ? "" : *columns + expression;
}

Node Conditions::AllWords(const std::string& name, std::string_view text) const {
  std::vector<Node> parts;
  constexpr std::string_view kBlanks = " \t\r\n\f\v";
  for (size_t begin = text.find_first_not_of(kBlanks); begin != std::string_view::npos;) {
    const size_t end = std::min(text.find_first_of(kBlanks, begin), text.size());
    parts.push_back(Words(name, text.substr(begin, end - begin), WordMatch::kAnyForm, false));
    begin = text.find_first_not_of(kBlanks, end);
  }
  return parts.empty() ? Node::None() : Node::And(std::move(parts));
}

Node Conditions::Term(const std::string& name, const Json::Value& value) const {
  const std::string column = schema_.ColumnSql(name);
  std::vector<Node> ways;
  if (name != kAllFields && Require(name).ancestors && value.isString()) {
    return Ancestor(column, value.asString());
  }
  if (!column.empty()) {
    ways.push_back(Node::Sql(column + " = ?", {{ToCell(Require(name), value)}}));
  }
  if (name == kAllFields || Require(name).words >= 0) {
    if (!value.isString()) {
      Bad("the value for the field \"" + name + "\" must be a string");
    }
    const std::optional<std::string> columns = ColumnFilter(name, false);
    const std::string folded = Fold(value.asString());
    if (columns && !folded.empty()) {
      ways.push_back(Node::Text(*columns + Quote(kVerbatim, folded)));
    }
  }
  return ways.empty() ? Node::None() : ways.size() == 1 ? std::move(ways.front()) : Node::Or(std::move(ways));
}

Node Conditions::Prefix(const std::string& name, const std::string& value) const {
  const std::string column = schema_.ColumnSql(name);
  std::vector<Node> ways;
  if (!column.empty()) {
    if (!Require(name).IsText()) {
      Bad("the field \"" + name + "\" has no text, so nothing begins it");
    }
    ways.push_back(PrefixOf(column, value));
  }
  if (name == kAllFields || Require(name).words >= 0) {
    const std::optional<std::string> columns = ColumnFilter(name, false);
    const std::string folded = Fold(value);
    if (columns && !folded.empty()) {
      ways.push_back(Node::Text(*columns + Quote(kVerbatim, folded) + " *"));
    }
  }
  return ways.empty() ? Node::None() : ways.size() == 1 ? std::move(ways.front()) : Node::Or(std::move(ways));
}

Node Conditions::Compare(const std::string& name, const std::string& operation, const Json::Value& value) const {
  const Field& field = Require(name);
  const std::string column = schema_.ColumnSql(name);
  if (column.empty()) {
    Bad("the field \"" + name + "\" cannot be compared");
  }
  return Node::Sql(column + " " + operation + " ?", {{ToCell(field, value)}});
}

Node Conditions::EqualFolded(const std::string& name, std::string_view value) const {
  const Field& field = Require(name);
  const std::string column = schema_.ColumnSql(name);
  if (column.empty() || !field.IsText()) {
    Bad("the field \"" + name + "\" cannot be asked for words");
  }
  return Node::Sql("nimo_fold(" + column + ") = ?", {{Fold(value)}});
}

Node Conditions::Ancestor(const std::string& column, std::string path) const {
  while (!path.empty() && path.back() == '/') {
    path.pop_back();
  }
  std::vector<Node> ways;
  ways.push_back(Node::Sql(column + " = ?", {{path}}));
  ways.push_back(PrefixOf(column, path + "/"));
  return Node::Or(std::move(ways));
}

Node Conditions::Below(std::string path) const {
  while (!path.empty() && path.back() == '/') {
    path.pop_back();
  }
  return PrefixOf("d.path", path + "/");
}

}  // namespace search
