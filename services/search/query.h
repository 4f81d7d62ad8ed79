// A question as a tree of conditions, and its translation to SQL. Both query languages are read into it.
#pragma once

#include <json/value.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "services/search/schema.h"
#include "services/search/sqlite.h"

namespace search {

/// A value for a parameter of SQL.
struct Parameter {
  Cell value;            ///< a string is bound as BLOB ...
  bool is_text = false;  ///< ... or as TEXT
};

/// A condition on documents. What users wrote stands only in parameters and in quoted strings of `text`.
struct Node {
  enum class Kind {
    kAll,   ///< every document
    kNone,  ///< no document
    kText,  ///< the full text matches the FTS5 expression `text`
    kSql,   ///< `sql`, on table doc as d, with a "?" for each of `parameters`
    kAnd,   ///< every one of `children`
    kOr,    ///< one of `children`
    kNot,   ///< not the only one of `children`
  };
  Kind kind = Kind::kAll;
  std::string text;
  std::string sql;
  std::vector<Parameter> parameters;
  std::vector<Node> children;

  static Node All() { return {}; }
  static Node None();
  static Node Text(std::string text);
  static Node Sql(std::string sql, std::vector<Parameter> parameters);
  static Node And(std::vector<Node> children);
  static Node Or(std::vector<Node> children);
  static Node Not(Node child);
};

/// A question in the form that the database answers: FROM fts CROSS JOIN doc d WHERE fts MATCH `match` AND `where`.
struct CompiledQuery {
  std::string match;  ///< "" when the question does not begin with the full text
  std::string where;  ///< never empty
  std::vector<Parameter> parameters;
};

CompiledQuery Compile(Node node);
/// Binds parameters from number `first` on. They must outlive the statement's run.
void BindAll(Statement& statement, int first, const std::vector<Parameter>& parameters);

/// The kinds of words that a question can ask a field for.
enum class WordMatch {
  kAnyForm,   ///< these words one after the other, in any form
  kExact,     ///< these words, one after the other
  kBeginning  ///< the same, and the last is a beginning
};

/// Conditions on one field, or on all that are in the catch-all search. Each throws Error kBadQuery with a message when
/// the field cannot be asked that.
class Conditions {
 public:
  explicit Conditions(const Schema& schema) : schema_(schema) {}

  const Schema& schema() const { return schema_; }
  /// Words in `field` ("_all" for the catch-all). With `pieces`, parts of names count as well. kNone when `text` holds
  /// nothing to look for.
  Node Words(const std::string& field, std::string_view text, WordMatch match, bool pieces) const;
  /// FTS5 expression for `text` as a part of a name; "" when it is too short for that.
  std::string NameParts(std::string_view text) const;
  /// Each blank-separated part of `text`, anywhere.
  Node AllWords(const std::string& field, std::string_view text) const;
  Node Term(const std::string& field, const Json::Value& value) const;
  Node Prefix(const std::string& field, const std::string& value) const;
  /// `operation` is one of "<", "<=", ">", ">=", "=".
  Node Compare(const std::string& field, const std::string& operation, const Json::Value& value) const;
  /// The field is `value` but for case and accents.
  Node EqualFolded(const std::string& field, std::string_view value) const;
  /// The document lies in the folder `path`, or below.
  Node Below(std::string path) const;

 private:
  const Field& Require(const std::string& field) const;
  std::optional<std::string> ColumnFilter(const std::string& field, bool pieces) const;
  Node Ancestor(const std::string& column, std::string path) const;

  const Schema& schema_;
};

/// Reads {"qsl": Q} (see Index::Get). Throws Error kBadQuery.
Node ParseQsl(const Json::Value& query, const Schema& schema);

/// A question in people's language, read.
struct PeopleQuery {
  Node node;
  std::vector<std::string> words;     ///< what snippets mark: texts whose words count in any form
  std::vector<std::string> prefixes;  ///< and beginnings of words
  std::string name_match;             ///< FTS5 expression for any of its words in a name; "" for none
};

/// Throws Error kBadQuery, with the place of what is wrong.
PeopleQuery ParsePeopleQuery(const std::string& query, const Schema& schema, std::chrono::system_clock::time_point now);

}  // namespace search
