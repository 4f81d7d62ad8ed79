// The search daemon as its clients meet it: over the socket, with the mappings that shares have, on a disk.
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/report.h"
#include "bench/word_source.h"
#include "orbisk/fileindex/elastic_control.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"
#include "tests/system/search_support.h"

namespace orbisk::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFolder = 100'000;  // documents of the folder that is renamed and deleted
constexpr int kBetweenCommits = 5'000;
constexpr int kBatches = 10;  // of upserts that are timed
constexpr int kQueries = 400;
constexpr int kCompound = 1'000;  // upserts in one request where they are not timed
const char kIndex[] = "bench";

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The daemon with one index, and a client.
class Box {
 public:
  Box()
      : daemon_({test::BuiltProgram("nimoelasticd"), "--socket", Socket(), "--state-dir", dir_ / "state", "--group",
                 "root"}) {
    for (int i = 0; i < 1'000 && !std::filesystem::exists(Socket()); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    Json::Value data;
    data["id"] = kIndex;
    data["path"] = Folder();
    data["mappings"] = fileindex::elastic::GetFileIndexMappings();
    data["settings"] = fileindex::elastic::GetFileIndexSettings();
    Ask(Command("index_create", data));
  }
  ~Box() {
    daemon_.Kill(SIGTERM);
    daemon_.Wait(std::chrono::seconds(10));
  }
  Box(const Box&) = delete;
  Box& operator=(const Box&) = delete;

  static std::string Command(const std::string& name, const Json::Value& data) {
    return "{\"command\":\"" + name + "\",\"data\":" + test::JsonLine(data) + "}";
  }

  // The answer's text; throws when it is no success.
  std::string Ask(const std::string& request) const {
    test::RawClient client(Socket());
    // In one piece, as the library does it.
    const std::uint64_t length = request.size();
    client.Send(std::string(reinterpret_cast<const char*>(&length), sizeof(length)) + request);
    const std::optional<std::string> answer = client.ReceiveMessage(std::chrono::minutes(10));
    if (!answer || answer->find("\"success\":true}") == std::string::npos ||
        answer->find("\"has_fail\":true") != std::string::npos) {
      throw std::runtime_error("the daemon says: " + answer.value_or("nothing").substr(0, 500));
    }
    return *answer;
  }
  void Commit() const { Ask(Command("commit", Data())); }

  static Json::Value Data() {
    Json::Value data;
    data["id"] = kIndex;
    return data;
  }

  std::uintmax_t BytesOnDisk() const {
    std::uintmax_t bytes = 0;
    for (const auto& file : std::filesystem::directory_iterator(Folder())) {
      bytes += file.file_size();
    }
    return bytes;
  }
  // Of the daemon, all threads.
  double CpuSeconds() const {
    const std::string text = test::ReadFile("/proc/" + std::to_string(daemon_.pid()) + "/stat");
    long long user = 0;
    long long system = 0;
    sscanf(text.c_str() + text.rfind(')') + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lld %lld", &user,
           &system);
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }
  long PeakMemoryKib() const {
    const std::string status = test::ReadFile("/proc/" + std::to_string(daemon_.pid()) + "/status");
    return strtol(status.c_str() + status.find("VmHWM:") + 6, nullptr, 10);
  }

 private:
  std::string Socket() const { return dir_ / "socket"; }
  std::string Folder() const { return dir_ / "db"; }

  test::TempDir dir_{"/var/tmp"};
  test::Subprocess daemon_;
};

std::string PathOf(int number) {
  // The first hundred thousand are one folder.
  const std::string folder = number < kFolder ? "/volume1/share/big/" : "/volume1/share/f";
  return folder + std::to_string(number / 1'000) + "/document" + std::to_string(number) + ".txt";
}

// What the extractor tells of a small text.
std::string Upsert(int number, WordSource& words) {
  const std::string path = PathOf(number);
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::string parent = path.substr(0, path.rfind('/'));
  Json::Value data = Box::Data();
  data["doc_id"] = path;
  Json::Value& document = data["data"];
  document["NIMOMDPath"] = path;
  document["NIMOMDParent"] = parent;
  document["NIMOMDFSName"] = name;
  document["NIMOMDSearchFileName"] = name;
  document["NIMOMDSearchAncestor"] = parent;
  document["NIMOMDExtension"] = "txt";
  document["NIMOMDKind"] = "txt";
  document["NIMOMDIsDir"] = false;
  document["NIMOMDIsEncrypted"] = false;
  document["NIMOMDFSSize"] = 100 + number % 10'000;
  document["NIMOMDFSContentChangeDate"] = 1'700'000'000 + number;
  document["NIMOMDAttributeChangeDate"] = 1'700'000'000 + number;
  document["NIMOMDFSCreationDate"] = 1'700'000'000 + number;
  document["NIMOMDOwnerUserID"] = "1000";
  document["NIMOMDOwnerGroupID"] = "1000";
  document["NIMOMDPrivilege"] = "0644";
  document["NIMOMDTextContent"] = words.Text(30);
  return Box::Command("document_upsert_by_id", data);
}

// One request for each document, a commit after each batch; only what is between commits is timed.
bool TimeUpserts(const Box& box, int& next, WordSource& words, const std::string& when) {
  std::vector<double> rates;
  const double cpu = box.CpuSeconds();
  for (int batch = 0; batch < kBatches; ++batch) {
    std::vector<std::string> requests;
    requests.reserve(kBetweenCommits);
    for (int i = 0; i < kBetweenCommits; ++i) {
      requests.push_back(Upsert(next++, words));
    }
    const auto start = Clock::now();
    for (const std::string& request : requests) {
      box.Ask(request);
    }
    rates.push_back(kBetweenCommits / SecondsSince(start));
    box.Commit();
  }
  std::sort(rates.begin(), rates.end());
  printf("upserts a second, one by one, %s: slowest batch %.0f, fastest %.0f; the daemon computes %.0f us for each\n",
         when.c_str(), rates.front(), rates.back(), (box.CpuSeconds() - cpu) / (kBatches * kBetweenCommits) * 1e6);
  return Report("upserts a second from one client, " + when + ", median of batches", rates[kBatches / 2], "/s", 5'000,
                true);
}

void Fill(const Box& box, int& next, int documents, WordSource& words) {
  const int first = next;
  const auto start = Clock::now();
  while (next < documents) {
    std::string compound = "{\"compound\":[";
    for (int i = 0; i < kCompound && next < documents; ++i) {
      compound += (i > 0 ? "," : "") + Upsert(next++, words);
    }
    box.Ask(compound + "]}");
    if (next % (20 * kCompound) == 0) {
      box.Commit();
    }
  }
  box.Commit();
  printf("upserts in requests of %d, with commits: %.0f/s; making them included\n", kCompound,
         (next - first) / SecondsSince(start));
}

bool TimeSearches(const Box& box, int words_per_query, WordSource& words) {
  std::vector<double> milliseconds;
  for (int i = 0; i < kQueries; ++i) {
    Json::Value data = Box::Data();
    data["query"] = words.Text(words_per_query);
    const std::string request = Box::Command("document_search", data);
    const auto start = Clock::now();
    box.Ask(request);
    milliseconds.push_back(SecondsSince(start) * 1e3);
  }
  std::sort(milliseconds.begin(), milliseconds.end());
  const std::string what = "search of " + std::to_string(words_per_query) + (words_per_query == 1 ? " word" : " words");
  const bool median = Report(what + ", median", milliseconds[kQueries / 2], "ms", 10);
  return Report(what + ", 99th percentile", milliseconds[kQueries * 99 / 100], "ms", 100) && median;
}

Json::Value Below(const std::string& folder) {
  Json::Value data = Box::Data();
  data["query"]["qsl"]["prefix"]["NIMOMDPath"] = folder + "/";
  return data;
}

// As the library does it: a question for the subtree, one compound request with what changes, a commit. There are no
// files, so none can be read.
bool TimeRename(const Box& box) {
  const std::string from = "/volume1/share/big";
  const std::string to = "/volume1/share/moved";
  const double cpu = box.CpuSeconds();
  const auto start = Clock::now();
  Json::Value question = Below(from);
  for (const char* field : {"NIMOMDPath", "NIMOMDFSName", "NIMOMDParent"}) {
    question["load_field"].append(field);
  }
  Json::Value answer;
  Json::Reader().parse(box.Ask(Box::Command("document_get_by_query", question)), answer);
  std::string compound = "{\"compound\":[";
  for (const Json::Value& hit : answer["data"]) {
    const std::string parent = to + hit["NIMOMDParent"].asString().substr(from.size());
    Json::Value change = Box::Data();
    change["doc_id"] = hit["NIMOMDPath"];
    change["data"]["NIMOMDPath"] = parent + "/" + hit["NIMOMDFSName"].asString();
    change["data"]["NIMOMDParent"] = parent;
    change["data"]["NIMOMDSearchAncestor"] = parent;
    compound += (compound.back() == '[' ? "" : ",") + Box::Command("document_set_by_id", change);
  }
  box.Ask(compound + "]}");
  box.Commit();
  const double seconds = SecondsSince(start);
  if (answer["data"].size() != kFolder) {
    throw std::runtime_error("the folder has " + std::to_string(answer["data"].size()) + " documents");
  }
  printf("renaming: the daemon computes %.2f s\n", box.CpuSeconds() - cpu);
  return Report("renaming a folder of 100,000 documents", seconds, "s", 5);
}

bool TimeDelete(const Box& box) {
  const double cpu = box.CpuSeconds();
  const auto start = Clock::now();
  const std::string answer = box.Ask(Box::Command("document_del_by_query", Below("/volume1/share/moved")));
  box.Commit();
  const double seconds = SecondsSince(start);
  if (answer.find("\"deleted\":" + std::to_string(kFolder)) == std::string::npos) {
    throw std::runtime_error("not the folder was deleted: " + answer);
  }
  printf("deleting: the daemon computes %.2f s\n", box.CpuSeconds() - cpu);
  return Report("deleting a folder of 100,000 documents", seconds, "s", 5);
}

int Run(int documents) {
  const Box box;
  WordSource words;
  int next = 0;
  bool kept = TimeUpserts(box, next, words, "into an empty index");
  Fill(box, next, documents - kBatches * kBetweenCommits, words);
  kept = TimeUpserts(box, next, words, "up to " + std::to_string(documents)) && kept;
  printf("%d documents of 30 words: %.0f bytes each on disk\n", next,
         static_cast<double>(box.BytesOnDisk()) / static_cast<double>(next));
  for (int count = 1; count <= 3; ++count) {
    kept = TimeSearches(box, count, words) && kept;
  }
  kept = TimeRename(box) && kept;
  kept = TimeDelete(box) && kept;
  printf("peak memory of the daemon: %ld MiB\n", box.PeakMemoryKib() / 1024);
  return kept ? 0 : 1;
}

}  // namespace
}  // namespace orbisk::bench

// usage: search_socket_bench [DOCUMENTS]    default 1,000,000; at least 200,000
int main(int argc, char** argv) try {
  return orbisk::bench::Run(std::max(argc > 1 ? atoi(argv[1]) : 1'000'000, 200'000));
} catch (const std::exception& error) {
  fprintf(stderr, "search_socket_bench: %s\n", error.what());
  return 2;
}
