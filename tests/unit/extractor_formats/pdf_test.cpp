// PDF: text, properties, and documents made to trap their reader.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "tests/unit/extractor_formats/extraction.h"

namespace orbisk::test {
namespace {

/// A document of numbered objects, the first of which is the catalogue; its table of offsets is right.
std::string MakePdf(const std::vector<std::string>& objects) {
  std::string pdf = "%PDF-1.4\n";
  std::string table;
  for (std::size_t i = 0; i < objects.size(); ++i) {
    char line[32];
    snprintf(line, sizeof(line), "%010zu 00000 n \n", pdf.size());
    table += line;
    pdf += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  const std::size_t start = pdf.size();
  const std::string count = std::to_string(objects.size() + 1);
  pdf += "xref\n0 " + count + "\n0000000000 65535 f \n" + table;
  return pdf + "trailer\n<< /Size " + count + " /Root 1 0 R >>\nstartxref\n" + std::to_string(start) + "\n%%EOF\n";
}

std::string Stream(const std::string& content) {
  return "<< /Length " + std::to_string(content.size()) + " >>\nstream\n" + content + "\nendstream";
}

constexpr char kFont[] = "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>";

TEST(Pdf, GivesTheTextOfItsPagesAndItsProperties) {
  const Extraction extraction = Extract(Sample("paper.pdf"));

  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(extraction.Text(), "The grey heron came to the weir at dawn.\nSecond page: reeds.");
  EXPECT_EQ(extraction["NIMOMDTitle"], "The Heron Report");
  EXPECT_EQ(extraction["NIMOMDAuthors"], "Ada Quill");
  EXPECT_EQ(extraction.document["NIMOMDNumberOfPages"].asInt(), 2);
  EXPECT_EQ(extraction["NIMOMDContentType"], "application/pdf");
}

// An sRGB profile as the colour library writes it.
std::string ColourProfile(void* profile) {
  const auto save = reinterpret_cast<int (*)(void*, void*, unsigned*)>(dlsym(RTLD_DEFAULT, "cmsSaveProfileToMem"));
  unsigned size = 0;
  save(profile, nullptr, &size);
  std::string bytes(size, '\0');
  save(profile, bytes.data(), &size);
  return bytes;
}

TEST(Pdf, InColoursOfAProfileIsReadWithoutComputingThem) {
  const auto make = reinterpret_cast<void* (*)()>(dlsym(RTLD_DEFAULT, "cmsCreate_sRGBProfile"));
  const auto transform = reinterpret_cast<void* (*)(void*, unsigned, void*, unsigned, unsigned, unsigned)>(
      dlsym(RTLD_DEFAULT, "cmsCreateTransform"));
  constexpr unsigned kRgb8 = (4U << 16) | (3U << 3) | 1U;
  void* const profile = make();
  const std::string bytes = ColourProfile(profile);
  const std::string pdf = MakePdf(
      {"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
       "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 300 300] /Contents 4 0 R /Resources << /Font << /F1 5 0 R >> "
       "/ColorSpace << /C1 [/ICCBased 6 0 R] >> >> >>",
       Stream("/C1 cs 1 0 0 scn BT /F1 12 Tf 20 200 Td (The grey heron) Tj ET"), kFont,
       "<< /N 3 /Alternate /DeviceRGB /Length " + std::to_string(bytes.size()) + " >>\nstream\n" + bytes +
           "\nendstream"});

  const Extraction extraction = Extract(pdf);

  EXPECT_EQ(extraction.Text(), "The grey heron");
  EXPECT_EQ(extraction.error, "");
  EXPECT_EQ(transform(profile, kRgb8, profile, kRgb8, 0, 0), nullptr);
  reinterpret_cast<int (*)(void*)>(dlsym(RTLD_DEFAULT, "cmsCloseProfile"))(profile);
}

TEST(Pdf, WhosePageTreeIsALoopComesToAnEnd) {
  const std::string pdf =
      MakePdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Count 1000000 /Kids [ 3 0 R 2 0 R ] >>",
               "<< /Type /Pages /Parent 2 0 R /Count 1000000 /Kids [ 2 0 R 3 0 R ] >>"});

  const Extraction extraction = Extract(pdf, "loop.pdf");

  EXPECT_EQ(extraction.Text(), "");
}

TEST(Pdf, WhoseFormsCallEachOtherComesToAnEnd) {
  const std::string form = "<< /Type /XObject /Subtype /Form /BBox [0 0 9 9] /Resources << /XObject << /A 5 0 R >> >> ";
  const std::string pdf = MakePdf(
      {"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Count 1 /Kids [ 3 0 R ] >>",
       "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Contents 4 0 R /Resources << /Font << /F 6 0 R >> "
       "/XObject << /A 5 0 R >> >> >>",
       Stream("BT /F 12 Tf 10 10 Td (heron) Tj ET /A Do"), form + "/Length 11 >>\nstream\n/A Do /A Do\nendstream",
       kFont});

  const Extraction extraction = Extract(pdf, "loop.pdf");

  EXPECT_EQ(extraction.Text(), "heron");
}

TEST(Pdf, OfMorePagesThanAreReadIsCutAtTheTextBound) {
  std::string kids;
  std::vector<std::string> objects = {"<< /Type /Catalog /Pages 2 0 R >>", "",
                                      Stream("BT /F 12 Tf 10 10 Td (heron) Tj ET"), kFont};
  for (int i = 0; i < 300; ++i) {
    objects.emplace_back(
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 200] /Contents 3 0 R /Resources << /Font << /F 4 0 R >> >> "
        ">>");
    kids += std::to_string(objects.size()) + " 0 R ";
  }
  objects[1] = "<< /Type /Pages /Count 300 /Kids [ " + kids + "] >>";

  const Extraction extraction = Extract(MakePdf(objects), "a.pdf", 100);

  EXPECT_TRUE(extraction.result.cut);
  EXPECT_TRUE(extraction.Text().starts_with("heron\nheron\n")) << extraction.Text();
}

TEST(Pdf, WithoutPagesFailsWithAReason) {
  const Extraction extraction =
      Extract(MakePdf({"<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Count 0 /Kids [] >>"}), "a.pdf");

  EXPECT_NE(extraction.error.find("no pages"), std::string::npos) << extraction.error;
}

TEST(Pdf, ThatIsOnlyAHeaderFailsWithAReason) {
  EXPECT_NE(Extract("%PDF-1.7\n", "a.pdf").error, "");
}

}  // namespace
}  // namespace orbisk::test
