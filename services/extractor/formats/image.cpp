// Pictures by Exiv2: EXIF, IPTC and XMP, and their measures.
#include <exiv2/exiv2.hpp>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>

#include "services/extractor/formats/limits.h"
#include "services/extractor/formats/reading.h"

namespace extractor {
namespace {

/// A value as it is written, or in the words that Exiv2 prints for people.
enum class Form { kRaw, kPrinted };

std::string ExifText(const Exiv2::ExifData& exif, const char* key, Form form = Form::kRaw) {
  const auto found = exif.findKey(Exiv2::ExifKey(key));
  if (found == exif.end() || found->size() > static_cast<long>(kMaxFieldBytes)) {
    return {};
  }
  return form == Form::kPrinted ? found->print(&exif) : found->toString();
}

double ExifFraction(const Exiv2::ExifData& exif, const char* key) {
  const auto found = exif.findKey(Exiv2::ExifKey(key));
  if (found == exif.end() || found->count() < 1) {
    return NAN;
  }
  const Exiv2::Rational value = found->toRational(0);
  return value.second != 0 ? static_cast<double>(value.first) / value.second : NAN;
}

void WriteExifInteger(const Exiv2::ExifData& exif, const char* key, Fields& fields, const char* field) {
  const double value = ExifFraction(exif, key);
  if (std::isfinite(value)) {
    fields.Integer(field, static_cast<std::int64_t>(std::llround(value)));
  }
}

void WriteCamera(const Exiv2::ExifData& exif, Fields& fields) {
  static constexpr struct {
    const char* key;
    const char* field;
    Form form;
  } kTexts[] = {{"Exif.Image.Make", names::kMDAcquisitionMake, Form::kRaw},
                {"Exif.Image.Model", names::kMDAcquisitionModel, Form::kRaw},
                {"Exif.Image.Artist", names::kMDAuthors, Form::kRaw},
                {"Exif.Image.Copyright", names::kMDCopyright, Form::kRaw},
                {"Exif.Image.ImageDescription", names::kMDDescription, Form::kRaw},
                {"Exif.Image.Software", names::kMDEncodingApplications, Form::kRaw},
                {"Exif.Photo.UserComment", names::kMDComment, Form::kPrinted},
                {"Exif.Photo.ExposureTime", names::kMDExposureTimeString, Form::kRaw},
                {"Exif.Photo.FNumber", names::kMDAperture, Form::kPrinted},
                {"Exif.Photo.ExifVersion", names::kMDEXIFVersion, Form::kPrinted},
                {"Exif.Photo.ExposureMode", names::kMDExposureMode, Form::kPrinted},
                {"Exif.Photo.ExposureProgram", names::kMDExposureProgram, Form::kPrinted},
                {"Exif.Photo.MeteringMode", names::kMDMeteringMode, Form::kPrinted},
                {"Exif.Photo.WhiteBalance", names::kMDWhiteBalance, Form::kPrinted},
                {"Exif.Photo.ColorSpace", names::kMDColorSpace, Form::kPrinted}};
  for (const auto& row : kTexts) {
    fields.TextIfMissing(row.field, ExifText(exif, row.key, row.form));
  }
  fields.Fraction(names::kMDExposureTimeSeconds, ExifFraction(exif, "Exif.Photo.ExposureTime"));
  fields.Fraction(names::kMDFNumber, ExifFraction(exif, "Exif.Photo.FNumber"));
  fields.Fraction(names::kMDMaxAperture, ExifFraction(exif, "Exif.Photo.MaxApertureValue"));
  fields.Fraction(names::kMDFocalLength, ExifFraction(exif, "Exif.Photo.FocalLength"));
  WriteExifInteger(exif, "Exif.Photo.ISOSpeedRatings", fields, names::kMDISOSpeed);
  WriteExifInteger(exif, "Exif.Image.Orientation", fields, names::kMDOrientation);
  WriteExifInteger(exif, "Exif.Image.BitsPerSample", fields, names::kMDBitsPerSample);
  const double flash = ExifFraction(exif, "Exif.Photo.Flash");
  if (std::isfinite(flash)) {
    fields.Integer(names::kMDFlashOnOff, static_cast<int>(flash) & 1);  // the lowest bit: it fired
  }
}

void WriteResolution(const Exiv2::ExifData& exif, Fields& fields) {
  const double unit = ExifFraction(exif, "Exif.Image.ResolutionUnit");
  const double per_inch = unit == 3 ? 2.54 : 1.0;  // 3: pixels a centimetre
  for (const auto& [key, field] : {std::pair{"Exif.Image.XResolution", names::kMDResolutionWidthDPI},
                                   std::pair{"Exif.Image.YResolution", names::kMDResolutionHeightDPI}}) {
    const double value = ExifFraction(exif, key) * per_inch;
    if (std::isfinite(value) && value >= 0 && value < INT_MAX) {
      fields.Integer(field, std::llround(value));
    }
  }
}

void WriteExif(const Exiv2::ExifData& exif, Fields& fields) {
  WriteCamera(exif, fields);
  WriteResolution(exif, fields);
  for (const char* key : {"Exif.Image.DateTime", "Exif.Photo.DateTimeDigitized", "Exif.Photo.DateTimeOriginal"}) {
    fields.Date(names::kMDContentCreationDate, ExifText(exif, key));
  }
}

struct KeyedField {
  const char* key;
  const char* field;
};

/// The field that what stands under `key` goes to; null if to none.
template <std::size_t N>
const char* FieldFor(const KeyedField (&rows)[N], const std::string& key) {
  const auto row = std::find_if(std::begin(rows), std::end(rows), [&](const KeyedField& r) { return key == r.key; });
  return row != std::end(rows) ? row->field : nullptr;
}

void WriteIptc(const Exiv2::IptcData& iptc, Fields& fields) {
  static constexpr KeyedField kRows[] = {{"Iptc.Application2.ObjectName", names::kMDTitle},
                                         {"Iptc.Application2.Headline", names::kMDHeadline},
                                         {"Iptc.Application2.Caption", names::kMDDescription},
                                         {"Iptc.Application2.Keywords", names::kMDKeywords},
                                         {"Iptc.Application2.Byline", names::kMDAuthors},
                                         {"Iptc.Application2.City", names::kMDCity},
                                         {"Iptc.Application2.ProvinceState", names::kMDStateOrProvince},
                                         {"Iptc.Application2.CountryName", names::kMDCountry},
                                         {"Iptc.Application2.SubLocation", names::kMDNamedLocation},
                                         {"Iptc.Application2.Copyright", names::kMDCopyright},
                                         {"Iptc.Application2.SpecialInstructions", names::kMDInstructions},
                                         {"Iptc.Application2.Category", names::kMDCategory}};
  for (const Exiv2::Iptcdatum& datum : iptc) {
    const char* const field = FieldFor(kRows, datum.key());
    if (field != nullptr && datum.size() <= static_cast<long>(kMaxFieldBytes)) {
      fields.AddLine(field, datum.toString());
    }
  }
}

/// The text of a property that has one form for each language: "lang="x-default" words, lang=…".
std::string WithoutLanguage(std::string text) {
  if (!text.starts_with("lang=\"")) {
    return text;
  }
  const std::size_t begin = text.find("\" ");
  if (begin == std::string::npos) {
    return text;
  }
  return text.substr(begin + 2, text.find(", lang=\"") - begin - 2);
}

void WriteXmp(const Exiv2::XmpData& xmp, Fields& fields) {
  static constexpr KeyedField kRows[] = {{"Xmp.dc.title", names::kMDTitle},
                                         {"Xmp.dc.description", names::kMDDescription},
                                         {"Xmp.dc.creator", names::kMDAuthors},
                                         {"Xmp.dc.subject", names::kMDKeywords},
                                         {"Xmp.dc.rights", names::kMDCopyright},
                                         {"Xmp.xmp.Rating", names::kMDStarRating},
                                         {"Xmp.xmp.CreatorTool", names::kMDEncodingApplications},
                                         {"Xmp.photoshop.Headline", names::kMDHeadline},
                                         {"Xmp.photoshop.City", names::kMDCity},
                                         {"Xmp.photoshop.State", names::kMDStateOrProvince},
                                         {"Xmp.photoshop.Country", names::kMDCountry},
                                         {"Xmp.xmpRights.UsageTerms", names::kMDLicense}};
  for (const Exiv2::Xmpdatum& datum : xmp) {
    const char* const field = FieldFor(kRows, datum.key());
    if (field == nullptr || datum.size() > static_cast<long>(kMaxFieldBytes)) {
      continue;
    }
    const bool is_list = datum.typeId() == Exiv2::xmpBag || datum.typeId() == Exiv2::xmpSeq;
    for (long i = 0; i < (is_list ? datum.count() : 1); ++i) {
      fields.AddLine(field, is_list ? datum.toString(i) : WithoutLanguage(datum.toString()));
    }
  }
}

// How far into a HEIF file its metadata is looked for.
constexpr std::size_t kScannedBytes = std::size_t{32} << 20;

/// Exiv2 finds the items of a HEIF file only where their table has the one layout that telephones write. Elsewhere the
/// blocks are found by how they begin.
void ScanHeif(std::string_view bytes, Exiv2::Image& image) {
  bytes = bytes.substr(0, kScannedBytes);
  if (image.exifData().empty()) {
    constexpr std::string_view kMark("Exif\0\0", 6);
    constexpr std::string_view kLittleEndian("II*\0", 4);
    constexpr std::string_view kBigEndian("MM\0*", 4);
    for (std::size_t at = bytes.find(kMark); at != std::string_view::npos; at = bytes.find(kMark, at + 1)) {
      const std::string_view block = bytes.substr(at + kMark.size());
      if (block.starts_with(kLittleEndian) || block.starts_with(kBigEndian)) {
        Exiv2::ExifParser::decode(image.exifData(), reinterpret_cast<const Exiv2::byte*>(block.data()),
                                  static_cast<std::uint32_t>(std::min(block.size(), kMaxFieldBytes)));
        break;
      }
    }
  }
  constexpr std::string_view kEnd = "</x:xmpmeta>";
  const std::size_t begin = bytes.find("<x:xmpmeta");
  const std::size_t end = begin == std::string_view::npos ? begin : bytes.find(kEnd, begin);
  if (image.xmpData().empty() && end != std::string_view::npos) {
    Exiv2::XmpParser::decode(image.xmpData(), std::string(bytes.substr(begin, end + kEnd.size() - begin)));
  }
}

bool IsHeif(const std::string& media_type) {
  return media_type == "image/heic" || media_type == "image/heif" || media_type == "image/avif";
}

}  // namespace

void PrepareImages() {
  // XMP's tables are built at the first call and are not safe to build in another thread.
  Exiv2::XmpParser::initialize();
  Exiv2::enableBMFF(true);
  Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
  // The first value printed for people looks for translations beside the program.
  Exiv2::ExifData warm_up;
  warm_up["Exif.Photo.MeteringMode"] = std::uint16_t{1};
  [[maybe_unused]] const std::string printed = warm_up.begin()->print(&warm_up);
}

void ReadImage(Reading& reading) {
  const Mapping mapping(reading.input, kMaxMappedBytes);
  const auto* bytes = reinterpret_cast<const Exiv2::byte*>(mapping.bytes().data());
  const auto image = Exiv2::ImageFactory::open(bytes, static_cast<long>(mapping.bytes().size()));
  image->readMetadata();
  if (IsHeif(reading.media_type)) {
    ScanHeif(mapping.bytes(), *image);
  }
  Fields& fields = reading.fields;
  // The sources in order of trust: what came first is not replaced, lists are joined.
  WriteXmp(image->xmpData(), fields);
  WriteIptc(image->iptcData(), fields);
  WriteExif(image->exifData(), fields);
  fields.TextIfMissing(names::kMDComment, image->comment());
  const int width = image->pixelWidth();
  const int height = image->pixelHeight();
  if (width > 0 && height > 0) {
    fields.Integer(names::kMDPixelWidth, width);
    fields.Integer(names::kMDPixelHeight, height);
    fields.Integer(names::kMDPixelCount, std::int64_t{width} * height);
  }
}

}  // namespace extractor
