// Whatever goes wrong inside, clients get a code and a message.
#include "services/search/problem.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <system_error>

#include "services/search/index.h"
#include "services/search/refusal.h"

namespace nimoelasticd {
namespace {

TEST(Problem, EachKindOfExceptionHasItsCode) {
  const struct {
    int code;
    const char* message;
    std::function<void()> work;
  } cases[] = {
      {608, "paused", [] { throw Refusal(Code::kPaused, "paused"); }},
      {1211, "no query", [] { throw search::Error(search::ErrorCode::kBadQuery, "no query"); }},
      {1401, "out of memory", [] { throw std::bad_alloc(); }},
      {1224, "disk: Input/output error", [] { throw std::system_error(EIO, std::generic_category(), "disk"); }},
      {1299, "nobody thought of it", [] { throw std::logic_error("nobody thought of it"); }},
  };
  for (const auto& c : cases) {
    const std::optional<Problem> problem = Try(c.work);
    ASSERT_TRUE(problem) << c.code;
    EXPECT_EQ(c.code, problem->code);
    EXPECT_EQ(c.message, problem->message);
  }
}

TEST(Problem, WorkThatReturnsHasNone) {
  EXPECT_FALSE(Try([] {}));
}

}  // namespace
}  // namespace nimoelasticd
