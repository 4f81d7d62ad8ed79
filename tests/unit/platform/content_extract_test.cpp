// The client of the extractor daemon, against a daemon that says what the test wants.
#include "platform/linux/content_extract.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "tests/support/local_socket.h"
#include "tests/support/temp_dir.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLong{20'000};

std::string Framed(const std::string& message) {
  const uint64_t length = message.size();
  return std::string(reinterpret_cast<const char*>(&length), sizeof(length)) + message;
}

// Takes one connection, reads one request, says `words` and hangs up, after `linger`.
class OneAnswer {
 public:
  OneAnswer(const std::string& path, std::string words, milliseconds linger = milliseconds(0))
      : words_(std::move(words)), linger_(linger), listener_(orbisk::test::ListenAt(path, 1)) {
    thread_ = std::thread([this] { Serve(); });
  }
  ~OneAnswer() {
    thread_.join();
    close(listener_);
  }

  std::string request;

 private:
  void Serve() {
    const int fd = accept(listener_, nullptr, nullptr);
    uint64_t length = 0;
    if (recv(fd, &length, sizeof(length), MSG_WAITALL) == sizeof(length)) {
      request.resize(length);
      recv(fd, request.data(), length, MSG_WAITALL);
    }
    send(fd, words_.data(), words_.size(), MSG_NOSIGNAL);
    std::this_thread::sleep_for(linger_);
    close(fd);
  }

  std::string words_;
  milliseconds linger_;
  int listener_;
  std::thread thread_;
};

class ContentExtract : public testing::Test {
 protected:
  // The reason of the failure; fails the test if there is none.
  std::string ReasonOf(const std::string& words) {
    const OneAnswer daemon(folder_ / "socket", words);
    try {
      nimo::AskExtractor(folder_ / "socket", kLong, "/a", Json::Value(), document_);
    } catch (const std::runtime_error& error) {
      unlink((folder_ / "socket").c_str());
      return error.what();
    }
    unlink((folder_ / "socket").c_str());
    ADD_FAILURE() << "no failure";
    return "";
  }

  orbisk::test::TempDir folder_;
  Json::Value document_{"as it was"};
};

TEST_F(ContentExtract, SendsPathAndOptionsAndReturnsTheDocument) {
  Json::Value options;
  options["need_meta"] = true;
  options["pseudo_path"] = "/b\xff";
  options["other"] = 1;
  std::string request;
  {
    OneAnswer daemon(folder_ / "socket", Framed("{\"success\":true,\"data\":{\"NIMOMDPath\":\"/b\xff\"}}"));

    nimo::AskExtractor(folder_ / "socket", kLong, "/a\xfe\n", options, document_);

    EXPECT_EQ(document_["NIMOMDPath"], "/b\xff");
    EXPECT_EQ(daemon.request, "{\"need_meta\":true,\"path\":\"/a\xfe\\n\",\"pseudo_path\":\"/b\xff\"}");
  }
}

TEST_F(ContentExtract, SendsThePathAloneWithoutOptions) {
  OneAnswer daemon(folder_ / "socket", Framed(R"({"success":true,"data":{}})"));

  nimo::AskExtractor(folder_ / "socket", kLong, "/a", Json::Value(), document_);

  EXPECT_EQ(daemon.request, R"({"path":"/a"})");
  EXPECT_EQ(document_, Json::Value(Json::objectValue));
}

TEST_F(ContentExtract, ThrowsTheDaemonsReason) {
  EXPECT_THAT(ReasonOf(Framed(R"({"success":false,"error":{"code":4,"msg":"too slow"}})")),
              testing::HasSubstr("too slow"));
  EXPECT_EQ(document_, "as it was");
}

TEST_F(ContentExtract, ThrowsOverAnswersThatAreNone) {
  for (const std::string& words :
       {std::string(), std::string("\x05"), Framed("{}").substr(0, 9), Framed(""), Framed("x"), Framed("[]"),
        Framed("{}"), Framed(R"({"success":1,"data":{}})"), Framed(R"({"success":true})"),
        Framed(R"({"success":true,"data":[]})"), Framed(R"({"success":false})"), Framed(R"({"error":7})"),
        Framed(std::string(100'000, '[')), std::string(8, '\x7f')}) {
    EXPECT_THAT(ReasonOf(words), testing::StartsWith("content extractor: ")) << words.substr(0, 50);
  }
  EXPECT_EQ(document_, "as it was");
}

TEST_F(ContentExtract, ThrowsWhenNobodyAnswers) {
  EXPECT_THROW(nimo::AskExtractor(folder_ / "socket", kLong, "/a", Json::Value(), document_), std::runtime_error);
  EXPECT_THROW(nimo::AskExtractor(folder_ / std::string(200, 's'), kLong, "/a", Json::Value(), document_),
               std::runtime_error);
}

TEST_F(ContentExtract, ThrowsWhenItTakesTooLong) {
  const OneAnswer daemon(folder_ / "socket", Framed("{}").substr(0, 5), milliseconds(2000));
  const auto start = std::chrono::steady_clock::now();

  EXPECT_THROW(nimo::AskExtractor(folder_ / "socket", milliseconds(100), "/a", Json::Value(), document_),
               std::runtime_error);

  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(100));
  EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1500));
}

}  // namespace
