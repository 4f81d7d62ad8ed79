// XML of any kind: its character data is its text.
#include "services/extractor/formats/reading.h"
#include "services/extractor/formats/xml_parser.h"

namespace extractor {
namespace {

// A title further down is one of a chapter or an item.
constexpr int kTitleDepth = 4;

class PlainXml : public XmlHandler {
 public:
  explicit PlainXml(Reading& reading) : reading_(reading) {}

  void Start(std::string_view name, const Attributes&) override {
    ++depth_;
    reading_.text.Space();
    in_title_ = name == "title" && depth_ <= kTitleDepth && title_.empty();
  }
  void End(std::string_view) override {
    --depth_;
    reading_.text.Space();
    if (in_title_) {
      reading_.fields.TextIfMissing(names::kMDTitle, title_);
      in_title_ = false;
    }
  }
  void Characters(std::string_view text) override {
    reading_.text.AppendFlowing(text);
    if (in_title_) {
      title_ += text.substr(0, 4096);
    }
  }

 private:
  Reading& reading_;
  int depth_ = 0;
  bool in_title_ = false;
  std::string title_;
};

bool IsPage(std::string_view head) {
  return head.find("<html") != std::string_view::npos;
}

}  // namespace

void ReadXml(Reading& reading) {
  Chunks chunks(reading.input);
  if (IsPage(chunks.chunk().substr(0, 2048))) {
    ReadHtml(reading);
    return;
  }
  PlainXml handler(reading);
  XmlParser parser(handler);
  for (; !chunks.chunk().empty() && !reading.text.full(); chunks.Next()) {
    parser.Feed(chunks.chunk());
  }
  if (!reading.text.full()) {
    parser.Finish();
  }
}

}  // namespace extractor
