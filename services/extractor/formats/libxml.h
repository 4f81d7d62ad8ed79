// What the parsers of libxml2 have in common, whatever they read.
#pragma once

#include <libxml/parser.h>

#include <exception>
#include <string_view>

namespace extractor {

/// A text of libxml2; empty for none.
inline std::string_view View(const xmlChar* text) {
  return text != nullptr ? std::string_view(reinterpret_cast<const char*>(text)) : std::string_view();
}

/// Carries an exception past the C frames that lie between what a parser calls and who feeds it.
class PassedException {
 public:
  /// Makes a call that the parser asked for. If it throws, the parser is stopped, and no call is made any more.
  template <typename Call>
  void Guard(xmlParserCtxtPtr context, Call call) {
    if (exception_) {
      return;
    }
    try {
      call();
    } catch (...) {
      exception_ = std::current_exception();
      xmlStopParser(context);
    }
  }

  /// Throws what a call has thrown; for when the parser has returned.
  void Rethrow() const {
    if (exception_) {
      std::rethrow_exception(exception_);
    }
  }

 private:
  std::exception_ptr exception_;
};

}  // namespace extractor
