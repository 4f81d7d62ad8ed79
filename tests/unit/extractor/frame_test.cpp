// Messages and descriptors over stream sockets.
#include "services/extractor/frame.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <thread>

namespace extractor {

using service::UniqueFd;

namespace {

struct Pair {
  Pair() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    a = UniqueFd(ends[0]);
    b = UniqueFd(ends[1]);
  }
  UniqueFd a;
  UniqueFd b;
};

TEST(Frame, ArrivesWhole) {
  const Pair pair;
  const std::string message("a\0b", 3);

  ASSERT_TRUE(SendBytes(pair.a.get(), Framed(message) + Framed("")));

  EXPECT_EQ(ReceiveFrame(pair.b.get(), 3)->message, message);
  EXPECT_EQ(ReceiveFrame(pair.b.get(), 3)->message, "");
}

TEST(Frame, BeginsWithItsLengthInHostOrder) {
  EXPECT_EQ(Framed("xyz"), std::string("\3\0\0\0\0\0\0\0xyz", 11));
}

TEST(Frame, LargerThanTheSocketsBufferArrivesWhole) {
  const Pair pair;
  const std::string message(size_t{5} << 20, 'x');
  std::thread sender([&] { SendBytes(pair.a.get(), Framed(message)); });

  const auto received = ReceiveFrame(pair.b.get(), message.size());

  sender.join();
  EXPECT_TRUE(received->message == message);
}

TEST(Frame, OfTwoPiecesArrivesAsOne) {
  const Pair pair;
  const std::string large(size_t{5} << 20, 'y');
  std::thread sender([&] {
    SendFrame(pair.a.get(), "x", large);
    SendFrame(pair.a.get(), "z", "");
  });

  const auto first = ReceiveFrame(pair.b.get(), 1 + large.size());
  const auto second = ReceiveFrame(pair.b.get(), 1);

  sender.join();
  EXPECT_TRUE(first->message == "x" + large);
  EXPECT_EQ(second->message, "z");
}

TEST(Frame, BringsADescriptor) {
  const Pair pair;
  struct stat sent {};
  fstat(pair.a.get(), &sent);

  ASSERT_TRUE(SendBytes(pair.a.get(), Framed("x"), pair.a.get()));
  const auto received = ReceiveFrame(pair.b.get(), 1);

  ASSERT_TRUE(received->passed.valid());
  EXPECT_NE(received->passed.get(), pair.a.get());
  struct stat got {};
  fstat(received->passed.get(), &got);
  EXPECT_EQ(got.st_ino, sent.st_ino);
}

TEST(Frame, ThatAnnouncesTooMuchIsRefused) {
  const Pair pair;

  ASSERT_TRUE(SendBytes(pair.a.get(), Framed("xyz")));

  EXPECT_FALSE(ReceiveFrame(pair.b.get(), 2).has_value());
}

TEST(Frame, ThatIsCutOffIsNone) {
  const std::string whole = Framed("xyz");
  for (size_t length = 0; length < whole.size(); ++length) {
    Pair pair;
    SendBytes(pair.a.get(), whole.substr(0, length));
    pair.a.Close();

    EXPECT_FALSE(ReceiveFrame(pair.b.get(), 10).has_value()) << length;
  }
}

TEST(Frame, CannotBeSentToNobodyAndRaisesNoSignal) {
  Pair pair;
  pair.b.Close();

  EXPECT_FALSE(SendBytes(pair.a.get(), "x"));
}

}  // namespace
}  // namespace extractor
