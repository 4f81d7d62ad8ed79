// The fake platform's content extractor.
#include "tests/support/fake_content_extract.h"

#include <stdexcept>

#include "orbisk/json.h"

namespace orbisk::test {
namespace {

void Describe(const std::string& path, const std::string&, Json::Value* document) {
  const size_t slash = path.rfind('/');
  (*document)["NIMOMDPath"] = path;
  (*document)["NIMOMDFSName"] = path.substr(slash + 1);
  (*document)["NIMOMDParent"] = path.substr(0, slash);
}

}  // namespace

FakeContentExtractService::FakeContentExtractService()
    : parse("NIMO_CONTENT_EXTRACT_ParseFile", Describe,
            [](const std::string&, const std::string&, Json::Value*) { throw std::runtime_error("no content"); }) {}

FakeContentExtractService& FakeContentExtract() {
  static auto* const extract = new FakeContentExtractService;
  return *extract;
}

}  // namespace orbisk::test

void NIMO_CONTENT_EXTRACT_ParseFile(const std::string& path, const Json::Value& options, Json::Value& document) {
  orbisk::test::FakeContentExtract().parse(path, orbisk::toString(options), &document);
}
