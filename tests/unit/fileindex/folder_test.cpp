// One indexed folder: what it is made of, what it finds out on first use, and its status.
#include "orbisk/fileindex/folder.h"

#include <gtest/gtest.h>

#include <array>

#include "orbisk/error.h"
#include "orbisk/fileindex/status_mgr.h"
#include "orbisk/json.h"
#include "tests/support/fake_box.h"
#include "tests/support/fake_filesystem.h"
#include "tests/support/fake_share.h"
#include "tests/support/fake_time.h"
#include "tests/support/record_capture.h"
#include "tests/unit/fileindex/config_box.h"
#include "tests/unit/fileindex/queue_lines.h"
#include "tests/unit/record_match.h"

namespace orbisk::fileindex::test {
namespace {

using orbisk::test::ExpectFailure;
using orbisk::test::FakeFileSystem;
using orbisk::test::FakeIndexLocation;
using orbisk::test::FakeShares;
using orbisk::test::FakeTime;
using orbisk::test::RecordCapture;
using orbisk::test::WriteFile;

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(fromString(value, text)) << text;
  return value;
}

Json::Value WholeEntry() {
  return Parse(R"({"path":"/photo/a","name":"A","document":true,"audio":false,"video":true,"photo":false,)"
               R"("owner":"ann","group":"family","privileged":true,"paused":true,"volume_to_be_clean":"/volume2"})");
}

// What making a Folder of `data` says, and its one record.
void ExpectRefused(const Json::Value& data, const std::string& condition, const std::string& reason) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_EQ("120 " + reason, ErrorOf([&] { const Folder folder(data); }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "json.cpp", "GetJsonValue", condition, reason);
}

TEST(FolderMaking, FromFieldsIgnoresTheGroupAndHasNoVolume) {
  const Folder folder("/photo/a", "A", "ann", "all", true, false, true, false, true, false);
  EXPECT_EQ(Parse(R"({"path":"/photo/a","name":"A","document":true,"audio":false,"video":true,"photo":false,)"
                  R"("owner":"ann","group":"","privileged":true,"paused":false,"volume_to_be_clean":""})"),
            folder.GetData());
}

TEST(FolderMaking, EachFlagOfTheFieldsIsItsOwn) {
  for (unsigned flag = 0; flag < 6; ++flag) {
    const auto is = [&](unsigned number) { return number == flag; };
    const Folder folder("/a", "", "", "", is(0), is(1), is(2), is(3), is(4), is(5));
    const std::array kFlags = {folder.IsDocument(), folder.IsAudio(),      folder.IsVideo(),
                               folder.IsPhoto(),    folder.IsPrivileged(), folder.IsPaused()};
    for (unsigned number = 0; number < kFlags.size(); ++number) {
      EXPECT_EQ(is(number), kFlags[number]) << flag << " " << number;
    }
  }
}

TEST(FolderMaking, FromJsonComesBackAsItWas) {
  const Folder folder(WholeEntry());
  EXPECT_EQ(WholeEntry(), folder.GetData());
  EXPECT_EQ("/photo/a", folder.GetPath());
  EXPECT_EQ("A", folder.GetName());
  EXPECT_EQ("ann", folder.GetOwner());
  EXPECT_EQ("family", folder.GetGroup());
  EXPECT_EQ("/volume2", folder.GetVolumeToBeClean());
  EXPECT_TRUE(folder.IsPrivileged());
  EXPECT_TRUE(folder.IsPaused());
}

TEST(FolderMaking, EachFlagOfTheJsonIsItsOwn) {
  for (const char* const flag : {"document", "audio", "video", "photo", "privileged", "paused"}) {
    Json::Value data = Entry("/photo/a", "");
    data[flag] = true;
    const Json::Value stored = Folder(data).GetData();
    for (const char* const other : {"document", "audio", "video", "photo", "privileged", "paused"}) {
      EXPECT_EQ(std::string(other) == flag, stored[other].asBool()) << flag << " " << other;
    }
  }
}

TEST(FolderMaking, OptionalMembersThatAreMissingHaveDefaults) {
  const Folder folder(Entry("/photo/a"));
  EXPECT_EQ("", folder.GetOwner());
  EXPECT_EQ("", folder.GetGroup());
  EXPECT_EQ("", folder.GetVolumeToBeClean());
  EXPECT_FALSE(folder.IsPrivileged());
  EXPECT_FALSE(folder.IsPaused());
}

TEST(FolderMaking, OptionalMembersOfTheWrongTypeHaveDefaults) {
  Json::Value data = WholeEntry();
  for (const char* const member : {"owner", "group", "privileged", "paused", "volume_to_be_clean"}) {
    data[member] = Json::Value(Json::arrayValue);
  }
  const Folder folder(data);
  EXPECT_EQ("", folder.GetOwner() + folder.GetGroup() + folder.GetVolumeToBeClean());
  EXPECT_FALSE(folder.IsPrivileged());
  EXPECT_FALSE(folder.IsPaused());
}

TEST(FolderMaking, TheFirstRequiredMemberThatIsMissingIsReported) {
  const std::array kInOrder = {"path", "name", "document", "audio", "video", "photo"};
  for (size_t first = 0; first < kInOrder.size(); ++first) {
    Json::Value data = WholeEntry();
    for (size_t i = first; i < kInOrder.size(); ++i) {
      data.removeMember(kInOrder[i]);
    }
    data["group"] = "all";  // looked at only after reading
    ExpectRefused(data, "!json.isMember(key)",
                  "Missing property: " + std::string(kInOrder[first]) + ", data=" + toString(data));
  }
}

TEST(FolderMaking, ARequiredMemberOfTheWrongTypeIsRefused) {
  for (const char* const member : {"path", "name", "document", "audio", "video", "photo"}) {
    Json::Value data = WholeEntry();
    data[member] = Json::Value(Json::arrayValue);
    ExpectRefused(data, "!isJsonType<T>(json[key])", "Not a string, data=" + toString(data));
  }
}

TEST(FolderMaking, WhatIsNoObjectIsRefused) {
  ExpectRefused(Json::Value(Json::arrayValue), "!json.isObject()", "Not an object, data=[]");
  ExpectRefused(Json::Value(), "!json.isObject()", "Not an object, data=null");
}

TEST(FolderMaking, TheGroupAllIsReserved) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_EQ("120 \"all\" is reserved group name", ErrorOf([] { const Folder folder(Entry("/a", "", "A", "all")); }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "folder.cpp", "Validate", "kAll == group_", "\"all\" is reserved group name");
}

TEST(FolderMaking, NothingElseIsValidated) {
  for (const char* const group : {"ALL", "All", "all ", "al"}) {
    EXPECT_EQ(group, Folder(Entry("/a", "", "A", group)).GetGroup());
  }
  for (const char* const path : {"", "photo", "/", "//", "/../x", "/photo/"}) {
    EXPECT_EQ(path, Folder(path, "", "", "", false, false, false, false, false, false).GetPath());
  }
}

TEST(FolderMaking, BytesThatAreNotUtf8StayAsTheyAre) {
  const std::string path = "/photo/\xff\xc3(";
  EXPECT_EQ(path, Folder(Folder(Entry(path)).GetData()).GetPath());
}

TEST(FolderData, TheIndexConfigurationIsTheFourKinds) {
  EXPECT_EQ(Parse(R"({"document":true,"audio":false,"video":true,"photo":false})"), Folder(WholeEntry()).GetIndexCfg());
}

TEST(FolderData, SwitchesAreStored) {
  Folder folder(Entry("/photo/a"));
  folder.SetPaused(true);
  folder.SetVolumeToBeClean("/volume3");
  EXPECT_TRUE(folder.GetData()["paused"].asBool());
  EXPECT_EQ("/volume3", folder.GetData()["volume_to_be_clean"].asString());
}

class FolderPlace : public testing::Test {
 protected:
  FolderPlace() {
    box_.AddShare("photo");
    box_.AddShare("music");
  }

  ConfigBox box_;
};

TEST_F(FolderPlace, TheShareIsTheFirstComponent) {
  EXPECT_EQ("photo", Folder(Entry("/photo/a/b")).GetShare());
  EXPECT_EQ("photo", Folder(Entry("/photo")).GetShare());
  EXPECT_EQ("", Folder(Entry("/")).GetShare());
}

TEST_F(FolderPlace, AMalformedPathHasNoShare) {
  for (const char* const path : {"", "photo/a"}) {
    const Folder folder(Entry(path));
    const RecordCapture capture;
    errno = 0;
    EXPECT_EQ("120 ", ErrorOf([&] { folder.GetShare(); }));
    ASSERT_EQ(1U, capture.records().size());
    ExpectFailure(capture.records()[0], "util.cpp", "GetShareNameByPath",
                  "1 > share_path.size() || '/' != share_path.at(0)", "");
  }
}

TEST_F(FolderPlace, TheFullPathIsAskedOnce) {
  const Folder folder(Entry("/photo/a"));
  EXPECT_EQ(box_.Full("/photo/a"), folder.GetFullPath());
  const size_t asked = FakeShares().get.calls().size();
  EXPECT_EQ(box_.Full("/photo/a"), folder.GetFullPath());
  EXPECT_EQ(asked, FakeShares().get.calls().size());
}

TEST_F(FolderPlace, AFullPathThatCannotBeHadIsAskedAgain) {
  const Folder folder(Entry("/photo/a"));
  FakeShares().get.FailAt(1);
  EXPECT_EQ("800 photo", ErrorOf([&] { folder.GetFullPath(); }));
  EXPECT_EQ(box_.Full("/photo/a"), folder.GetFullPath());
}

TEST_F(FolderPlace, SettingTheShareRewritesThePath) {
  Folder folder(Entry("/photo/a/photo"));
  folder.SetShare("music");
  EXPECT_EQ("/music/a/photo", folder.GetPath());
  EXPECT_EQ("music", folder.GetShare());
  EXPECT_EQ(box_.Full("/music/a/photo"), folder.GetFullPath());
}

TEST_F(FolderPlace, SettingTheShareOfTheShareItself) {
  Folder folder(Entry("/photo"));
  folder.SetShare("music");
  EXPECT_EQ("/music", folder.GetPath());
}

TEST_F(FolderPlace, TheShareThatWasSetIsNotFoundOutAnew) {
  Folder folder(Entry("/photo/a"));
  folder.SetShare("x/y");
  EXPECT_EQ("/x/y/a", folder.GetPath());
  EXPECT_EQ("x/y", folder.GetShare());
}

TEST_F(FolderPlace, SettingTheShareLeavesAKnownFullPathStale) {
  Folder folder(Entry("/photo/a"));
  folder.GetFullPath();
  folder.SetShare("music");
  EXPECT_EQ(box_.Full("/photo/a"), folder.GetFullPath());
}

TEST_F(FolderPlace, SettingTheShareOfAMalformedPathFailsAndChangesNothing) {
  Folder folder(Entry("photo/a"));
  EXPECT_EQ("120 ", ErrorOf([&] { folder.SetShare("music"); }));
  EXPECT_EQ("photo/a", folder.GetPath());
}

TEST_F(FolderPlace, SettingThePathForgetsShareAndFullPath) {
  Folder folder(Entry("/photo/a"));
  folder.GetShare();
  folder.GetFullPath();
  folder.SetPath("/music/b");
  EXPECT_EQ("/music/b", folder.GetPath());
  EXPECT_EQ("music", folder.GetShare());
  EXPECT_EQ(box_.Full("/music/b"), folder.GetFullPath());
}

class FolderState : public testing::Test {
 protected:
  FolderState() {
    box_.AddShare("photo");
    box_.MakeFolder("/photo/a");
    box_.MakeFolder("/photo/ab");
  }

  void WriteQueue(const std::vector<std::string>& lines) const { WriteFile(queue_of_photo(), Join(lines)); }
  void WriteSide(const std::vector<std::string>& lines) const { WriteFile(queue_of_photo() + ".tmp", Join(lines)); }
  static std::string queue_of_photo() { return ConfigBox::QueuePath("photo"); }

  static std::string StatusText(const std::string& path = "/photo/a") {
    Json::Value status;
    Folder(Entry(path)).GetStatus(status);
    return toString(status);
  }
  static bool IsIndexing(const std::string& path) { return Folder(Entry(path)).IsIndexing(); }

  ConfigBox box_;
  FakeTime time_{1000};
};

using FolderIndexing = FolderState;

TEST_F(FolderIndexing, NothingQueuedIsNotIndexing) {
  EXPECT_FALSE(IsIndexing("/photo/a"));
}

TEST_F(FolderIndexing, EventsAtOrBelowTheFolderCount) {
  for (const char* const path : {"/photo/a", "/photo/a/f", "/photo/a/b/c"}) {
    WriteQueue({Create(box_.Full(path))});
    EXPECT_TRUE(IsIndexing("/photo/a")) << path;
  }
  for (const char* const path : {"/photo/ab", "/photo", "/photo/b/a"}) {
    WriteQueue({Create(box_.Full(path))});
    EXPECT_FALSE(IsIndexing("/photo/a")) << path;
  }
}

TEST_F(FolderIndexing, TheOldPathOfARenameCounts) {
  WriteQueue({Rename(box_.Full("/photo/a/f"), box_.Full("/photo/ab/f"))});
  EXPECT_TRUE(IsIndexing("/photo/a"));
  EXPECT_TRUE(IsIndexing("/photo/ab"));
}

TEST_F(FolderIndexing, TheSideFileCounts) {
  WriteQueue({Create(box_.Full("/photo/x"))});
  WriteSide({Create(box_.Full("/photo/a/f"))});
  EXPECT_TRUE(IsIndexing("/photo/a"));
  EXPECT_FALSE(IsIndexing("/photo/ab"));
}

TEST_F(FolderIndexing, AStaleFullPathIsWhatIsAskedFor) {
  box_.AddShare("music");
  Folder folder(Entry("/photo/a"));
  folder.GetFullPath();
  folder.SetShare("music");
  WriteFile(ConfigBox::QueuePath("music"), Join({Create(box_.Full("/photo/a/f"))}));
  EXPECT_TRUE(folder.IsIndexing());
}

TEST_F(FolderIndexing, FailuresGoOut) {
  EXPECT_EQ("800 gone", ErrorOf([] { IsIndexing("/gone/a"); }));
  EXPECT_EQ("120 ", ErrorOf([] { IsIndexing("photo"); }));

  FakeIndexLocation().queue_path.FailAt(1);
  EXPECT_EQ("502 FILEIDXQueuePathCompose failed, share=photo", ErrorOf([] { IsIndexing("/photo/a"); }));

  WriteQueue({"{"});
  EXPECT_EQ("906 Malformed event_raw: {", ErrorOf([] { IsIndexing("/photo/a"); }));

  WriteFile(kFoldersFile, "{");
  EXPECT_EQ(std::string("504 Cannot load json: ") + kFoldersFile, ErrorOf([] { IsIndexing("/photo/a"); }))
      << "the configuration is read before the queue";
}

TEST_F(FolderIndexing, ABadLineBehindTheAnswerIsNotReached) {
  WriteQueue({Create(box_.Full("/photo/a/f")), "{"});
  EXPECT_TRUE(IsIndexing("/photo/a"));
  EXPECT_EQ("906 Malformed event_raw: {", ErrorOf([] { IsIndexing("/photo/ab"); }));
}

using FolderStatusText = FolderState;

TEST_F(FolderStatusText, FinishedWhenNothingIsQueued) {
  EXPECT_EQ(R"({"text":"finished"})", StatusText());
}

TEST_F(FolderStatusText, ProcessingWhileEventsAreQueued) {
  WriteQueue({Create(box_.Full("/photo/a/f"))});
  EXPECT_EQ(R"({"text":"processing"})", StatusText());
  EXPECT_EQ(R"({"text":"finished"})", StatusText("/photo/ab"));
}

TEST_F(FolderStatusText, PausedOnlyWhileEventsAreQueuedAndThePauseLasts) {
  const auto with_pause = [](const std::string& resume_time) {
    WriteFile(kStatusFile, "{\"resume_time\":" + resume_time + "}");
    return StatusText();
  };
  EXPECT_EQ(R"({"text":"finished"})", with_pause("0"));
  WriteQueue({Create(box_.Full("/photo/a/f"))});
  EXPECT_EQ(R"({"text":"paused"})", with_pause("0")) << "without end";
  EXPECT_EQ(R"({"text":"paused"})", with_pause("1001"));
  EXPECT_EQ(R"({"text":"processing"})", with_pause("1000")) << "ends now";
  EXPECT_EQ(R"({"text":"processing"})", with_pause("999")) << "expired";
  EXPECT_EQ(R"({"text":"processing"})", with_pause("-1")) << "none";
}

TEST_F(FolderStatusText, TheFoldersOwnPauseSwitchPlaysNoPart) {
  WriteQueue({Create(box_.Full("/photo/a/f"))});
  Folder folder(Entry("/photo/a"));
  folder.SetPaused(true);
  Json::Value status;
  folder.GetStatus(status);
  EXPECT_EQ("processing", status["text"].asString());
}

TEST_F(FolderStatusText, NeedReindexBeatsTheQueueWhichIsNotLookedAt) {
  WriteFile(kStatusFile, R"({"resume_time":0,"share":{"photo":1}})");
  EXPECT_EQ(R"({"text":"need_reindex"})", StatusText());
  WriteQueue({"{"});
  EXPECT_EQ(R"({"text":"need_reindex"})", StatusText());
}

TEST_F(FolderStatusText, OnlyBitOneOfTheShareItselfIsNeedReindex) {
  const auto with_flags = [](const std::string& shares) {
    WriteFile(kStatusFile, R"({"share":)" + shares + "}");
    return StatusText();
  };
  EXPECT_EQ(R"({"text":"finished"})", with_flags(R"({"photo":2})"));
  EXPECT_EQ(R"({"text":"finished"})", with_flags(R"({"photo":0,"music":1})"));
  EXPECT_EQ(R"({"text":"need_reindex"})", with_flags(R"({"photo":3})"));
}

TEST_F(FolderStatusText, APathThatMayNotBeIndexedBeatsEverything) {
  WriteFile(kStatusFile, R"({"resume_time":0,"share":{"photo":1}})");
  WriteQueue({Create(box_.Full("/photo/missing/f"))});
  EXPECT_EQ(R"({"desc":"invalid_path","text":"error"})", StatusText("/photo/missing"));
  WriteFile(kStatusFile, "[]");
  EXPECT_EQ(R"({"desc":"invalid_path","text":"error"})", StatusText("/photo/missing"));
}

TEST_F(FolderStatusText, TheStatusFileIsReadFirst) {
  WriteFile(kStatusFile, "{");
  EXPECT_EQ(std::string("504 Cannot load json: ") + kStatusFile, ErrorOf([] { StatusText("/gone/a"); }));
}

TEST_F(FolderStatusText, FailuresGoOut) {
  EXPECT_EQ("800 gone", ErrorOf([] { StatusText("/gone/a"); }));
  EXPECT_EQ("120 ", ErrorOf([] { StatusText("photo/a"); }));
  FakeShares().is_encrypted.FailAt(1);
  EXPECT_EQ("502 NLIBShareis_encryptedGet failed, share=photo", ErrorOf([] { StatusText(); }));
  WriteFile(kStatusFile, "[]");
  EXPECT_EQ("120 Not an object, data=[]", ErrorOf([] { StatusText(); }));
}

using FolderAdditional = FolderState;

TEST_F(FolderAdditional, NothingAskedForAddsNothing) {
  const Folder folder(WholeEntry());
  EXPECT_EQ(WholeEntry(), folder.GetDataWithAdditional(Json::Value(Json::arrayValue)));
}

TEST_F(FolderAdditional, TheStatusStandsBelowAdditional) {
  Json::Value expected = WholeEntry();
  expected["additional"]["status"]["text"] = "finished";
  EXPECT_EQ(expected, Folder(WholeEntry()).GetDataWithAdditional(Parse(R"(["status"])")));
  EXPECT_EQ(expected, Folder(WholeEntry()).GetDataWithAdditional(Parse(R"(["status","status"])")));
}

TEST_F(FolderAdditional, WhatIsNoArrayIsRefused) {
  for (const char* const text : {R"({"a":1})", R"("status")", "null", "7"}) {
    const RecordCapture capture;
    errno = 0;
    EXPECT_EQ("120 " + std::string(text), ErrorOf([&] { Folder(WholeEntry()).GetDataWithAdditional(Parse(text)); }));
    ASSERT_EQ(1U, capture.records().size());
    ExpectFailure(capture.records()[0], "folder.cpp", "GetDataWithAdditional", "!addiitionals.isArray()", text);
  }
}

TEST_F(FolderAdditional, AnElementThatIsNoTextIsRefused) {
  const RecordCapture capture;
  errno = 0;
  EXPECT_EQ("120 {\"a\":1}",
            ErrorOf([] { Folder(WholeEntry()).GetDataWithAdditional(Parse(R"([{"a":1},"nothing"])")); }));
  ASSERT_EQ(1U, capture.records().size());
  ExpectFailure(capture.records()[0], "folder.cpp", "GetDataWithAdditional", "!it.isString()", "{\"a\":1}");
}

TEST_F(FolderAdditional, AnUnknownNameIsRefused) {
  const RecordCapture capture;
  EXPECT_EQ("120 Unknown additioal: Status",
            ErrorOf([] { Folder(WholeEntry()).GetDataWithAdditional(Parse(R"(["status","Status"])")); }));
  ASSERT_EQ(1U, capture.records().size());
  EXPECT_NE(std::string::npos, capture.texts()[0].find("reason: Unknown additioal: Status"));
}

}  // namespace
}  // namespace orbisk::fileindex::test
