// Word processing, spreadsheet and presentation files of the Office Open XML family.
#include "services/extractor/formats/package.h"

namespace extractor {
namespace {

/// Takes the text of some elements; whoever derives says which.
class TextElements : public XmlHandler {
 public:
  explicit TextElements(TextSink& text) : text_(text) {}
  void Characters(std::string_view text) override {
    if (in_text_) {
      text_.AppendFlowing(text);
    }
  }

 protected:
  TextSink& text_;
  bool in_text_ = false;
};

/// Paragraphs of runs: "t" holds the words, "p" ends a line. What was deleted under change tracking is not in "t".
class Paragraphs : public TextElements {
 public:
  using TextElements::TextElements;

  void Start(std::string_view name, const Attributes&) override {
    if (name == "t") {
      in_text_ = true;
    } else if (name == "tab" || name == "br" || name == "cr") {
      text_.Space();
    }
  }
  void End(std::string_view name) override {
    if (name == "t") {
      in_text_ = false;
    } else if (name == "p") {
      text_.Break();
    } else if (name == "tc") {
      text_.Space();
    }
  }
};

/// The strings that cells share, and comments: one line each; "rPh" is how a reading aid repeats a word.
class SharedStrings : public TextElements {
 public:
  using TextElements::TextElements;

  void Start(std::string_view name, const Attributes&) override {
    in_text_ = name == "t" && phonetic_ == 0;
    phonetic_ += name == "rPh" ? 1 : 0;
  }
  void End(std::string_view name) override {
    in_text_ = false;
    phonetic_ -= name == "rPh" ? 1 : 0;
    if (name == "si" || name == "comment") {
      text_.Break();
    }
  }

 private:
  int phonetic_ = 0;
};

/// Cells of a sheet. Those of type "s" are an index into the shared strings, "b" and "e" are no words.
class Sheet : public TextElements {
 public:
  using TextElements::TextElements;

  void Start(std::string_view name, const Attributes& attributes) override {
    if (name == "c") {
      const std::string type = attributes.Get("t");
      has_value_ = type != "s" && type != "b" && type != "e";
    }
    in_text_ = (name == "v" && has_value_) || name == "t";
  }
  void End(std::string_view name) override {
    in_text_ = false;
    if (name == "c") {
      text_.Space();
    } else if (name == "row") {
      text_.Break();
    }
  }

 private:
  bool has_value_ = false;
};

/// The names of the sheets.
class Workbook : public XmlHandler {
 public:
  explicit Workbook(TextSink& text) : text_(text) {}
  void Start(std::string_view name, const Attributes& attributes) override {
    if (name == "sheet") {
      text_.Line(attributes.Get("name"));
    }
  }
  void End(std::string_view) override {}
  void Characters(std::string_view) override {}

 private:
  TextSink& text_;
};

void WriteCoreProperty(Fields& fields, std::string_view name, const std::string& value) {
  if (WriteDublinCore(fields, name, value)) {
    return;
  }
  if (name == "keywords") {
    fields.Text(names::kMDKeywords, value);
  } else if (name == "category") {
    fields.Text(names::kMDCategory, value);
  } else if (name == "lastModifiedBy") {
    fields.AddLine(names::kMDContributors, value);
  } else if (name == "created") {
    fields.Date(names::kMDContentCreationDate, value);
  } else if (name == "modified") {
    fields.Date(names::kMDContentModificationDate, value);
  } else if (name == "version") {
    fields.Text(names::kMDVersion, value);
  }
}

void WriteAppProperty(Fields& fields, std::string_view name, const std::string& value) {
  if (name == "Pages" || name == "Slides") {
    fields.IntegerText(names::kMDNumberOfPages, value);
    fields.IntegerText(names::kMDPageCount, value);
  } else if (name == "Words") {
    fields.IntegerText(names::kMDWordCount, value);
  } else if (name == "Application") {
    fields.Text(names::kMDEncodingApplications, value);
  } else if (name == "Company") {
    fields.Text(names::kMDOrganizations, value);
  } else if (name == "Manager") {
    fields.Text(names::kMDManager, value);
  } else if (name == "Template") {
    fields.Text(names::kMDTemplate, value);
  }
}

bool IsWordText(std::string_view path) {
  for (const std::string_view stem : {"document", "header", "footer", "footnotes", "endnotes", "comments"}) {
    if (IsEntry(path, "word/", stem, ".xml")) {
      return true;
    }
  }
  return false;
}

XmlEntry Choose(Reading& reading, const std::string& path) {
  Fields& fields = reading.fields;
  if (path == "docProps/core.xml") {
    return {std::make_unique<LeafReader>(
                [&fields](std::string_view name, const std::string& value) { WriteCoreProperty(fields, name, value); }),
            false};
  }
  if (path == "docProps/app.xml") {
    return {std::make_unique<LeafReader>(
                [&fields](std::string_view name, const std::string& value) { WriteAppProperty(fields, name, value); }),
            false};
  }
  if (IsWordText(path) || IsEntry(path, "ppt/slides/", "slide", ".xml") ||
      IsEntry(path, "ppt/notesSlides/", "notesSlide", ".xml")) {
    return {std::make_unique<Paragraphs>(reading.text)};
  }
  if (path == "xl/sharedStrings.xml" || IsEntry(path, "xl/", "comments", ".xml")) {
    return {std::make_unique<SharedStrings>(reading.text)};
  }
  if (IsEntry(path, "xl/worksheets/", "sheet", ".xml")) {
    return {std::make_unique<Sheet>(reading.text)};
  }
  if (path == "xl/workbook.xml") {
    return {std::make_unique<Workbook>(reading.text)};
  }
  return {};
}

}  // namespace

void ReadOfficeOpenXml(Reading& reading) {
  ReadXmlPackage(reading, [&](const std::string& path) { return Choose(reading, path); });
}

}  // namespace extractor
