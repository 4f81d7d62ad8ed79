// Drives one worker process.
#include "services/extractor/worker.h"

#include <sys/syscall.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/read.hpp>
#include <csignal>
#include <utility>

namespace extractor {
namespace {

namespace asio = boost::asio;

Outcome OutcomeOf(Reply reply) {
  Outcome outcome;
  switch (reply.kind) {
    case Reply::Kind::kRead:
      outcome.kind = Outcome::Kind::kRead;
      outcome.fields.swap(reply.fields);
      outcome.text = std::move(reply.text);
      outcome.cut = reply.cut;
      break;
    case Reply::Kind::kBroken:
      outcome.kind = Outcome::Kind::kBroken;
      outcome.message = std::move(reply.message);
      break;
    case Reply::Kind::kMemory:
      outcome.kind = Outcome::Kind::kMemory;
      outcome.message = "the content needs more memory than a worker may have";
      break;
    case Reply::Kind::kGarbled:
      outcome.kind = Outcome::Kind::kRefused;
      outcome.message = "the worker's answer is garbled";
      break;
  }
  return outcome;
}

}  // namespace

Worker::Worker(asio::io_context& context, const Options& options, NewWorker process, std::function<void()> on_free)
    : options_(options),
      process_(std::move(process)),
      channel_(context, asio::local::stream_protocol(), process_.channel.Release()),
      deadline_(context),
      on_free_(std::move(on_free)) {}

bool Worker::Start(Job& job) {
  // The order is short, so that it fits the empty socket buffer of a worker that has not read it yet.
  const std::string order = Framed(OrderText({job.name, options_.text_bytes}));
  boost::system::error_code ignored;
  channel_.cancel(ignored);
  if (!SendBytes(channel_.native_handle(), order, job.file.get())) {
    Finish();
    return false;
  }
  job.file.Close();
  job_ = std::move(job);
  state_ = State::kWorking;
  started_ = Clock::now();
  ArmDeadline();
  ReadReply();
  return true;
}

void Worker::ArmDeadline() {
  deadline_.expires_after(options_.deadline);
  deadline_.async_wait([self = shared_from_this(), start = files_](const boost::system::error_code& error) {
    // The timer may have run out in the moment in which the answer came.
    if (error || self->files_ != start || self->state_ != State::kWorking) {
      return;
    }
    self->verdict_.emplace();
    self->verdict_->kind = Outcome::Kind::kDeadline;
    self->verdict_->message = "the content takes too long to read";
    self->Finish();
  });
}

void Worker::ReadReply() {
  const auto self = shared_from_this();
  asio::async_read(channel_, asio::buffer(header_), [self](const boost::system::error_code& error, size_t) {
    if (error) {
      self->Finish();
      return;
    }
    const std::optional<size_t> length = FrameLength(self->header_, LongestReply(self->options_.text_bytes));
    if (!length) {
      self->verdict_ = OutcomeOf(Reply());
      self->Finish();
      return;
    }
    self->reply_.resize(*length);
    asio::async_read(self->channel_, asio::buffer(self->reply_),
                     [self](const boost::system::error_code& body_error, size_t) {
                       if (body_error) {
                         self->Finish();
                       } else {
                         self->OnReply();
                       }
                     });
  });
}

void Worker::OnReply() {
  if (state_ != State::kWorking) {
    return;  // killed while the answer was on its way; the end reports
  }
  deadline_.cancel();
  ++files_;
  Reply reply = ParseReply(std::exchange(reply_, {}));
  const bool trusted = reply.kind == Reply::Kind::kRead || reply.kind == Reply::Kind::kBroken;
  Job job = std::move(*job_);
  job_.reset();
  if (trusted && files_ < options_.files_per_worker) {
    state_ = State::kIdle;
    WatchIdle();
  } else {
    Finish();
  }
  job.done(OutcomeOf(std::move(reply)));
  if (state_ == State::kIdle) {
    on_free_();
  }
}

void Worker::WatchIdle() {
  // Only its end, or words out of turn, can make an idle worker's channel readable.
  channel_.async_wait(asio::socket_base::wait_read,
                      [self = shared_from_this()](const boost::system::error_code& error) {
                        if (!error && self->state_ == State::kIdle) {
                          self->Finish();
                        }
                      });
}

void Worker::Finish() {
  if (state_ == State::kFinished) {
    return;
  }
  state_ = State::kFinished;
  deadline_.cancel();
  Kill();
  boost::system::error_code ignored;
  channel_.close(ignored);
}

void Worker::Kill() {
  // A worker that is dying already keeps the reason it has.
  syscall(SYS_pidfd_send_signal, process_.process.get(), SIGKILL, nullptr, 0);
}

void Worker::OnEnd(int status) {
  state_ = State::kFinished;
  boost::system::error_code ignored;
  channel_.close(ignored);
  Deliver(verdict_ ? std::move(*verdict_) : OutcomeOfDeath(status));
}

void Worker::OnEndUnknown() {
  Outcome outcome;
  outcome.kind = Outcome::Kind::kKilled;
  outcome.message = "somebody ended the workers";
  Finish();  // it may be dying still
  Deliver(verdict_ ? std::move(*verdict_) : std::move(outcome));
}

void Worker::Abandon() {
  Finish();
  job_.reset();
}

void Worker::Deliver(Outcome outcome) {
  deadline_.cancel();
  if (job_) {
    Job job = std::move(*job_);
    job_.reset();
    job.done(std::move(outcome));
  }
}

}  // namespace extractor
