#pragma once

#include <chrono>
#include <string>

#include "ferrow/zookeeper_connection.h"

namespace jx {
namespace testing {

// Ends the current session of `conn` on the server, as a server-side expiry
// would: a second client attaches to the same session through `connect` and
// closes it, until the server refuses an attach as expired. Returns once the
// session is gone on the server; `conn` learns of the expiry afterwards,
// asynchronously. Throws std::runtime_error when `conn` has no session or the
// session is still alive at `deadline`.
void ExpireSession(const std::string& connect, const ferrow::ZooKeeperConnection& conn,
                   std::chrono::milliseconds deadline = std::chrono::seconds(60));

}  // namespace testing
}  // namespace jx
