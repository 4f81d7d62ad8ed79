// Books: pages of HTML and one package file that describes them.
#include "services/extractor/formats/charset.h"
#include "services/extractor/formats/html_parser.h"
#include "services/extractor/formats/package.h"

namespace extractor {
namespace {

bool IsPage(std::string_view path) {
  return path.ends_with(".xhtml") || path.ends_with(".html") || path.ends_with(".htm");
}

void WriteProperty(Fields& fields, std::string_view name, const std::string& value) {
  // A book has one subject element for each keyword.
  if (name == "subject") {
    fields.AddLine(names::kMDKeywords, value);
  } else if (name == "date") {
    fields.Date(names::kMDContentCreationDate, value);
  } else {
    WriteDublinCore(fields, name, value);
  }
}

/// Decides at the first piece of a page which character set it is in.
class Page {
 public:
  explicit Page(TextSink& text) : parser_(text, nullptr) {}
  void Feed(std::string_view bytes) {
    if (!decoder_) {
      decoder_ = std::make_unique<Decoder>(DetectHtmlCharset(bytes, false));
    }
    parser_.Feed(decoder_->Decode(bytes, false));
  }
  void Finish() { parser_.Finish(); }

 private:
  HtmlParser parser_;
  std::unique_ptr<Decoder> decoder_;
};

void ReadPages(Reading& reading) {
  std::unique_ptr<Page> page;
  ReadPackage(
      reading.input,
      [&](const std::string& path) -> EntryTaker {
        if (!IsPage(path)) {
          return nullptr;
        }
        if (reading.text.full()) {
          reading.text.MarkCut();
          return nullptr;
        }
        page = std::make_unique<Page>(reading.text);
        return [&](std::string_view bytes) {
          page->Feed(bytes);
          return !reading.text.full();
        };
      },
      [&] {
        if (!reading.text.full()) {
          page->Finish();
        }
        page.reset();
        reading.text.Break();
      });
}

}  // namespace

void ReadEpub(Reading& reading) {
  ReadXmlPackage(reading, [&](const std::string& path) -> XmlEntry {
    if (!path.ends_with(".opf")) {
      return {};
    }
    Fields& fields = reading.fields;
    return {std::make_unique<LeafReader>(
                [&fields](std::string_view name, const std::string& value) { WriteProperty(fields, name, value); }),
            false};
  });
  ReadPages(reading);
}

}  // namespace extractor
