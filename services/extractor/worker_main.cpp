// Takes orders and reads contents.
#include "services/extractor/worker_main.h"

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <string>

#include "orbisk/fileindex/metadata_names.h"
#include "services/extractor/frame.h"
#include "services/extractor/sandbox.h"
#include "services/extractor/worker_reply.h"

namespace extractor {
namespace {

constexpr size_t kKeptHeapBytes = size_t{8} << 20;

Reply ReadContent(ContentReader& reader, int fd, const std::string& order_text) {
  Reply reply;
  try {
    const Order order = ParseOrder(order_text);
    reply.cut = reader.Read(fd, order.name, order.text_bytes, reply.fields);
    Json::Value text;
    if (reply.fields.removeMember(orbisk::fileindex::elastic::kMDTextContent, &text)) {
      reply.text = text.asString();
    }
    reply.kind = Reply::Kind::kRead;
  } catch (const std::bad_alloc&) {
    reply.kind = Reply::Kind::kMemory;
  } catch (const std::exception& error) {
    reply.kind = Reply::Kind::kBroken;
    reply.message = error.what();
  }
  return reply;
}

// The text of the reply needs memory too, which a content that fills the worker to the brim may have left too little
// of.
std::string TextOf(Reply& reply) {
  try {
    return Framed(ReplyText(reply));
  } catch (const std::bad_alloc&) {
    reply = Reply();
    reply.kind = Reply::Kind::kMemory;
    return Framed(ReplyText(reply));
  }
}

}  // namespace

void RunWorker(ContentReader& reader, int channel, size_t memory_bytes, pid_t parent) {
  try {
    CloseSandbox(channel, memory_bytes, parent);
  } catch (const std::exception&) {
    _exit(kWorkerNoSandbox);
  }
  while (std::optional<ReceivedFrame> order = ReceiveFrame(channel, kLongestOrder)) {
    Reply reply = ReadContent(reader, order->passed.get(), order->message);
    if (!SendBytes(channel, TextOf(reply))) {
      break;
    }
    // Whatever the reader forgot to close must not be there for the next content.
    order->passed.Close();
    close_range(static_cast<unsigned>(channel) + 1, std::numeric_limits<unsigned>::max(), 0);
    malloc_trim(kKeptHeapBytes);
  }
  _exit(kWorkerDone);
}

}  // namespace extractor
