#pragma once

// Waiting for a condition that nothing signals (server state, another
// process's writes, counters of the connection): checked at an interval until
// it holds or a deadline passes.

#include <chrono>
#include <thread>

namespace jx {
namespace testing {

// Calls `holds()` every `interval` until it returns true; returns false once
// `timeout` has passed without that.
template <typename Predicate>
bool PollUntil(Predicate holds, std::chrono::milliseconds timeout,
               std::chrono::milliseconds interval = std::chrono::milliseconds(10)) {
    const auto until = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (holds()) return true;
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(interval);
    }
}

}  // namespace testing
}  // namespace jx
