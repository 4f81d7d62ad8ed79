// What the mappings say: the fields, where each is kept, and which values it takes.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace search {

enum class FieldType { kString, kText, kBool, kInt, kDouble };
enum class Analyzer { kStandard, kKeyword, kWhiteSpace, kWhiteSpaceEscaped };

/// A field of the mappings, and its places in the database.
struct Field {
  std::string name;
  FieldType type = FieldType::kString;
  Analyzer analyzer = Analyzer::kStandard;
  bool required = false;
  bool stored = true;
  bool in_all = true;
  bool ngram = false;
  bool ancestors = false;

  int column = -1;  ///< of table "doc", counted from 0; -1: the value is kept in the texts
  int words = -1;   ///< column of the full text that has its words; -1: none
  int pieces = -1;  ///< column of the full text that has its three-letter pieces; -1: none

  bool IsText() const { return type == FieldType::kString || type == FieldType::kText; }
};

/// A column of the full text.
struct WordColumn {
  size_t field = 0;  ///< index into Schema::fields()
  bool pieces = false;
  double weight = 1;
};

using Cell = std::variant<std::monostate, int64_t, double, std::string>;

/// A document as the database keeps it.
struct Record {
  std::string path;
  std::vector<Cell> columns;             ///< by Field::column
  std::map<size_t, Json::Value> texts;   ///< by field: a string, or a list of strings
  Json::Value extra{Json::objectValue};  ///< members that the mappings do not know
};

/// How tokens are found in a text. The first byte of what the full text's tokenizer gets is one of these.
enum TokenMode : char {
  kPieces = '\x01',             ///< three-letter pieces
  kKeyword = '\x02',            ///< one folded token
  kWhiteSpace = '\x03',         ///< tokens between white space, and the words in them
  kVerbatim = '\x04',           ///< the rest is one token as it stands
  kWords = '\x06',              ///< words and, beside them, stems
  kPlainWords = '\x07',         ///< words as they stand
  kWhiteSpaceEscaped = '\x08',  ///< like kWhiteSpace, but white space after a backslash separates nothing
  kGiven = '\x0b',              ///< the rest is the number of one of the GivenTexts
};

/// What a column of the full text gets of a record.
struct ColumnText {
  TokenMode mode = kWords;
  std::string_view text;  ///< "" when it gets nothing
  bool operator==(const ColumnText&) const = default;
};

/// The mappings and settings of an index, read once. Any thread, once made.
class Schema {
 public:
  /// Throws Error kBadMappings.
  Schema(const Json::Value& mappings, const Json::Value& settings);

  const std::vector<Field>& fields() const { return fields_; }
  const std::vector<WordColumn>& word_columns() const { return word_columns_; }
  const std::vector<std::string>& languages() const { return languages_; }
  const Json::Value& mappings() const { return mappings_; }
  const Json::Value& settings() const { return settings_; }
  /// The field that identifies a document; it has no column but "path".
  const std::string& id_field() const { return id_field_; }
  size_t columns() const { return columns_; }
  /// Null for a field that the mappings do not know.
  const Field* Find(std::string_view name) const;

  /// The SQL of a field's value in table "doc" under the alias d; "" when it is not kept in a column.
  std::string ColumnSql(std::string_view field) const;

  /// The document as a record, into which its texts are moved. Throws Error kBadDocument.
  Record ToRecord(Json::Value&& document) const;
  /// Changes `record` as Index::Set says; texts are moved. Throws Error kBadDocument.
  void Apply(Json::Value&& changes, Record& record) const;
  /// The named stored members of `record`, or, without names, those that are not kept in the texts.
  Json::Value ToJson(const Record& record, const std::optional<std::vector<std::string>>& names) const;
  /// Whether any member of these is kept in the texts.
  bool NeedsTexts(const std::vector<std::string>& names) const;
  /// What the full text's column gets of this record. It lies in the record, or in `room`, for a list of texts.
  ColumnText Words(const Record& record, size_t word_column, std::string& room) const;

 private:
  void ReadField(const std::string& name, const Json::Value& defaults, const Json::Value& properties);
  void ReadLanguages();
  void Place(Field& field, size_t index);
  void SetMember(const std::string& name, Json::Value&& value, Record& record) const;
  void RequireAll(const Record& record) const;
  bool Has(const Record& record, const Field& field, size_t index) const;

  Json::Value mappings_;
  Json::Value settings_;
  std::string id_field_;
  std::vector<Field> fields_;
  std::map<std::string, size_t, std::less<>> by_name_;
  std::vector<WordColumn> word_columns_;
  std::vector<std::string> languages_;
  size_t columns_ = 0;
};

}  // namespace search
