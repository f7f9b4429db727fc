#pragma once

// Runs a task once a delay is over, on one thread the process shares: what
// a registration needs to try again later on a connection that stays up,
// where no session event would prompt it. Private to the library.

#include <chrono>
#include <functional>

namespace jx {
namespace ferrow {
namespace details {

// Runs `task` on the timer's thread once `delay` is over, in order of their
// times. The task must be quick and must not wait (a registration posts its
// work to its connection's delivery thread), and must hold what it calls
// weakly: nothing cancels it. The thread starts with the first task and is
// never stopped, so a task may be given at any time, also during exit.
void RunAfter(std::chrono::milliseconds delay, std::function<void()> task);

}  // namespace details
}  // namespace ferrow
}  // namespace jx
