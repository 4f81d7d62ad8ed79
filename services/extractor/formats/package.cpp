// The common ground of zipped XML documents.
#include "services/extractor/formats/package.h"

#include "services/extractor/formats/archive_source.h"
#include "services/extractor/formats/limits.h"

namespace extractor {

void ReadPackage(const Input& input, const std::function<EntryTaker(const std::string& path)>& choose,
                 const std::function<void()>& finish) {
  ArchiveSource source(input, ArchiveSource::Kind::kZip);
  while (const std::optional<std::string> path = source.Next()) {
    if (const EntryTaker taker = choose(*path)) {
      source.Read(taker);
      finish();
    }
  }
}

void ReadXmlPackage(Reading& reading, const std::function<XmlEntry(const std::string& path)>& choose) {
  XmlEntry entry;
  std::unique_ptr<XmlParser> parser;
  const auto is_enough = [&] { return entry.carries_text && reading.text.full(); };
  const auto take = [&](std::string_view bytes) {
    parser->Feed(bytes);
    return !is_enough();
  };
  ReadPackage(
      reading.input,
      [&](const std::string& path) -> EntryTaker {
        entry = choose(path);
        if (!entry.handler) {
          return nullptr;
        }
        if (is_enough()) {
          reading.text.MarkCut();
          return nullptr;
        }
        parser = std::make_unique<XmlParser>(*entry.handler);
        return take;
      },
      [&] {
        if (!is_enough()) {
          parser->Finish();
        }
        parser.reset();
        if (entry.carries_text) {
          reading.text.Break();
        }
      });
}

void LeafReader::Start(std::string_view name, const Attributes& attributes) {
  value_.clear();
  OnAttributes(name, attributes);
}

void LeafReader::End(std::string_view name) {
  leaf_(name, value_);
  value_.clear();
}

void LeafReader::Characters(std::string_view text) {
  if (value_.size() < kMaxFieldBytes) {
    value_ += text;
  }
}

bool WriteDublinCore(Fields& fields, std::string_view name, const std::string& value) {
  static const std::map<std::string_view, const char*> kOnce = {
      {"title", names::kMDTitle},           {"subject", names::kMDSubject},      {"description", names::kMDDescription},
      {"identifier", names::kMDIdentifier}, {"publisher", names::kMDPublishers}, {"rights", names::kMDRights},
      {"coverage", names::kMDCoverage},     {"language", names::kMDLanguages}};
  static const std::map<std::string_view, const char*> kLists = {{"creator", names::kMDAuthors},
                                                                 {"contributor", names::kMDContributors}};
  if (const auto once = kOnce.find(name); once != kOnce.end()) {
    fields.TextIfMissing(once->second, value);
    return true;
  }
  if (const auto list = kLists.find(name); list != kLists.end()) {
    fields.AddLine(list->second, value);
    return true;
  }
  return false;
}

bool IsEntry(std::string_view path, std::string_view folder, std::string_view stem, std::string_view suffix) {
  return path.starts_with(folder) && path.ends_with(suffix) && path.substr(folder.size()).starts_with(stem) &&
         path.find('/', folder.size()) == std::string_view::npos;
}

}  // namespace extractor
