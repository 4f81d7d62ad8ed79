// The request channel to the search daemon.
#pragma once

#include <json/json.h>

#include "orbisk/export.h"

namespace orbisk {

// A request is an object with "command" and "data", or with "compound", an array of such objects. The response is an
// object with "success", and "error" with "code" and "msg" or "data". Each exchange has a connection of its own.
//
// Threads: all functions may be called from any thread. They can take very long: hold no lock that others need.

/// One exchange. Waits at most 31 s for the daemon's socket to appear.
///
/// `res` becomes the response, whatever it says; it stays as it was if none came. Sub-requests of a compound request
/// that failed are written to the log and tolerated.
///
/// Throws Error 913 if the daemon cannot be reached or its answer is no response, Error 120 if a refusal names no
/// reason, and the daemon's own code with "Request failed, msg=<msg>" if it refuses; with the bare message if a
/// sub-request failed because the daemon is busy (1400, 1401).
ORBISK_EXPORT void SendRequestImpl(Json::Value& res, const Json::Value& req);

/// SendRequestImpl again and again while the daemon's database is not ready (606, 607, 609: every 30 s) or the daemon
/// is busy (1400, 1401: every 15 to 19 minutes, telling the administrators once after ten tries), without a limit. A
/// compound request is sent again whole. Throws what remains.
ORBISK_EXPORT void SendRequest(Json::Value& res, const Json::Value& req);

/// The same for a caller who does not need the response.
ORBISK_EXPORT void SendRequest(const Json::Value& req);

}  // namespace orbisk
