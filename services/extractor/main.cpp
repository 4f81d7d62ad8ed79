// nimocontentextractd: reads what is in files, in sandboxed workers.
#include "services/extractor/daemon.h"
#include "services/extractor/formats/extract.h"

namespace {

class FormatReader : public extractor::ContentReader {
 public:
  void Prepare() override { extractor::Prepare(); }

  bool Read(int fd, const std::string& name, size_t text_bytes, Json::Value& document) override {
    extractor::ExtractOptions options;
    options.name = name;
    options.text_bytes = text_bytes;
    return extractor::ExtractContent(fd, options, document).cut;
  }
};

}  // namespace

int main(int argc, char** argv) {
  FormatReader reader;
  return extractor::RunDaemon(argc, argv, reader);
}
