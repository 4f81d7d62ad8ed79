// Hits of a search as lines for people.
#pragma once

#include <json/json.h>

#include <string>

namespace fileindexctl {

// Threads: every function may be called from any thread.

/// What the search daemon is asked to put round the found words of a snippet. Control bytes, so that text that looks
/// like a mark is rare, and harmless where it comes.
constexpr char kMarkBegin[] = "\x02";
constexpr char kMarkEnd[] = "\x03";

/// Whether what is written to `descriptor` should have colours: it is a terminal that knows them, and the user has not
/// set NO_COLOR.
bool WantsColor(int descriptor);

/// The fields that HitLine reads, for "load_field".
Json::Value HitFields();

/// The path, the size ("dir" for a folder), the local time of the last change and the snippet of `hit`, two blanks
/// between them, "-" for what is unknown, and a newline. Control bytes of names and text are made visible, so that a
/// hit is one line and cannot command the terminal.
std::string HitLine(const Json::Value& hit, bool color);

/// `bytes` in at most four digits: "0B", "1023B", "1.5K", "12M".
std::string SizeText(Json::UInt64 bytes);

}  // namespace fileindexctl
