// XML, pushed through in pieces, with the parts of the language that attack their reader switched off.
#pragma once

#include <libxml/parser.h>

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "services/extractor/formats/libxml.h"

namespace extractor {

/// What a document asks of the parser. Names come without their prefix.
class XmlHandler {
 public:
  /// The attributes of one element.
  class Attributes {
   public:
    Attributes(const xmlChar** values, int count) : values_(values), count_(count) {}
    /// The value as written; "" when missing.
    std::string Get(std::string_view local_name) const;

   private:
    const xmlChar** values_;
    int count_;
  };

  virtual ~XmlHandler() = default;
  virtual void Start(std::string_view name, const Attributes& attributes) = 0;
  virtual void End(std::string_view name) = 0;
  virtual void Characters(std::string_view text) = 0;
};

/// Feeds a handler. Nothing outside the document is loaded; entities that the document declares stand for their text
/// only, and one that is made of other entities is refused, which leaves no way to grow. Elements nest at most 256
/// deep, a bound of libxml2.
///
/// Exceptions of the handler pass through Feed and Finish.
class XmlParser {
 public:
  /// `handler` must outlive the parser.
  explicit XmlParser(XmlHandler& handler);
  ~XmlParser();
  XmlParser(const XmlParser&) = delete;
  XmlParser& operator=(const XmlParser&) = delete;

  /// Throws BrokenContent when the document is not well-formed.
  void Feed(std::string_view bytes);
  void Finish();

 private:
  friend struct XmlCallbacks;
  struct Entity {
    std::string name;
    std::string content;
    xmlEntity record{};
  };

  template <typename Call>
  void Guard(Call call) {
    failure_.Guard(context_, call);
  }
  xmlEntityPtr FindEntity(std::string_view name);
  xmlEntityPtr AddEntity(std::string_view name, std::string content);
  void DeclareEntity(std::string_view name, std::string_view content);
  void Check();

  XmlHandler& handler_;
  xmlParserCtxtPtr context_ = nullptr;
  std::deque<Entity> entities_;
  std::map<std::string, xmlEntityPtr, std::less<>> by_name_;
  PassedException failure_;
};

}  // namespace extractor
