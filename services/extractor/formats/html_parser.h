// The words of a web page without its scripts.
#pragma once

#include <libxml/HTMLparser.h>

#include <string>
#include <string_view>
#include <unordered_map>

#include "services/extractor/formats/fields.h"
#include "services/extractor/formats/libxml.h"
#include "services/extractor/formats/text_sink.h"

namespace extractor {

/// The character set of a page that begins with `head`: as it says itself, else as found. `whole`: nothing follows.
std::string DetectHtmlCharset(std::string_view head, bool whole);

/// What an element means for the words of a page.
enum class HtmlTag { kOther, kHidden, kTitle, kMeta, kImage, kBlock, kCell, kPage };

/// Takes a page in pieces of UTF-8; any page has a reading, as browsers see it. Block elements end lines.
class HtmlParser {
 public:
  /// Title, authors, keywords and description go to `fields` unless it is null. Both must outlive the parser.
  HtmlParser(TextSink& text, Fields* fields);
  ~HtmlParser();
  HtmlParser(const HtmlParser&) = delete;
  HtmlParser& operator=(const HtmlParser&) = delete;

  /// Throws BrokenContent when elements nest deeper than any page's.
  void Feed(std::string_view utf8);
  void Finish();

 private:
  friend struct HtmlCallbacks;
  template <typename Call>
  void Guard(Call call) {
    failure_.Guard(context_, call);
  }
  HtmlTag Tag(const xmlChar* name);
  void Start(HtmlTag tag, const xmlChar** attributes);
  void End(HtmlTag tag);
  void Characters(std::string_view text);
  void Meta(const xmlChar** attributes);

  TextSink& text_;
  Fields* fields_;
  htmlParserCtxtPtr context_ = nullptr;
  std::unordered_map<const xmlChar*, HtmlTag> tags_;  // of the context's names
  std::string title_;
  int hidden_ = 0;  // open elements whose text nobody sees
  bool in_title_ = false;
  PassedException failure_;
};

/// A whole page in UTF-8.
void ReadHtmlText(std::string_view utf8, TextSink& text, Fields* fields);

}  // namespace extractor
