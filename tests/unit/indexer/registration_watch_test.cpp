// Registrations that come after their worker.
#include "services/indexer/registration_watch.h"

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <filesystem>
#include <string>

#include "tests/support/temp_dir.h"

namespace fileindexd {
namespace {

using orbisk::test::TempDir;
using orbisk::test::WriteFile;

constexpr char kQueue[] = "/v/queue";
constexpr char kRegistration[] = "{\"app\":\"fileindex\",\"queue\":\"/v/queue\"}";

class RegistrationWatchTest : public testing::Test {
 protected:
  // Whether it is told within `limit`.
  bool IsTold(std::chrono::milliseconds limit) {
    const int before = told_;
    context_.restart();
    const auto end = std::chrono::steady_clock::now() + limit;
    while (told_ == before && context_.run_one_until(end) > 0) {
    }
    return told_ > before;
  }
  void Await() {
    watch_.Await(kQueue, [this] { ++told_; });
  }

  const TempDir dir_;
  const std::string folder_ = dir_ / "queues.d";
  boost::asio::io_context context_;
  RegistrationWatch watch_{context_, folder_};
  int told_ = 0;
};

TEST_F(RegistrationWatchTest, TellsOfOneThatComesWithItsFolder) {
  Await();
  EXPECT_FALSE(IsTold(std::chrono::milliseconds(700)));

  std::filesystem::create_directory(folder_);
  WriteFile(folder_ + "/a.json", kRegistration);

  EXPECT_TRUE(IsTold(std::chrono::seconds(20)));
}

TEST_F(RegistrationWatchTest, TellsNothingOfOneThatWasThereBefore) {
  std::filesystem::create_directory(folder_);
  WriteFile(folder_ + "/a.json", kRegistration);

  Await();

  EXPECT_EQ(context_.poll(), 0U);
  EXPECT_TRUE(context_.stopped());
}

TEST_F(RegistrationWatchTest, TellsOnceHoweverOftenItIsAsked) {
  std::filesystem::create_directory(folder_);
  Await();
  Await();
  WriteFile(folder_ + "/a.json", kRegistration);

  EXPECT_TRUE(IsTold(std::chrono::seconds(20)));

  EXPECT_FALSE(IsTold(std::chrono::seconds(2)));
}

}  // namespace
}  // namespace fileindexd
