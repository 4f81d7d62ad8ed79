// When, and on whose time, the texts of documents are packed.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <zstd.h>

#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "services/base/json_text.h"
#include "services/search/catalog.h"
#include "services/search/command_table.h"
#include "services/search/dispatcher.h"
#include "services/search/refusal.h"
#include "tests/support/eventually.h"
#include "tests/support/temp_dir.h"

namespace {

std::mutex packers_lock;
std::vector<std::thread::id> packers;  // who packed, in order

std::vector<std::thread::id> Packers() {
  const std::lock_guard guard(packers_lock);
  return packers;
}

}  // namespace

// Stands before the library's function of this name.
extern "C" size_t ZSTD_compress2(ZSTD_CCtx* context, void* to, size_t room, const void* from, size_t size) {
  static const auto real = reinterpret_cast<decltype(&ZSTD_compress2)>(dlsym(RTLD_NEXT, "ZSTD_compress2"));
  {
    const std::lock_guard guard(packers_lock);
    packers.push_back(std::this_thread::get_id());
  }
  return real(context, to, room, from, size);
}

namespace nimoelasticd {
namespace {

class Packing : public testing::Test {
 protected:
  Packing() {
    Json::Value mappings;
    mappings["property_id"] = "p";
    mappings["properties"]["p"]["analyzer"] = "keyword";
    mappings["properties"]["t"]["type"] = "text";
    mappings["properties"]["n"]["preprocess"].append("ngram");
    catalog_.Create("a", dir_ / "a", mappings, Json::Value(Json::objectValue), Json::Value());
    const std::lock_guard guard(packers_lock);
    packers.clear();
  }
  ~Packing() override {
    dispatcher_.Stop();
    catalog_.CloseAll();
  }

  static Json::Value Document(const std::string& path, size_t bytes) {
    Json::Value data;
    data["id"] = "a";
    data["doc_id"] = data["data"]["p"] = path;
    data["data"]["t"] = std::string(bytes, 'x');
    return data;
  }

  std::future<std::string> Submit(const std::string& name, const Json::Value& data) {
    Json::Value message;
    message["command"] = name;
    message["data"] = data;
    const auto answer = std::make_shared<std::promise<std::string>>();
    dispatcher_.Submit(service::ToText(message), [answer](std::string text) { answer->set_value(std::move(text)); });
    return answer->get_future();
  }

  std::string Ask(const std::string& name, const Json::Value& data) { return Submit(name, data).get(); }

  static constexpr char kDone[] = R"({"success":true})";
  orbisk::test::TempDir dir_;
  Catalog catalog_{dir_ / "list", {}};
  Dispatcher dispatcher_{catalog_, {}};
};

TEST_F(Packing, IsNeverTheWorkOfTheThreadThatTakesRequests) {
  constexpr size_t kShort = 10'000;
  constexpr size_t kLong = 200'000;

  EXPECT_EQ(kDone, Ask("document_upsert_by_id", Document("/short", kShort)));
  EXPECT_EQ(kDone, Ask("document_upsert_by_id", Document("/long", kLong)));

  ASSERT_EQ(2U, Packers().size());
  EXPECT_NE(std::this_thread::get_id(), Packers()[0]);
  EXPECT_NE(std::this_thread::get_id(), Packers()[1]);
}

TEST_F(Packing, OfALongDocumentIsDoneBeforeItsTurn) {
  std::promise<void> go_on;
  dispatcher_.Compact("a", {}, [&go_on](bool) { go_on.get_future().wait(); });  // the index's lane waits

  std::future<std::string> answer = Submit("document_upsert_by_id", Document("/long", 200'000));

  EXPECT_TRUE(orbisk::test::Eventually([] { return Packers().size() == 1; }));
  EXPECT_EQ(std::future_status::timeout, answer.wait_for(std::chrono::seconds(0)));
  go_on.set_value();
  EXPECT_EQ(kDone, answer.get());
  EXPECT_EQ(1U, Packers().size());
}

TEST_F(Packing, IsNotDoneForARename) {
  Ask("document_upsert_by_id", Document("/before", 10'000));
  ASSERT_EQ(1U, Packers().size());
  Json::Value rename;
  rename["id"] = "a";
  rename["doc_id"] = "/before";
  rename["data"]["p"] = "/after";
  rename["data"]["n"] = "after";  // words of the row, not of the texts

  EXPECT_NE(std::string::npos, Ask("document_set_by_id", rename).find("replaced"));

  EXPECT_EQ(1U, Packers().size());
  rename["doc_id"] = "/after";
  rename["data"]["t"] = std::string(10'000, 'y');
  Ask("document_set_by_id", rename);
  EXPECT_EQ(2U, Packers().size()) << "other texts";
}

TEST_F(Packing, IsAskedForAgainWhereTheIndexWasNotOpenInTime) {
  const Setting setting{catalog_, kMaxMessageBytes};
  try {
    DocumentUpsertById(setting, Document("/late", 10));
    ADD_FAILURE() << "not refused";
  } catch (const Refusal& refusal) {
    EXPECT_EQ(Code::kNotReady, refusal.code());
  }

  const HostPtr host = catalog_.Require("a");
  EXPECT_EQ(0, HostedIndex::Use(*host)->Stat(false).documents);
}

}  // namespace
}  // namespace nimoelasticd
