// Steps of bounded size in both directions, each with its deadline.
#include "services/search/session.h"

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <utility>

#include "services/search/refusal.h"
#include "services/search/request.h"

namespace nimoelasticd {
namespace {

namespace asio = boost::asio;

// Short messages are read whatever the memory bound says: their number is bounded, and one huge request must not keep
// all others out for the quarter of an hour that they wait when they are told 1401.
constexpr std::uint64_t kAlwaysReadBytes = std::uint64_t{64} * 1024;

}  // namespace

Session::Session(Socket socket, Dispatcher& dispatcher, MemoryGauge& memory, std::chrono::milliseconds patience,
                 std::function<void(Session&, Phase)> on_change)
    : socket_(std::move(socket)),
      deadline_(socket_.get_executor()),
      dispatcher_(dispatcher),
      memory_(memory),
      patience_(patience),
      on_change_(std::move(on_change)) {}

void Session::Start() {
  ExpectProgress();
  asio::async_read(
      socket_, asio::buffer(&length_, sizeof(length_)),
      [self = shared_from_this()](const boost::system::error_code& error, std::size_t) {
        if (error) {
          self->End();
        } else if (self->length_ > kMaxMessageBytes) {
          self->Answer(Dispatcher::Failure(static_cast<int>(Code::kMalformedRequest), "a message of more than 1 GiB"));
        } else {
          self->ReadStep();
        }
      });
}

void Session::Cut() {
  if (phase_ != Phase::kWorking) {
    End();
  }
}

void Session::ExpectProgress() {
  deadline_.expires_after(patience_);
  deadline_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    if (!error) {
      self->Cut();
    }
  });
}

void Session::ReadStep() {
  if (received_ == length_) {
    Submit();
    return;
  }
  const auto step = static_cast<std::size_t>(std::min<std::uint64_t>(length_ - received_, kStepBytes));
  if (!refused_ && !MakeSpace(step)) {
    refused_ = true;
    memory_.Release(std::exchange(held_bytes_, 0));
    text_ = std::string();
    waste_ = std::make_unique<std::array<char, kStepBytes>>();
  }
  char* const place = refused_ ? waste_->data() : text_.data() + received_;
  ExpectProgress();
  asio::async_read(socket_, asio::buffer(place, step),
                   [self = shared_from_this()](const boost::system::error_code& error, std::size_t count) {
                     if (error) {
                       self->End();
                     } else {
                       self->received_ += count;
                       self->ReadStep();
                     }
                   });
}

// Takes memory as the bytes come, not as the other end announces them.
bool Session::MakeSpace(std::size_t step) {
  if (length_ <= kAlwaysReadBytes) {
    memory_.Add(step);
  } else if (!memory_.Take(step, held_bytes_)) {
    return false;
  }
  held_bytes_ += step;
  try {
    text_.resize(static_cast<std::size_t>(received_) + step);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

void Session::Submit() {
  if (refused_) {
    Answer(Dispatcher::Failure(static_cast<int>(Code::kTooMuchMemory), "too much memory is in use"));
    return;
  }
  deadline_.cancel();
  Become(Phase::kWorking);
  dispatcher_.Submit(std::move(text_), [self = shared_from_this()](std::string answer) {
    self->memory_.Add(answer.size());
    asio::post(self->socket_.get_executor(), [self, text = std::move(answer)]() mutable {
      self->held_bytes_ += text.size();
      self->Answer(std::move(text));
    });
  });
}

void Session::Answer(std::string text) {
  if (phase_ == Phase::kEnded) {
    return;
  }
  Become(Phase::kWriting);
  text_ = std::move(text);
  length_ = text_.size();
  const std::array<asio::const_buffer, 2> pieces = {asio::buffer(&length_, sizeof(length_)),
                                                    asio::buffer(text_.data(), std::min(text_.size(), kStepBytes))};
  ExpectProgress();
  asio::async_write(socket_, pieces,
                    [self = shared_from_this()](const boost::system::error_code& error, std::size_t count) {
                      if (error) {
                        self->End();
                      } else {
                        self->WriteStep(count - sizeof(self->length_));
                      }
                    });
}

void Session::WriteStep(std::size_t written) {
  if (written == text_.size()) {
    End();
    return;
  }
  ExpectProgress();
  asio::async_write(socket_, asio::buffer(text_.data() + written, std::min(text_.size() - written, kStepBytes)),
                    [self = shared_from_this(), written](const boost::system::error_code& error, std::size_t count) {
                      if (error) {
                        self->End();
                      } else {
                        self->WriteStep(written + count);
                      }
                    });
}

void Session::Become(Phase phase) {
  phase_ = phase;
  on_change_(*this, phase);
}

void Session::End() {
  if (phase_ == Phase::kEnded) {
    return;
  }
  boost::system::error_code ignored;
  deadline_.cancel();
  socket_.close(ignored);
  memory_.Release(std::exchange(held_bytes_, 0));
  text_ = std::string();
  Become(Phase::kEnded);
}

}  // namespace nimoelasticd
