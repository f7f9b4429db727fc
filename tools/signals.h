#pragma once

// SIGINT and SIGTERM as requests to stop, received synchronously: the
// signals are blocked in every thread and the main thread collects them with
// sigwait, so no work ever runs in a signal handler.

#include <chrono>
#include <optional>

#include <signal.h>

namespace jx {
namespace ferrow {
namespace cli {

class StopSignals {
public:
    // Blocks SIGINT and SIGTERM in the calling thread. Must run before any
    // other thread is started, so that every thread inherits the mask.
    StopSignals();

    // Waits for a stop signal and returns its number.
    int Wait() const;

    // Waits at most `timeout` for a stop signal: its number, or nothing.
    std::optional<int> WaitFor(std::chrono::milliseconds timeout) const;

private:
    sigset_t m_set;
};

}  // namespace cli
}  // namespace ferrow
}  // namespace jx
