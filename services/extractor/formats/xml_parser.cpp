// libxml2's push parser with our own answers to entities.
#include "services/extractor/formats/xml_parser.h"

#include <libxml/HTMLparser.h>
#include <libxml/parserInternals.h>

#include <algorithm>
#include <climits>
#include <new>

#include "services/extractor/formats/limits.h"
#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

std::string Utf8Of(unsigned int character) {
  xmlChar bytes[8];
  const int count = xmlCopyCharMultiByte(bytes, static_cast<int>(character));
  return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(count)};
}

/// Pages in XML use the names of HTML without declaring them.
std::string HtmlEntityText(const std::string& name) {
  const htmlEntityDesc* known = htmlEntityLookup(reinterpret_cast<const xmlChar*>(name.c_str()));
  return known != nullptr ? Utf8Of(known->value) : " ";
}

}  // namespace

std::string XmlHandler::Attributes::Get(std::string_view local_name) const {
  // Five pointers an attribute: name, prefix, namespace, begin and end of the value.
  for (int i = 0; i < count_; ++i) {
    const xmlChar** attribute = values_ + std::ptrdiff_t{i} * 5;
    if (View(attribute[0]) == local_name) {
      return {reinterpret_cast<const char*>(attribute[3]), reinterpret_cast<const char*>(attribute[4])};
    }
  }
  return {};
}

/// What libxml2 calls; in a struct so that it may see the parser's inside.
struct XmlCallbacks {
  static XmlParser& Of(void* self) { return *static_cast<XmlParser*>(self); }

  static void Start(void* self, const xmlChar* name, const xmlChar*, const xmlChar*, int, const xmlChar**, int count,
                    int, const xmlChar** attributes) {
    Of(self).Guard([&] { Of(self).handler_.Start(View(name), XmlHandler::Attributes(attributes, count)); });
  }
  static void End(void* self, const xmlChar* name, const xmlChar*, const xmlChar*) {
    Of(self).Guard([&] { Of(self).handler_.End(View(name)); });
  }
  static void Characters(void* self, const xmlChar* text, int length) {
    Of(self).Guard([&] {
      Of(self).handler_.Characters({reinterpret_cast<const char*>(text), static_cast<std::size_t>(length)});
    });
  }
  static xmlEntityPtr GetEntity(void* self, const xmlChar* name) {
    xmlEntityPtr entity = nullptr;
    Of(self).Guard([&] { entity = Of(self).FindEntity(View(name)); });
    return entity;
  }
  static void DeclareEntity(void* self, const xmlChar* name, int type, const xmlChar*, const xmlChar*,
                            xmlChar* content) {
    Of(self).Guard([&] {
      if (type == XML_INTERNAL_GENERAL_ENTITY) {
        Of(self).DeclareEntity(View(name), View(content));
      }
    });
  }
  // The reason is taken from the context when the parser has returned.
  static void Silence(void*, const xmlError*) {}
};

XmlParser::XmlParser(XmlHandler& handler) : handler_(handler) {
  xmlSAXHandler sax{};
  sax.initialized = XML_SAX2_MAGIC;
  sax.startElementNs = XmlCallbacks::Start;
  sax.endElementNs = XmlCallbacks::End;
  sax.characters = XmlCallbacks::Characters;
  sax.cdataBlock = XmlCallbacks::Characters;
  sax.ignorableWhitespace = XmlCallbacks::Characters;
  sax.getEntity = XmlCallbacks::GetEntity;
  sax.entityDecl = XmlCallbacks::DeclareEntity;
  sax.serror = [](void* self, xmlErrorPtr error) { XmlCallbacks::Silence(self, error); };
  context_ = xmlCreatePushParserCtxt(&sax, this, nullptr, 0, nullptr);
  if (context_ == nullptr) {
    throw std::bad_alloc();
  }
  xmlCtxtUseOptions(context_, XML_PARSE_NONET);
}

XmlParser::~XmlParser() {
  // Without a tree of ours libxml2 still makes one to keep declarations in.
  if (context_->myDoc != nullptr) {
    xmlFreeDoc(context_->myDoc);
  }
  xmlFreeParserCtxt(context_);
}

void XmlParser::Feed(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t count = std::min<std::size_t>(bytes.size(), INT_MAX / 2);
    xmlParseChunk(context_, bytes.data(), static_cast<int>(count), 0);
    Check();
    bytes.remove_prefix(count);
  }
}

void XmlParser::Finish() {
  xmlParseChunk(context_, nullptr, 0, 1);
  Check();
}

void XmlParser::Check() {
  failure_.Rethrow();
  if (context_->wellFormed != 0) {
    return;
  }
  const xmlError* error = xmlCtxtGetLastError(context_);
  std::string reason = error != nullptr && error->message != nullptr ? error->message : "not well-formed";
  reason.erase(reason.find_last_not_of('\n') + 1);
  throw BrokenContent("broken XML: " + reason);
}

xmlEntityPtr XmlParser::FindEntity(std::string_view name) {
  const auto known = by_name_.find(name);
  return known != by_name_.end() ? known->second : AddEntity(name, HtmlEntityText(std::string(name)));
}

void XmlParser::DeclareEntity(std::string_view name, std::string_view content) {
  // Character references are resolved already, so an ampersand here begins another entity or, rarely, stands alone.
  if (content.find('&') != std::string_view::npos) {
    throw BrokenContent("an entity made of entities: " + std::string(name));
  }
  if (content.size() > kMaxXmlEntityBytes) {
    throw BrokenContent("an entity of " + std::to_string(content.size()) + " bytes");
  }
  if (!by_name_.contains(name)) {
    AddEntity(name, std::string(content));
  }
}

xmlEntityPtr XmlParser::AddEntity(std::string_view name, std::string content) {
  if (entities_.size() >= kMaxXmlEntities) {
    throw BrokenContent("more than " + std::to_string(kMaxXmlEntities) + " entities");
  }
  Entity& entity = entities_.emplace_back();
  entity.name = name;
  entity.content = std::move(content);
  // Declared as predefined, like &amp;, its content is handed on as characters and never parsed.
  entity.record.type = XML_ENTITY_DECL;
  entity.record.etype = XML_INTERNAL_PREDEFINED_ENTITY;
  entity.record.name = reinterpret_cast<const xmlChar*>(entity.name.c_str());
  entity.record.content = reinterpret_cast<xmlChar*>(entity.content.data());
  entity.record.orig = entity.record.content;
  entity.record.length = static_cast<int>(entity.content.size());
  by_name_.emplace(entity.name, &entity.record);
  return &entity.record;
}

}  // namespace extractor
