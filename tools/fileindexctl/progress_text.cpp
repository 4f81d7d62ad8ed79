// What the indexing daemon does, for people who watch it.
#include "tools/fileindexctl/progress_text.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "tools/fileindexctl/columns.h"
#include "tools/fileindexctl/event_text.h"

namespace fileindexctl {
namespace {

constexpr size_t kBarCells = 20;
constexpr size_t kLongestName = 24;

std::uint64_t CountOf(const Json::Value& value) {
  return value.isUInt64() ? value.asUInt64() : 0;
}

struct Counts {
  explicit Counts(const Json::Value& share)
      : done(CountOf(share["done"])), total(done + CountOf(share["to_do"])), failed(CountOf(share["failed"])) {}
  std::uint64_t done;
  std::uint64_t total;
  std::uint64_t failed;
};

// A part that is not done keeps the bar from being full.
std::uint64_t PartOf(std::uint64_t whole, const Counts& counts) {
  return counts.total == 0
             ? 0
             : static_cast<std::uint64_t>(static_cast<long double>(whole) * static_cast<long double>(counts.done) /
                                          static_cast<long double>(counts.total));
}

bool IsIdle(const Json::Value& share) {
  return share["state"].asString() == "idle";
}

std::string Bar(const Json::Value& share, const Counts& counts) {
  const bool all = counts.total == 0 && IsIdle(share);
  const size_t full = all ? kBarCells : static_cast<size_t>(PartOf(kBarCells, counts));
  const std::string percent = std::to_string(all ? 100 : PartOf(100, counts));
  return "[" + std::string(full, '#') + std::string(kBarCells - full, '.') + "] " +
         std::string(percent.size() < 3 ? 3 - percent.size() : 0, ' ') + percent + "%";
}

std::string NumbersOf(const Json::Value& share, const Counts& counts) {
  std::string text = std::to_string(counts.done) + " of " + std::to_string(counts.total);
  if (share["rate"].isNumeric() && !IsIdle(share)) {
    text += ", " + std::to_string(std::lround(share["rate"].asDouble())) + " per second";
  }
  if (counts.failed > 0) {
    text += ", " + std::to_string(counts.failed) + " failed";
  }
  return text;
}

// The file in work, or what is wrong; empty if there is neither.
std::string DetailOf(const Json::Value& share) {
  const std::string problem = share["problem"].asString();
  return OneLine(problem.empty() ? share["file"].asString() : problem);
}

size_t LongestName(const Json::Value& shares) {
  size_t longest = 0;
  for (const Json::Value& share : shares) {
    longest = std::max(longest, ColumnsOf(OneLine(share["share"].asString())));
  }
  return std::min(longest, kLongestName);
}

// Adds one share's line or two.
void AddShare(std::vector<std::string>& lines, const Json::Value& share, size_t name_width, size_t columns) {
  const Counts counts(share);
  std::string line = CutToColumns(OneLine(share["share"].asString()), name_width);
  line.append(name_width - ColumnsOf(line) + 2, ' ');
  line += Bar(share, counts) + "  " + share["state"].asString() + ", " + NumbersOf(share, counts);
  lines.push_back(CutToColumns(line, columns));
  const size_t indent = name_width + 2;
  if (const std::string detail = DetailOf(share); !detail.empty() && columns > indent) {
    lines.push_back(std::string(indent, ' ') + CutFrontToColumns(detail, columns - indent));
  }
}

}  // namespace

std::vector<std::string> ProgressLines(const Json::Value& status, size_t columns, size_t rows) {
  std::vector<std::string> lines;
  if (status["paused"].asBool()) {
    lines.push_back(CutToColumns("Indexing is paused.", columns));
  }
  std::vector<const Json::Value*> shares;
  size_t needed = lines.size();
  for (const Json::Value& share : status["shares"]) {
    shares.push_back(&share);
    needed += DetailOf(share).empty() ? 1 : 2;
  }
  const bool all_fit = needed <= rows;
  if (!all_fit) {
    std::stable_partition(shares.begin(), shares.end(), [](const auto* share) { return !IsIdle(*share); });
  }
  const size_t name_width = LongestName(status["shares"]);
  size_t shown = 0;
  while (shown < shares.size() && (all_fit || lines.size() + 3 <= rows)) {  // two of its own, and the last line
    AddShare(lines, *shares[shown++], name_width, columns);
  }
  if (shown < shares.size()) {
    lines.push_back(CutToColumns("and " + std::to_string(shares.size() - shown) + " more shares", columns));
  }
  return lines;
}

std::string ProgressLine(const Json::Value& share) {
  const std::string detail = DetailOf(share);
  return OneLine(share["share"].asString()) + ": " + share["state"].asString() + ", " +
         NumbersOf(share, Counts(share)) + (detail.empty() ? "" : ", " + detail);
}

}  // namespace fileindexctl
