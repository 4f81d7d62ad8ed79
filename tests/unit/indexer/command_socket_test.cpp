// Clients of the socket, good and bad, each on its own.
#include "services/indexer/command_socket.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "services/base/unique_fd.h"
#include "tests/support/local_socket.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/indexer/loop.h"

namespace fileindexd {
namespace {

namespace fs = std::filesystem;
using service::UniqueFd;

std::string Frame(const std::string& text) {
  const std::uint64_t length = text.size();
  return std::string(reinterpret_cast<const char*>(&length), sizeof(length)) + text;
}

class CommandSocketTest : public testing::Test {
 protected:
  CommandSocketTest() { socket_.Open(""); }

  // A client that has sent `bytes`.
  UniqueFd Client(const std::string& bytes = "") const {
    UniqueFd client(orbisk::test::ConnectTo(path_));
    EXPECT_TRUE(client.valid());
    Send(client, bytes);
    return client;
  }
  static void Send(const UniqueFd& client, const std::string& bytes) {
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  // The next answer's text; nothing if the connection is closed instead.
  std::optional<std::string> Answer(const UniqueFd& client) {
    const std::optional<std::string> head = Bytes(client, sizeof(std::uint64_t));
    if (!head) {
      return std::nullopt;
    }
    std::uint64_t length = 0;
    memcpy(&length, head->data(), sizeof(length));
    return Bytes(client, length);
  }

  orbisk::test::TempDir dir_;
  const std::string path_ = dir_ / "socket";
  Loop loop_;
  std::vector<std::function<void(const Json::Value& answer)>> pending_;
  bool answers_ = true;
  CommandSocket socket_{loop_.context(), path_, [this](const Json::Value& message, auto answer) {
                          if (answers_) {
                            answer(message);
                          } else {
                            pending_.push_back(std::move(answer));
                          }
                        }};

 private:
  std::optional<std::string> Bytes(const UniqueFd& client, size_t count) {
    std::string bytes(count, '\0');
    size_t got = 0;
    bool closed = false;
    EXPECT_TRUE(loop_.RunUntil([&] {
      const ssize_t more = recv(client.get(), bytes.data() + got, count - got, MSG_DONTWAIT);
      closed = more == 0 || (more < 0 && errno == ECONNRESET);
      got += more > 0 ? static_cast<size_t>(more) : 0;
      return closed || got == count;
    })) << "neither an answer nor an end";
    return closed || got < count ? std::nullopt : std::optional(bytes);
  }
};

TEST_F(CommandSocketTest, AnswersEachMessageOfAConnectionInOrder) {
  const UniqueFd client = Client(Frame(R"({"n":1})") + Frame(R"({"n":2})"));

  EXPECT_EQ(R"({"n":1})", Answer(client));
  EXPECT_EQ(R"({"n":2})", Answer(client));
  Send(client, Frame(R"({"n":3})"));
  EXPECT_EQ(R"({"n":3})", Answer(client));
}

TEST_F(CommandSocketTest, TakesTheZeroByteThatTheLibrarySends) {
  const UniqueFd client = Client(Frame(std::string(R"({"n":1})") + '\0'));

  EXPECT_EQ(R"({"n":1})", Answer(client));
}

TEST_F(CommandSocketTest, TakesAMessageThatComesByteByByte) {
  const UniqueFd client = Client();
  for (const char byte : Frame(R"({"n":1})")) {
    Send(client, std::string(1, byte));
    loop_.RunWhatIsReady();
  }

  EXPECT_EQ(R"({"n":1})", Answer(client));
}

TEST_F(CommandSocketTest, EndsTheConnectionOfWhoSendsNoMessageAndNobodyElses) {
  const UniqueFd good = Client();
  const std::uint64_t too_long = (std::uint64_t{1} << 20) + 1;
  for (const std::string& bytes :
       {Frame("rubbish"), Frame("[]"), Frame("7"), Frame(""), Frame("{} {}"), Frame(std::string("{}\0\0", 4)),
        std::string(reinterpret_cast<const char*>(&too_long), sizeof(too_long))}) {
    EXPECT_FALSE(Answer(Client(bytes))) << bytes;
  }

  Send(good, Frame("{}"));
  EXPECT_EQ("{}", Answer(good));
}

TEST_F(CommandSocketTest, TakesAMessageOfAMebibyte) {
  const std::string text = R"({"n":")" + std::string((1 << 20) - 8, 'x') + R"("})";
  ASSERT_EQ(size_t{1} << 20, text.size());
  const UniqueFd client = Client();
  const std::string bytes = Frame(text);
  size_t sent = 0;
  ASSERT_TRUE(loop_.RunUntil([&] {
    const ssize_t more = send(client.get(), bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    sent += more > 0 ? static_cast<size_t>(more) : 0;
    return sent == bytes.size();
  }));

  EXPECT_TRUE(Answer(client) == text);
}

TEST_F(CommandSocketTest, AnswersOthersWhileOneWaitsForItsAnswer) {
  answers_ = false;
  const UniqueFd waiting = Client(Frame(R"({"n":1})"));
  ASSERT_TRUE(loop_.RunUntil([&] { return pending_.size() == 1; }));
  answers_ = true;

  const UniqueFd other = Client(Frame(R"({"n":2})"));
  EXPECT_EQ(R"({"n":2})", Answer(other));

  pending_.front()(Json::Value("late"));
  EXPECT_EQ("\"late\"", Answer(waiting));
}

TEST_F(CommandSocketTest, AnswerToAClientThatHasGoneDoesNoHarm) {
  answers_ = false;
  {
    const UniqueFd gone = Client(Frame("{}"));
    ASSERT_TRUE(loop_.RunUntil([&] { return pending_.size() == 1; }));
  }
  answers_ = true;
  pending_.front()(Json::Value("late"));
  pending_.clear();

  EXPECT_EQ("{}", Answer(Client(Frame("{}"))));
}

TEST_F(CommandSocketTest, The129thClientIsServedWhenAnotherOneGoes) {
  std::vector<UniqueFd> clients;
  for (int i = 0; i < 128; ++i) {
    clients.push_back(Client(Frame("{}")));
    ASSERT_EQ("{}", Answer(clients.back()));
  }
  const UniqueFd last = Client(Frame(R"({"n":129})"));
  loop_.RunWhatIsReady();
  char byte = 0;
  EXPECT_EQ(-1, recv(last.get(), &byte, 1, MSG_DONTWAIT)) << "it has an answer";

  clients.pop_back();

  EXPECT_EQ(R"({"n":129})", Answer(last));
}

// Whoever is silent gets little time.
class ImpatientSocketTest : public CommandSocketTest {
 protected:
  ImpatientSocketTest() { impatient_.Open(""); }

  UniqueFd ClientOfTheImpatient(const std::string& bytes) const {
    UniqueFd client(orbisk::test::ConnectTo(impatient_path_));
    EXPECT_TRUE(client.valid());
    Send(client, bytes);
    return client;
  }

  const std::string impatient_path_ = dir_ / "impatient";
  // More than what the kernel keeps for a client that does not read.
  const std::string large_ = std::string(size_t{4} << 20, 'x');
  CommandSocket impatient_{loop_.context(), impatient_path_,
                           [this](const Json::Value& message, auto answer) {
                             if (message["wait"].asBool()) {
                               pending_.push_back(std::move(answer));
                             } else {
                               answer(message["large"].asBool() ? Json::Value(large_) : message);
                             }
                           },
                           std::chrono::milliseconds(400)};
};

TEST_F(ImpatientSocketTest, WhoSendsHalfAMessageIsCut) {
  const UniqueFd nothing = ClientOfTheImpatient("");
  const UniqueFd half_a_length = ClientOfTheImpatient(Frame("{}").substr(0, 4));
  const UniqueFd half_a_text = ClientOfTheImpatient(Frame("{}").substr(0, 9));

  EXPECT_FALSE(Answer(nothing));
  EXPECT_FALSE(Answer(half_a_length));
  EXPECT_FALSE(Answer(half_a_text));
}

TEST_F(ImpatientSocketTest, WhoDoesNotTakeTheAnswerIsCutAndOthersAreAnswered) {
  const UniqueFd deaf = ClientOfTheImpatient(Frame(R"({"large":true})"));

  // The end of the connection shows without a byte of the answer being taken.
  EXPECT_TRUE(loop_.RunUntil([&deaf] {
    pollfd end{deaf.get(), POLLRDHUP, 0};
    return poll(&end, 1, 0) == 1;
  }));
  EXPECT_EQ("{}", Answer(ClientOfTheImpatient(Frame("{}"))));
}

TEST_F(ImpatientSocketTest, WhoWaitsForItsAnswerIsNotCut) {
  const UniqueFd waiting = ClientOfTheImpatient(Frame(R"({"wait":true})"));
  ASSERT_TRUE(loop_.RunUntil([this] { return pending_.size() == 1; }));
  // Whoever came later and was silent has been cut when this returns.
  EXPECT_FALSE(Answer(ClientOfTheImpatient("")));

  pending_.front()(Json::Value("late"));

  EXPECT_EQ("\"late\"", Answer(waiting));
}

TEST_F(CommandSocketTest, ClosedItLetsNobodyInAndServesWhoIsThere) {
  const UniqueFd client = Client(Frame("{}"));
  ASSERT_EQ("{}", Answer(client));

  socket_.Close();

  EXPECT_FALSE(fs::exists(path_));
  Send(client, Frame(R"({"n":1})"));
  EXPECT_EQ(R"({"n":1})", Answer(client));
}

}  // namespace
}  // namespace fileindexd
