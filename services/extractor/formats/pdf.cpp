// PDF by Poppler: the words of its pages and what it says of itself.
#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>

#include "services/extractor/formats/limits.h"
#include "services/extractor/formats/pdf_colours.h"
#include "services/extractor/formats/pdf_maps.h"
#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

// Poppler looks for its folders when the first document is opened and forgets the answer with the last one.
constexpr std::string_view kSmallestDocument =
    "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj 2 0 obj<</Type/Pages/Count 0/Kids[]>>endobj\n"
    "trailer<</Root 1 0 R/Size 3>>\n";

std::unique_ptr<poppler::document> Open(std::string_view bytes) {
  return std::unique_ptr<poppler::document>(
      poppler::document::load_from_raw_data(bytes.data(), static_cast<int>(bytes.size())));
}

std::string Utf8Of(const poppler::ustring& text) {
  const poppler::byte_array bytes = text.to_utf8();
  return {bytes.begin(), bytes.end()};
}

void WriteInfo(const poppler::document& document, Fields& fields) {
  fields.Text(names::kMDTitle, Utf8Of(document.get_title()));
  fields.Text(names::kMDAuthors, Utf8Of(document.get_author()));
  fields.Text(names::kMDSubject, Utf8Of(document.get_subject()));
  fields.Text(names::kMDKeywords, Utf8Of(document.get_keywords()));
  fields.Text(names::kMDCreator, Utf8Of(document.get_creator()));
  fields.Text(names::kMDEncodingApplications, Utf8Of(document.get_producer()));
  for (const auto& [name, key] : {std::pair{names::kMDContentCreationDate, "CreationDate"},
                                  std::pair{names::kMDContentModificationDate, "ModDate"}}) {
    const time_t date = poppler::convert_date_t(Utf8Of(document.info_key(key)));
    if (date != static_cast<time_t>(-1)) {
      fields.Integer(name, date);
    }
  }
  int major = 0;
  int minor = 0;
  document.get_pdf_version(&major, &minor);
  fields.Text(names::kMDVersion, std::to_string(major) + "." + std::to_string(minor));
}

void WritePages(const poppler::document& document, Reading& reading) {
  const int pages = document.pages();
  reading.fields.Integer(names::kMDNumberOfPages, pages);
  reading.fields.Integer(names::kMDPageCount, pages);
  for (int i = 0; i < pages && !reading.text.full(); ++i) {
    if (i >= kMaxPdfPages) {
      reading.text.MarkCut();
      return;
    }
    const std::unique_ptr<poppler::page> page(document.create_page(i));
    if (!page) {
      continue;  // one broken page does not hide the others
    }
    if (i == 0) {
      const poppler::rectf box = page->page_rect();
      reading.fields.Fraction(names::kMDPageWidth, box.width());
      reading.fields.Fraction(names::kMDPageHeight, box.height());
    }
    std::string words = Utf8Of(page->text(poppler::rectf(), poppler::page::raw_order_layout));
    words.erase(words.find_last_not_of(" \n\f") + 1);
    reading.text.Append(words);
    reading.text.Break();
  }
}

}  // namespace

void PreparePdf() {
  PreparePdfMaps();
  PreparePdfColours();
  poppler::set_data_dir(kPdfMapFolder);
  poppler::set_debug_error_function([](const std::string&, void*) {}, nullptr);
  static const std::unique_ptr<poppler::document> keeper = Open(kSmallestDocument);
}

void ReadPdf(Reading& reading) {
  const Mapping mapping(reading.input, std::min<std::uint64_t>(kMaxMappedBytes, INT_MAX));
  const std::unique_ptr<poppler::document> document = Open(mapping.bytes());
  if (!document) {
    throw BrokenContent("broken PDF");
  }
  if (document->is_locked()) {
    reading.fields.Text(names::kMDSecurityMethod, "Password Encrypted");
    return;
  }
  WriteInfo(*document, reading.fields);
  if (document->is_encrypted()) {
    reading.fields.Text(names::kMDSecurityMethod, "Password Encrypted");
  }
  if (document->pages() <= 0) {
    throw BrokenContent("broken PDF: it has no pages");
  }
  WritePages(*document, reading);
}

}  // namespace extractor
