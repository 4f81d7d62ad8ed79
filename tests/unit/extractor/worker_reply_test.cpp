// What is believed of a worker's words.
#include "services/extractor/worker_reply.h"

#include <gtest/gtest.h>

#include "orbisk/fileindex/metadata_names.h"

namespace extractor {
namespace {

namespace names = orbisk::fileindex::elastic;

std::string Whole(const Reply& reply) {
  return ReplyHead(reply) + reply.text;
}

TEST(Order, ComesBackAsItWentIn) {
  const Order order = ParseOrder(OrderText({"a\xff\n\"b", 77}));

  EXPECT_EQ(order.name, "a\xff\n\"b");
  EXPECT_EQ(order.text_bytes, 77U);
}

TEST(Reply, ComesBackAsItWentIn) {
  Reply read;
  read.kind = Reply::Kind::kRead;
  read.cut = true;
  read.fields[names::kMDTitle] = "title";
  read.text = std::string("text\0\xff\"", 7);
  read.fields[names::kMDDurationSecond] = 1.5;
  Reply broken;
  broken.kind = Reply::Kind::kBroken;
  broken.message = "why";
  Reply memory;
  memory.kind = Reply::Kind::kMemory;

  const Reply read_back = ParseReply(Whole(read));

  EXPECT_EQ(read_back.kind, Reply::Kind::kRead);
  EXPECT_TRUE(read_back.cut);
  EXPECT_EQ(read_back.fields, read.fields);
  EXPECT_EQ(read_back.text, read.text);
  EXPECT_EQ(ParseReply(Whole(broken)).kind, Reply::Kind::kBroken);
  EXPECT_EQ(ParseReply(Whole(broken)).message, "why");
  EXPECT_EQ(ParseReply(Whole(memory)).kind, Reply::Kind::kMemory);
}

TEST(Reply, ThatIsNoneIsGarbled) {
  for (const char* text : {"", "x", "[]", "{}", R"({"fields":[],"cut":false})", R"({"fields":{}})",
                           R"({"fields":{},"cut":1})", R"({"broken":{}})", R"({"memory":1})"}) {
    EXPECT_EQ(ParseReply(text).kind, Reply::Kind::kGarbled) << text;
  }
}

TEST(Reply, TellsNoAttributes) {
  Reply told;
  told.kind = Reply::Kind::kRead;
  for (const char* name : names::kMetadataNames) {
    told.fields[name] = "x";
  }
  told.fields["Invented"] = "x";
  told.fields[names::kMDSearchAncestor] = "x";

  const Json::Value fields = ParseReply(Whole(told)).fields;

  for (const char* attribute : {names::kMDPath,
                                names::kMDParent,
                                names::kMDFSName,
                                names::kMDDisplayName,
                                names::kMDExtension,
                                names::kMDKind,
                                names::kMDFSSize,
                                names::kMDLogicalSize,
                                names::kMDPhysicalSize,
                                names::kMDFSContentChangeDate,
                                names::kMDAttributeChangeDate,
                                names::kMDFSCreationDate,
                                names::kMDLastUsedDate,
                                names::kMDOwnerUserID,
                                names::kMDOwnerGroupID,
                                names::kMDIsDir,
                                names::kMDPrivilege,
                                names::kMDIsEncrypted,
                                names::kMDSearchFileName,
                                names::kMDSearchAncestor,
                                "Invented"}) {
    EXPECT_FALSE(fields.isMember(attribute)) << attribute;
  }
  EXPECT_FALSE(fields.isMember(names::kMDTextContent)) << "it has a place of its own";
  EXPECT_TRUE(fields.isMember(names::kMDContentCreationDate));
}

TEST(Reply, TellsOnlyScalars) {
  const Reply reply = ParseReply(
      R"({"cut":false,"fields":{"NIMOMDTitle":["x"],"NIMOMDAuthors":{},"NIMOMDAlbum":null,"NIMOMDComment":"c"}})");

  EXPECT_EQ(reply.fields.getMemberNames(), std::vector<std::string>{"NIMOMDComment"});
}

TEST(Reply, BoundsWhatIsSaidAboutBrokenContent) {
  EXPECT_LE(ParseReply(R"({"broken":")" + std::string(100'000, 'x') + R"("})").message.size(), 500U);
}

}  // namespace
}  // namespace extractor
