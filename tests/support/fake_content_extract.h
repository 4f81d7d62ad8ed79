// The fake platform's content extractor.
#pragma once

#include <json/json.h>

#include <string>

#include "nimo/content_extract.h"
#include "tests/support/fake_platform.h"

namespace orbisk::test {

/// Without a script every path has a document with its path, name and parent. A failing call throws std::runtime_error.
class FakeContentExtractService final : public FakeService {
 public:
  FakeContentExtractService();

  FakeFunction<void(std::string, std::string, Json::Value*)> parse;  ///< path, options as JSON text, document

  void Reset() override {}
};

FakeContentExtractService& FakeContentExtract();

}  // namespace orbisk::test
