// Events as the kernel writes them, whole and torn, and the look ahead.
#include "services/monitor/fanotify_stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <random>

#include "services/base/unique_fd.h"

namespace nimotifyd {

using service::UniqueFd;

namespace {

std::string InfoRecord(uint8_t type, uint64_t inode, const std::string& name) {
  std::string handle(8, '\0');
  const uint32_t size = sizeof(inode);
  const int32_t handle_type = 1;
  std::memcpy(handle.data(), &size, 4);
  std::memcpy(handle.data() + 4, &handle_type, 4);
  handle.append(reinterpret_cast<const char*>(&inode), sizeof(inode));
  std::string body(8, '\x11');  // file system
  body += handle;
  if (!name.empty()) {
    body += name;
    body += '\0';
  }
  body.resize((body.size() + 3) / 4 * 4);
  fanotify_event_info_header header{};
  header.info_type = type;
  header.len = static_cast<uint16_t>(sizeof(header) + body.size());
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + body;
}

std::string EventWith(uint64_t mask, const std::string& records) {
  fanotify_event_metadata metadata{};
  metadata.event_len = static_cast<uint32_t>(sizeof(metadata) + records.size());
  metadata.vers = FANOTIFY_METADATA_VERSION;
  metadata.metadata_len = sizeof(metadata);
  metadata.mask = mask;
  metadata.fd = FAN_NOFD;
  metadata.pid = 42;
  return std::string(reinterpret_cast<const char*>(&metadata), sizeof(metadata)) + records;
}

std::string Named(uint64_t mask, uint64_t folder, const std::string& name, uint64_t target) {
  return EventWith(
      mask, InfoRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, folder, name) + InfoRecord(FAN_EVENT_INFO_TYPE_FID, target, ""));
}

std::string Renamed(uint64_t old_folder, const std::string& old_name, uint64_t folder, const std::string& name,
                    uint64_t target) {
  return EventWith(FAN_RENAME | FAN_ONDIR, InfoRecord(FAN_EVENT_INFO_TYPE_OLD_DFID_NAME, old_folder, old_name) +
                                               InfoRecord(FAN_EVENT_INFO_TYPE_NEW_DFID_NAME, folder, name) +
                                               InfoRecord(FAN_EVENT_INFO_TYPE_FID, target, ""));
}

Handle HandleNo(uint64_t inode) {
  Handle handle;
  std::memset(&handle.file_system, 0x11, sizeof(handle.file_system));
  handle.type = 1;
  handle.size = sizeof(inode);
  std::memcpy(handle.bytes.data(), &inode, sizeof(inode));
  return handle;
}

// A pipe in the kernel's place; what is written at once is read at once.
class Source {
 public:
  Source() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    read_ = UniqueFd(ends[0]);
    write_ = UniqueFd(ends[1]);
  }
  int fd() const { return read_.get(); }
  void Write(const std::string& events) {
    EXPECT_EQ(write(write_.get(), events.data(), events.size()), static_cast<ssize_t>(events.size()));
  }

 private:
  UniqueFd read_;
  UniqueFd write_;
};

TEST(FanotifyStreamTest, EventGivesFolderNameAndObject) {
  const std::string bytes = Named(FAN_CREATE | FAN_ONDIR, 7, "na\xffme", 9);

  const std::optional<KernelEvent> event = ParseKernelEvent(bytes.data(), bytes.size());

  ASSERT_TRUE(event);
  EXPECT_EQ(event->pid, 42);
  EXPECT_TRUE(event->is_dir());
  EXPECT_EQ(event->name, "na\xffme");
  EXPECT_EQ(HandleOf(*event->folder), HandleNo(7));
  EXPECT_EQ(HandleOf(*event->target), HandleNo(9));
  EXPECT_EQ(event->old_folder, nullptr);
}

TEST(FanotifyStreamTest, RenameGivesBothPlaces) {
  const std::string bytes = Renamed(1, "old", 2, "new", 3);

  const std::optional<KernelEvent> event = ParseKernelEvent(bytes.data(), bytes.size());

  ASSERT_TRUE(event);
  EXPECT_EQ(event->old_name, "old");
  EXPECT_EQ(event->name, "new");
  EXPECT_EQ(HandleOf(*event->old_folder), HandleNo(1));
  EXPECT_EQ(HandleOf(*event->folder), HandleNo(2));
}

TEST(FanotifyStreamTest, RecordsOfUnknownKindsAreSteppedOver) {
  const std::string bytes =
      EventWith(FAN_CREATE, InfoRecord(200, 1, "x") + InfoRecord(FAN_EVENT_INFO_TYPE_PIDFD, 1, "") +
                                InfoRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, 7, "f"));

  const std::optional<KernelEvent> event = ParseKernelEvent(bytes.data(), bytes.size());

  ASSERT_TRUE(event);
  EXPECT_EQ(event->name, "f");
}

TEST(FanotifyStreamTest, TornAndGarbledEventsAreRefusedOrHarmless) {
  const std::string good = Renamed(1, "old", 2, "new", 3);
  for (size_t size = 0; size < good.size(); ++size) {
    EXPECT_FALSE(ParseKernelEvent(good.data(), size));
  }
  std::mt19937 random(1);
  for (int round = 0; round < 50'000; ++round) {
    std::string bad = good;
    for (int changes = 0; changes < 3; ++changes) {
      bad[random() % bad.size()] = static_cast<char>(random());
    }
    const std::optional<KernelEvent> event = ParseKernelEvent(bad.data(), bad.size());
    if (event && event->folder != nullptr) {
      HandleOf(*event->folder);
    }
  }
}

TEST(FanotifyStreamTest, EventsComeInOrderAcrossReads) {
  Source source;
  FanotifyStream stream(source.fd(), 1 << 20);
  EXPECT_FALSE(stream.Next());
  source.Write(Named(FAN_CREATE, 1, "a", 2) + Named(FAN_CREATE, 1, "b", 3));
  EXPECT_EQ(stream.Next()->name, "a");
  source.Write(Named(FAN_CREATE, 1, "c", 4));
  stream.ReadAhead();
  EXPECT_EQ(stream.Next()->name, "b");
  EXPECT_EQ(stream.Next()->name, "c");
  EXPECT_TRUE(stream.drained());
  EXPECT_FALSE(stream.Next());
}

TEST(FanotifyStreamTest, EventThatMakesNoSenseCountsAsLoss) {
  Source source;
  FanotifyStream stream(source.fd(), 1 << 20);
  std::string bad = Named(FAN_CREATE, 1, "a", 2);
  bad[0] = 1;
  source.Write(Named(FAN_CREATE, 1, "a", 2) + bad);

  EXPECT_EQ(stream.Next()->name, "a");
  EXPECT_EQ(stream.Next()->mask, FAN_Q_OVERFLOW);
  EXPECT_FALSE(stream.Next());
}

TEST(FanotifyStreamTest, LaterEventsTellWhereAFolderIsNow) {
  Source source;
  FanotifyStream stream(source.fd(), 1 << 20);
  source.Write(Named(FAN_MODIFY, 50, "f", 60) + Renamed(1, "first", 2, "second", 50) +
               Renamed(2, "second", 3, "third", 50) + Named(FAN_DELETE | FAN_ONDIR, 3, "third", 50));
  const auto place = [&] {
    stream.ReadAhead();
    const std::optional<FolderPlace> found = stream.PlaceByLaterEvent(HandleNo(50));
    return found ? found->name : std::string("unknown");
  };

  ASSERT_TRUE(stream.Next());
  EXPECT_EQ(place(), "first");
  ASSERT_TRUE(stream.Next());  // the rename itself: from here on it is at its target
  EXPECT_EQ(place(), "second");
  ASSERT_TRUE(stream.Next());
  EXPECT_EQ(place(), "third");
  ASSERT_TRUE(stream.Next());
  EXPECT_EQ(place(), "unknown");
}

TEST(FanotifyStreamTest, FilesAreNoPlacesOfFolders) {
  Source source;
  FanotifyStream stream(source.fd(), 1 << 20);
  source.Write(Named(FAN_MODIFY, 1, "f", 60) + Named(FAN_DELETE, 1, "f", 50));
  ASSERT_TRUE(stream.Next());
  stream.ReadAhead();

  EXPECT_FALSE(stream.PlaceByLaterEvent(HandleNo(50)));
}

TEST(FanotifyStreamTest, ReadingAheadIsBounded) {
  Source source;
  const size_t bound = 512 << 10;
  FanotifyStream stream(source.fd(), bound);
  std::string batch;
  while (batch.size() < 60'000) {
    batch += Named(FAN_CREATE, 1, std::string(200, 'n'), 2);
  }
  size_t held = 0;
  source.Write(batch);
  ASSERT_TRUE(stream.Next());
  for (int round = 0; round < 40; ++round) {
    stream.ReadAhead();
    std::string rest(1 << 20, '\0');
    const ssize_t left = read(source.fd(), rest.data(), rest.size());
    held += batch.size() - static_cast<size_t>(std::max<ssize_t>(left, 0));
    source.Write(batch);
  }
  EXPECT_LE(held, bound + (256 << 10));
}

}  // namespace
}  // namespace nimotifyd
