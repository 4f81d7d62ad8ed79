// Takes orders and reads contents.
#include "services/extractor/worker_main.h"

#include <malloc.h>
#include <sys/resource.h>
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

constexpr size_t kKeptHeapBytes = size_t{1} << 20;
constexpr long kFaultsBetweenTrims = 256;  // a mebibyte

// Gives memory back that contents needed. Looking through the heap for it takes as long as reading a small file, and so
// does getting the pages anew for the next one; so it is done only when new pages came since the last time.
class HeapTrimmer {
 public:
  void TrimIfGrown() {
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) == 0 && usage.ru_minflt - faults_ > kFaultsBetweenTrims) {
      malloc_trim(kKeptHeapBytes);
      faults_ = usage.ru_minflt;
    }
  }

 private:
  long faults_ = 0;
};

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

// The words of the reply need memory too, which a content that fills the worker to the brim may have left too little
// of.
std::string HeadOf(Reply& reply) {
  try {
    return ReplyHead(reply);
  } catch (const std::bad_alloc&) {
    reply = Reply();
    reply.kind = Reply::Kind::kMemory;
    return ReplyHead(reply);
  }
}

}  // namespace

void RunWorker(ContentReader& reader, int channel, size_t memory_bytes, pid_t parent) {
  try {
    CloseSandbox(channel, memory_bytes, parent);
  } catch (const std::exception&) {
    _exit(kWorkerNoSandbox);
  }
  HeapTrimmer trimmer;
  while (std::optional<ReceivedFrame> order = ReceiveFrame(channel, kLongestOrder)) {
    Reply reply = ReadContent(reader, order->passed.get(), order->message);
    const std::string head = HeadOf(reply);
    if (!SendFrame(channel, head, reply.text)) {
      break;
    }
    // Whatever the reader forgot to close must not be there for the next content.
    order->passed.Close();
    close_range(static_cast<unsigned>(channel) + 1, std::numeric_limits<unsigned>::max(), 0);
    trimmer.TrimIfGrown();
  }
  _exit(kWorkerDone);
}

}  // namespace extractor
