// Web pages by libxml2's HTML parser.
#include <algorithm>
#include <climits>
#include <new>
#include <utility>

#include "services/extractor/formats/charset.h"
#include "services/extractor/formats/html_parser.h"
#include "services/extractor/formats/limits.h"
#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

constexpr std::size_t kChunkBytes = std::size_t{64} << 10;
constexpr std::size_t kDeclarationBytes = 4096;

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

std::string_view Attribute(const xmlChar** attributes, std::string_view name) {
  for (; attributes != nullptr && attributes[0] != nullptr; attributes += 2) {
    if (View(attributes[0]) == name) {
      return View(attributes[1]);
    }
  }
  return {};
}

template <std::size_t N>
bool IsOneOf(std::string_view name, const std::string_view (&sorted)[N]) {
  return std::binary_search(std::begin(sorted), std::end(sorted), name);
}

bool IsHidden(std::string_view name) {
  static constexpr std::string_view kNames[] = {"noscript", "script", "style", "template"};
  return IsOneOf(name, kNames);
}

bool IsBlock(std::string_view name) {
  static constexpr std::string_view kNames[] = {
      "address", "article", "aside",   "blockquote", "body",   "br",     "caption", "center", "dd", "details",
      "div",     "dl",      "dt",      "fieldset",   "figure", "footer", "form",    "h1",     "h2", "h3",
      "h4",      "h5",      "h6",      "header",     "hr",     "li",     "main",    "nav",    "ol", "option",
      "p",       "pre",     "section", "summary",    "table",  "tbody",  "tfoot",   "thead",  "tr", "ul"};
  return IsOneOf(name, kNames);
}

HtmlTag TagOf(std::string_view name) {
  static constexpr std::pair<std::string_view, HtmlTag> kOthers[] = {
      {"title", HtmlTag::kTitle}, {"meta", HtmlTag::kMeta}, {"img", HtmlTag::kImage},
      {"td", HtmlTag::kCell},     {"th", HtmlTag::kCell},   {"html", HtmlTag::kPage}};
  if (IsHidden(name)) {
    return HtmlTag::kHidden;
  }
  for (const auto& [other, tag] : kOthers) {
    if (name == other) {
      return tag;
    }
  }
  return IsBlock(name) ? HtmlTag::kBlock : HtmlTag::kOther;
}

/// The name in <meta charset=…>, in <meta … content="…; charset=…"> or in an XML declaration, in lower case; "" if
/// none.
std::string DeclaredCharset(std::string_view head) {
  const std::string lower = Lower(head);
  for (const std::string_view key : {"charset=", "encoding="}) {
    const std::size_t at = lower.find(key);
    const std::size_t begin = at == std::string::npos ? at : lower.find_first_not_of("\"' ", at + key.size());
    if (begin != std::string::npos) {
      return lower.substr(begin, std::min(lower.find_first_of("\"' />;?\r\n", begin), lower.size()) - begin);
    }
  }
  return {};
}

}  // namespace

/// What libxml2 calls.
struct HtmlCallbacks {
  static HtmlParser& Of(void* self) { return *static_cast<HtmlParser*>(self); }
  static void Start(void* self, const xmlChar* name, const xmlChar** attributes) {
    Of(self).Guard([&] { Of(self).Start(Of(self).Tag(name), attributes); });
  }
  static void End(void* self, const xmlChar* name) {
    Of(self).Guard([&] { Of(self).End(Of(self).Tag(name)); });
  }
  static void Characters(void* self, const xmlChar* text, int length) {
    Of(self).Guard([&] {
      Of(self).Characters({reinterpret_cast<const char*>(text), static_cast<std::size_t>(length)});
    });
  }
};

HtmlParser::HtmlParser(TextSink& text, Fields* fields) : text_(text), fields_(fields) {
  xmlSAXHandler sax{};
  sax.initialized = XML_SAX2_MAGIC;
  sax.startElement = HtmlCallbacks::Start;
  sax.endElement = HtmlCallbacks::End;
  sax.characters = HtmlCallbacks::Characters;
  sax.cdataBlock = HtmlCallbacks::Characters;
  sax.ignorableWhitespace = HtmlCallbacks::Characters;
  sax.serror = [](void*, xmlErrorPtr) {};
  context_ = htmlCreatePushParserCtxt(&sax, this, nullptr, 0, nullptr, XML_CHAR_ENCODING_UTF8);
  if (context_ == nullptr) {
    throw std::bad_alloc();
  }
  // What the page declares was heard before it was turned into UTF-8.
  htmlCtxtUseOptions(context_, HTML_PARSE_NONET | HTML_PARSE_IGNORE_ENC | HTML_PARSE_RECOVER);
}

HtmlParser::~HtmlParser() {
  if (context_->myDoc != nullptr) {
    xmlFreeDoc(context_->myDoc);
  }
  htmlFreeParserCtxt(context_);
}

void HtmlParser::Feed(std::string_view utf8) {
  while (!utf8.empty() && !text_.full()) {
    const std::size_t count = std::min<std::size_t>(utf8.size(), kChunkBytes);
    htmlParseChunk(context_, utf8.data(), static_cast<int>(count), 0);
    failure_.Rethrow();
    utf8.remove_prefix(count);
  }
}

void HtmlParser::Finish() {
  htmlParseChunk(context_, nullptr, 0, 1);
  failure_.Rethrow();
}

// libxml2 keeps one copy of each name, so that the pointer tells the name.
HtmlTag HtmlParser::Tag(const xmlChar* name) {
  const auto [found, is_new] = tags_.try_emplace(name);
  if (is_new) {
    found->second = TagOf(View(name));
  }
  return found->second;
}

void HtmlParser::Start(HtmlTag tag, const xmlChar** attributes) {
  if (context_->nameNr > kMaxHtmlDepth) {
    throw BrokenContent("elements nested deeper than " + std::to_string(kMaxHtmlDepth));
  }
  switch (tag) {
    case HtmlTag::kHidden:
      ++hidden_;
      break;
    case HtmlTag::kTitle:
      in_title_ = title_.empty();
      break;
    case HtmlTag::kMeta:
      Meta(attributes);
      break;
    case HtmlTag::kImage:
      if (hidden_ == 0) {
        text_.Space();
        text_.AppendFlowing(Attribute(attributes, "alt"));
        text_.Space();
      }
      break;
    case HtmlTag::kBlock:
      text_.Break();
      break;
    case HtmlTag::kCell:
      text_.Space();
      break;
    case HtmlTag::kPage:
      if (fields_ != nullptr) {
        fields_->TextIfMissing(names::kMDLanguages, Attribute(attributes, "lang"));
      }
      break;
    case HtmlTag::kOther:
      break;
  }
}

void HtmlParser::End(HtmlTag tag) {
  if (tag == HtmlTag::kHidden) {
    --hidden_;
  } else if (tag == HtmlTag::kTitle) {
    in_title_ = false;
    if (fields_ != nullptr) {
      fields_->TextIfMissing(names::kMDTitle, title_);
    }
  } else if (tag == HtmlTag::kBlock) {
    text_.Break();
  } else if (tag == HtmlTag::kCell) {
    text_.Space();
  }
}

void HtmlParser::Characters(std::string_view text) {
  if (hidden_ > 0) {
    return;
  }
  if (!in_title_) {
    text_.AppendFlowing(text);
  } else if (title_.size() < kMaxFieldBytes) {
    title_ += text;
  }
}

void HtmlParser::Meta(const xmlChar** attributes) {
  if (fields_ == nullptr) {
    return;
  }
  const std::string name = Lower(Attribute(attributes, "name"));
  const std::string_view content = Attribute(attributes, "content");
  if (name == "author") {
    fields_->AddLine(names::kMDAuthors, content);
  } else if (name == "description") {
    fields_->TextIfMissing(names::kMDDescription, content);
  } else if (name == "keywords") {
    fields_->TextIfMissing(names::kMDKeywords, content);
  } else if (name == "generator") {
    fields_->TextIfMissing(names::kMDEncodingApplications, content);
  } else if (name == "copyright") {
    fields_->TextIfMissing(names::kMDCopyright, content);
  }
}

std::string DetectHtmlCharset(std::string_view head, bool whole) {
  const std::string declared = DeclaredCharset(head.substr(0, kDeclarationBytes));
  const bool is_ascii = std::all_of(head.begin(), head.end(), [](char c) { return c > '\0' && c < 0x7F; });
  if (declared.empty() || (!is_ascii && IsUtf8(head, whole))) {
    return DetectCharset(head, whole);
  }
  // A page that can be read to its declaration is not in UTF-16, whatever it says.
  if (declared.starts_with("utf")) {
    return "UTF-8";
  }
  // Browsers read latin-1 as its superset.
  return declared == "iso-8859-1" || declared == "us-ascii" ? "WINDOWS-1252" : declared;
}

void ReadHtmlText(std::string_view utf8, TextSink& text, Fields* fields) {
  HtmlParser parser(text, fields);
  parser.Feed(utf8);
  if (!text.full()) {
    parser.Finish();
  }
}

void ReadHtml(Reading& reading) {
  Chunks chunks(reading.input);
  Decoder decoder(DetectHtmlCharset(chunks.chunk(), chunks.last()));
  HtmlParser parser(reading.text, &reading.fields);
  for (; !chunks.chunk().empty() && !reading.text.full(); chunks.Next()) {
    parser.Feed(decoder.Decode(chunks.chunk(), chunks.last()));
  }
  if (!reading.text.full()) {
    parser.Finish();
  }
}

}  // namespace extractor
