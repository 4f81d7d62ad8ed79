// The search daemon gives the answers that the library's tests count on, to the very bytes that the library sends.
#include "tests/support/search_steps.h"

#include <gtest/gtest.h>

#include "tests/system/search_support.h"

namespace orbisk::test {
namespace {

std::string AnswerTo(const SearchBox& box, const std::string& request) {
  RawClient client(box.socket());
  EXPECT_TRUE(client.SendLength(request.size()) && client.Send(request));
  return client.ReceiveMessage().value_or("");
}

TEST(SearchSteps, TheDaemonGivesTheAnswersOfTheTable) {
  SearchBox box;
  box.Start();

  for (const SearchStep& step : SearchSteps(box.volume())) {
    for (const SearchExchange& exchange : step.exchanges) {
      EXPECT_EQ(JsonLine(Object(exchange.answer)), JsonLine(Object(AnswerTo(box, exchange.request))))
          << step.name << ": " << exchange.request;
    }
  }
}

}  // namespace
}  // namespace orbisk::test
