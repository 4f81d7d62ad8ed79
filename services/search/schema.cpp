// Reading of mappings, and documents checked against them.
#include "services/search/schema.h"

#include <algorithm>
#include <set>
#include <utility>

#include "services/search/index.h"
#include "services/search/vocabulary.h"
#include "services/search/words.h"

namespace search {
namespace {

// The database has one column for most fields, and SQLite a bound for columns.
constexpr size_t kMaxFields = 500;
constexpr size_t kMaxFieldNameBytes = 255;

[[noreturn]] void Bad(const std::string& message) {
  throw Error(ErrorCode::kBadMappings, message);
}

std::string Quoted(const std::string& name) {
  return "\"" + name + "\"";
}

// A member of a field's properties, or else of the defaults.
const Json::Value& Setting(const Json::Value& properties, const Json::Value& defaults, const char* key) {
  return properties.isMember(key) ? properties[key] : defaults[key];
}

bool ReadFlag(const std::string& field, const Json::Value& value, const char* key, bool otherwise) {
  if (value.isNull()) {
    return otherwise;
  }
  if (!value.isBool()) {
    Bad("the member \"" + std::string(key) + "\" of the field " + Quoted(field) + " must be true or false");
  }
  return value.asBool();
}

template <typename Value>
Value ReadChoice(const std::string& field, const Json::Value& value, const char* key,
                 const std::map<std::string, Value>& choices, Value otherwise) {
  if (value.isNull()) {
    return otherwise;
  }
  const auto found = value.isString() ? choices.find(value.asString()) : choices.end();
  if (found == choices.end()) {
    Bad("the field " + Quoted(field) + " has an unknown \"" + key + "\"");
  }
  return found->second;
}

const char* TypeName(FieldType type) {
  switch (type) {
    case FieldType::kString:
      return "a string or a list of strings";
    case FieldType::kText:
      return "a text or a list of texts";
    case FieldType::kBool:
      return "true or false";
    case FieldType::kInt:
      return "a whole number of 64 bits";
    case FieldType::kDouble:
      return "a number";
  }
  return "";
}

[[noreturn]] void WrongType(const Field& field) {
  throw Error(ErrorCode::kBadDocument, "the field " + Quoted(field.name) + " must be " +
                                           (field.column >= 0 && field.IsText() ? "a string" : TypeName(field.type)));
}

Cell ToCell(const Field& field, const Json::Value& value) {
  switch (field.type) {
    case FieldType::kBool:
      if (value.isBool()) {
        return int64_t{value.asBool()};
      }
      break;
    case FieldType::kInt:
      if (value.isInt64() && !value.isBool()) {
        return int64_t{value.asInt64()};
      }
      break;
    case FieldType::kDouble:
      if (value.isNumeric() && !value.isBool()) {
        return value.asDouble();
      }
      break;
    default:
      if (value.isString()) {
        return value.asString();
      }
  }
  WrongType(field);
}

Json::Value ToJsonValue(const Field& field, const Cell& cell) {
  if (const auto* number = std::get_if<int64_t>(&cell)) {
    return field.type == FieldType::kBool ? Json::Value(*number != 0) : Json::Value(Json::Int64{*number});
  }
  if (const auto* number = std::get_if<double>(&cell)) {
    return *number;
  }
  return std::get<std::string>(cell);
}

bool IsStrings(const Json::Value& value) {
  return value.isString() || (value.isArray() && std::all_of(value.begin(), value.end(),
                                                             [](const Json::Value& item) { return item.isString(); }));
}

std::string_view TextOf(const Json::Value& string) {
  const char* begin = nullptr;
  const char* end = nullptr;
  return string.getString(&begin, &end) ? std::string_view(begin, static_cast<size_t>(end - begin))
                                        : std::string_view();
}

// Elements of a list are kept apart by a byte that is no word, so that no phrase runs from one into the next by eye.
std::string Joined(const Json::Value& list) {
  std::string joined;
  for (const Json::Value& item : list) {
    joined += joined.empty() ? "" : "\n";
    joined += TextOf(item);
  }
  return joined;
}

TokenMode ModeOf(const Field& field) {
  switch (field.analyzer) {
    case Analyzer::kKeyword:
      return kKeyword;
    case Analyzer::kWhiteSpace:
      return kWhiteSpace;
    case Analyzer::kWhiteSpaceEscaped:
      return kWhiteSpaceEscaped;
    default:
      return kWords;
  }
}

}  // namespace

Schema::Schema(const Json::Value& mappings, const Json::Value& settings) : mappings_(mappings), settings_(settings) {
  if (!mappings.isObject() || !settings.isObject()) {
    Bad("mappings and settings must be objects");
  }
  const Json::Value& properties = mappings["properties"];
  const Json::Value& defaults = mappings["default"];
  if (!properties.isObject() || !(defaults.isObject() || defaults.isNull())) {
    Bad("the mappings need an object \"properties\", and \"default\" must be one");
  }
  if (!mappings["property_id"].isString() || !properties.isMember(mappings["property_id"].asString())) {
    Bad("\"property_id\" must name one of the properties");
  }
  if (properties.size() > kMaxFields) {
    Bad("more than " + std::to_string(kMaxFields) + " fields");
  }
  id_field_ = mappings["property_id"].asString();
  for (const std::string& name : properties.getMemberNames()) {
    ReadField(name, defaults, properties[name]);
  }
  if (!properties.isMember(kKindField)) {
    // Searches count hits by kind, so it has a column even where the mappings leave it to the documents.
    Json::Value kind;
    kind["analyzer"] = "keyword";
    kind["_all"] = false;
    ReadField(kKindField, Json::Value(), kind);
  }
  const Field& id = *Find(id_field_);
  if (!id.IsText() || id.analyzer != Analyzer::kKeyword) {
    Bad("the field of \"property_id\" must be a string with the analyzer \"keyword\"");
  }
  ReadLanguages();
}

void Schema::ReadLanguages() {
  const Json::Value& languages = std::as_const(settings_)["languages"];
  if (languages.isNull()) {
    languages_ = {"english"};
    return;
  }
  if (!languages.isArray() || !IsStrings(languages)) {
    Bad("\"languages\" must be a list of names");
  }
  for (const Json::Value& language : languages) {
    languages_.push_back(language.asString());
  }
  WordAnalyzer check(languages_);  // throws for an unknown one
}

void Schema::ReadField(const std::string& name, const Json::Value& defaults, const Json::Value& properties) {
  if (name.empty() || name.size() > kMaxFieldNameBytes || name == "_all") {
    Bad("a field cannot be named " + Quoted(name));
  }
  if (!properties.isObject()) {
    Bad("the field " + Quoted(name) + " must be an object");
  }
  Field field;
  field.name = name;
  field.type = ReadChoice<FieldType>(name, Setting(properties, defaults, "type"), "type",
                                     {{"string", FieldType::kString},
                                      {"text", FieldType::kText},
                                      {"bool", FieldType::kBool},
                                      {"int", FieldType::kInt},
                                      {"double", FieldType::kDouble}},
                                     FieldType::kString);
  field.analyzer = ReadChoice<Analyzer>(name, Setting(properties, defaults, "analyzer"), "analyzer",
                                        {{"nimostandard", Analyzer::kStandard},
                                         {"keyword", Analyzer::kKeyword},
                                         {"white space", Analyzer::kWhiteSpace},
                                         {"white space escaped", Analyzer::kWhiteSpaceEscaped}},
                                        Analyzer::kStandard);
  field.required = ReadFlag(name, Setting(properties, defaults, "required"), "required", false);
  field.stored = ReadFlag(name, Setting(properties, defaults, "stored"), "stored", true);
  field.in_all = ReadFlag(name, Setting(properties, defaults, "_all"), "_all", true);
  const Json::Value& steps = Setting(properties, defaults, "preprocess");
  if (!steps.isNull() && (!steps.isArray() || !IsStrings(steps))) {
    Bad("\"preprocess\" of the field " + Quoted(name) + " must be a list of names");
  }
  for (const Json::Value& step : steps) {
    field.ngram = field.ngram || step.asString() == "ngram";
    field.ancestors = field.ancestors || step.asString() == "list_ancestor";
    if (step.asString() != "ngram" && step.asString() != "list_ancestor" && step.asString() != "tolower") {
      Bad("the field " + Quoted(name) + " has an unknown step in \"preprocess\"");
    }
  }
  Place(field, fields_.size());
  by_name_.emplace(name, fields_.size());
  fields_.push_back(std::move(field));
}

// Numbers, exact strings and names have columns, for filters and sorting; words go into the full text; a long text
// is kept apart, so that moving a document does not touch it.
void Schema::Place(Field& field, size_t index) {
  if (field.name == id_field_) {
    return;
  }
  const bool exact = field.IsText() && field.analyzer == Analyzer::kKeyword && !field.in_all;
  if (!field.IsText() || exact || field.ngram || field.ancestors) {
    field.column = static_cast<int>(columns_++);
  }
  if (!field.IsText() || exact || field.ancestors) {
    return;
  }
  const bool title = field.name == kTitleField;
  const bool body = field.type == FieldType::kText && field.analyzer == Analyzer::kStandard && !title;
  field.words = static_cast<int>(word_columns_.size());
  word_columns_.push_back({index, false, field.ngram ? 10.0 : title ? 5.0 : body ? 1.0 : 2.0});
  if (field.ngram) {
    field.pieces = static_cast<int>(word_columns_.size());
    word_columns_.push_back({index, true, 4.0});
  }
}

const Field* Schema::Find(std::string_view name) const {
  const auto found = by_name_.find(name);
  return found != by_name_.end() ? &fields_[found->second] : nullptr;
}

std::string Schema::ColumnSql(std::string_view name) const {
  if (name == id_field_) {
    return "d.path";
  }
  const Field* field = Find(name);
  return field != nullptr && field->column >= 0 ? "d.c" + std::to_string(field->column) : "";
}

Record Schema::ToRecord(Json::Value&& document) const {
  Record record;
  record.columns.resize(columns_);
  Apply(std::move(document), record);
  return record;
}

void Schema::Apply(Json::Value&& changes, Record& record) const {
  if (!changes.isObject()) {
    throw Error(ErrorCode::kBadDocument, "a document must be an object");
  }
  for (auto member = changes.begin(); member != changes.end(); ++member) {
    SetMember(member.name(), std::move(*member), record);
  }
  RequireAll(record);
}

void Schema::SetMember(const std::string& name, Json::Value&& value, Record& record) const {
  const auto found = by_name_.find(name);
  if (found == by_name_.end()) {
    value.isNull() ? record.extra.removeMember(name) : void(record.extra[name] = std::move(value));
    return;
  }
  const Field& field = fields_[found->second];
  if (name == id_field_) {
    if (!value.isString() || value.asString().empty()) {
      throw Error(ErrorCode::kBadDocument, "the field " + Quoted(name) + " must be a string that is not empty");
    }
    record.path = value.asString();
  } else if (field.column >= 0) {
    record.columns[static_cast<size_t>(field.column)] = value.isNull() ? Cell() : ToCell(field, value);
  } else if (value.isNull()) {
    record.texts.erase(found->second);
  } else if (IsStrings(value)) {
    record.texts[found->second] = std::move(value);
  } else {
    WrongType(field);
  }
}

bool Schema::Has(const Record& record, const Field& field, size_t index) const {
  if (field.name == id_field_) {
    return !record.path.empty();
  }
  return field.column >= 0 ? record.columns[static_cast<size_t>(field.column)].index() != 0
                           : record.texts.count(index) > 0;
}

void Schema::RequireAll(const Record& record) const {
  for (size_t i = 0; i < fields_.size(); ++i) {
    const Field& field = fields_[i];
    if ((field.required || field.name == id_field_) && !Has(record, field, i)) {
      throw Error(ErrorCode::kBadDocument, "the field " + Quoted(field.name) + " is missing");
    }
  }
}

Json::Value Schema::ToJson(const Record& record, const std::optional<std::vector<std::string>>& names) const {
  Json::Value object(Json::objectValue);
  if (!names) {
    object = record.extra;
  } else {
    for (const std::string& name : *names) {
      if (record.extra.isMember(name)) {
        object[name] = record.extra[name];
      }
    }
  }
  for (size_t i = 0; i < fields_.size(); ++i) {
    const Field& field = fields_[i];
    const bool wanted = names ? std::find(names->begin(), names->end(), field.name) != names->end()
                              : field.column >= 0 || field.name == id_field_;
    if (!wanted || !field.stored || !Has(record, field, i)) {
      continue;
    }
    if (field.name == id_field_) {
      object[field.name] = record.path;
    } else {
      object[field.name] = field.column >= 0 ? ToJsonValue(field, record.columns[static_cast<size_t>(field.column)])
                                             : record.texts.at(i);
    }
  }
  return object;
}

bool Schema::NeedsTexts(const std::vector<std::string>& names) const {
  return std::any_of(names.begin(), names.end(), [this](const std::string& name) {
    const Field* field = Find(name);
    return field != nullptr && field->column < 0 && name != id_field_;
  });
}

ColumnText Schema::Words(const Record& record, size_t word_column, std::string& room) const {
  const WordColumn& words = word_columns_[word_column];
  const Field& field = fields_[words.field];
  ColumnText column{words.pieces ? kPieces : ModeOf(field), {}};
  if (field.column >= 0) {
    const auto* value = std::get_if<std::string>(&record.columns[static_cast<size_t>(field.column)]);
    column.text = value != nullptr ? *value : std::string_view();
  } else if (const auto found = record.texts.find(words.field); found != record.texts.end()) {
    if (found->second.isString()) {
      column.text = TextOf(found->second);
    } else {
      room = Joined(found->second);
      column.text = room;
    }
  }
  return column;
}

}  // namespace search
