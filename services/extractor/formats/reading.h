// What every format reader gets, and the readers themselves, one for each family of formats.
#pragma once

#include <stdexcept>
#include <string>

#include "orbisk/fileindex/metadata_names.h"
#include "services/extractor/formats/extract.h"
#include "services/extractor/formats/fields.h"
#include "services/extractor/formats/input.h"
#include "services/extractor/formats/text_sink.h"

namespace extractor {

namespace names = orbisk::fileindex::elastic;

/// One file being read.
struct Reading {
  Input input;
  std::string name;        // without its folder, bytes
  std::string media_type;  // as found by content
  TextSink text;
  Fields fields;
};

/// The content is not what its format asks for, or exceeds a bound.
class BrokenContent : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Each reads one file into the Reading's text and fields, and throws BrokenContent or another std::exception.
void ReadText(Reading& reading);
void ReadHtml(Reading& reading);
void ReadXml(Reading& reading);
void ReadRtf(Reading& reading);
void ReadPdf(Reading& reading);
void ReadOfficeOpenXml(Reading& reading);
void ReadOpenDocument(Reading& reading);
void ReadEpub(Reading& reading);
void ReadMail(Reading& reading);
void ReadArchive(Reading& reading);
void ReadAudio(Reading& reading);
void ReadImage(Reading& reading);
void ReadVideo(Reading& reading);

// What the libraries behind the readers load by path, done once while files can still be opened.
void PreparePdf();
void PrepareMail();
void PrepareImages();
void PrepareVideo();

}  // namespace extractor
