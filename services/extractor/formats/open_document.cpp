// Text documents, spreadsheets, presentations and drawings of the OpenDocument family.
#include "services/extractor/formats/package.h"

namespace extractor {
namespace {

/// The body of content.xml.
class Body : public XmlHandler {
 public:
  explicit Body(TextSink& text) : text_(text) {}

  void Start(std::string_view name, const Attributes& attributes) override {
    ++depth_;
    if (name == "body" && body_depth_ == 0) {
      body_depth_ = depth_;
    } else if (hidden_depth_ == 0 && (name == "tracked-changes" || name == "forms" || name == "scripts")) {
      hidden_depth_ = depth_;
    } else if (name == "tab" || name == "s" || name == "line-break") {
      text_.Space();
    } else if (name == "table" && Shows()) {
      text_.Line(attributes.Get("name"));
    }
  }
  void End(std::string_view name) override {
    if (depth_ == body_depth_) {
      body_depth_ = 0;
    }
    if (depth_ == hidden_depth_) {
      hidden_depth_ = 0;
    }
    --depth_;
    if (name == "p" || name == "h") {
      text_.Break();
    }
  }
  void Characters(std::string_view text) override {
    if (Shows()) {
      text_.AppendFlowing(text);
    }
  }

 private:
  bool Shows() const { return body_depth_ > 0 && hidden_depth_ == 0; }

  TextSink& text_;
  int depth_ = 0;
  int body_depth_ = 0;
  int hidden_depth_ = 0;
};

/// meta.xml: Dublin Core, own elements, and counts in attributes.
class Meta : public LeafReader {
 public:
  explicit Meta(Fields& fields)
      : LeafReader([&fields](std::string_view name, const std::string& value) { Write(fields, name, value); }),
        fields_(fields) {}

 private:
  void OnAttributes(std::string_view name, const Attributes& attributes) override {
    if (name == "document-statistic") {
      fields_.IntegerText(names::kMDNumberOfPages, attributes.Get("page-count"));
      fields_.IntegerText(names::kMDPageCount, attributes.Get("page-count"));
      fields_.IntegerText(names::kMDWordCount, attributes.Get("word-count"));
    }
  }

  static void Write(Fields& fields, std::string_view name, const std::string& value) {
    if (name == "initial-creator") {
      fields.AddLine(names::kMDAuthors, value);
    } else if (name == "creator") {
      fields.AddLine(names::kMDContributors, value);  // in this family, who changed it last
    } else if (name == "keyword") {
      fields.AddLine(names::kMDKeywords, value);
    } else if (name == "creation-date") {
      fields.Date(names::kMDContentCreationDate, value);
    } else if (name == "date") {
      fields.Date(names::kMDContentModificationDate, value);
    } else if (name == "generator") {
      fields.Text(names::kMDEncodingApplications, value);
    } else {
      WriteDublinCore(fields, name, value);
    }
  }

  Fields& fields_;
};

/// Says in its manifest whether the entries are encrypted.
class Manifest : public XmlHandler {
 public:
  explicit Manifest(bool& is_encrypted) : is_encrypted_(is_encrypted) {}
  void Start(std::string_view name, const Attributes&) override {
    is_encrypted_ = is_encrypted_ || name == "encryption-data";
  }
  void End(std::string_view) override {}
  void Characters(std::string_view) override {}

 private:
  bool& is_encrypted_;
};

bool IsEncrypted(Reading& reading) {
  bool is_encrypted = false;
  ReadXmlPackage(reading, [&](const std::string& path) -> XmlEntry {
    if (path != "META-INF/manifest.xml") {
      return {};
    }
    return {std::make_unique<Manifest>(is_encrypted), false};
  });
  return is_encrypted;
}

}  // namespace

void ReadOpenDocument(Reading& reading) {
  if (IsEncrypted(reading)) {
    reading.fields.Text(names::kMDSecurityMethod, "Password Encrypted");
    return;
  }
  ReadXmlPackage(reading, [&](const std::string& path) -> XmlEntry {
    if (path == "content.xml") {
      return {std::make_unique<Body>(reading.text)};
    }
    if (path == "meta.xml") {
      return {std::make_unique<Meta>(reading.fields), false};
    }
    return {};
  });
}

}  // namespace extractor
