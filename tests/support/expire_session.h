#pragma once

#include <chrono>
#include <string>

#include "ferrow/zookeeper_connection.h"

namespace jx {
namespace testing {

// Ends the current session of `conn` on the server, as a server-side expiry
// would: a second client attaches to the same session through `connect` and
// closes it. Returns once the close has been acknowledged; `conn` learns of
// the expiry afterwards, asynchronously. Throws std::runtime_error when
// `conn` has no session or the second client is not connected within
// `deadline`.
void ExpireSession(const std::string& connect, const ferrow::ZooKeeperConnection& conn,
                   std::chrono::milliseconds deadline = std::chrono::seconds(60));

}  // namespace testing
}  // namespace jx
