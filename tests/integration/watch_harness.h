#pragma once

// What the fault and soak tests add to the shared test support: instances
// churned by a publisher thread, convergence of a watcher with the truth
// measured against a deadline, and a forced expiry that waits until the
// watched connection runs a new session.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ferrow/service_watcher.h"
#include "ferrow/zookeeper_connection.h"
#include "tests/support/instance_writer.h"
#include "tests/support/watcher_recorder.h"

namespace jx {
namespace testing {

// Polls, with `deadline`, until the watcher's picture (`picture()`, built
// from its events) and its ListInstances both equal `truth()`, which may
// throw while the servers do not answer. Returns the seconds taken, or
// nothing; on failure `why` says what differed last.
std::optional<double> AwaitConvergence(const ferrow::ServiceWatcher& watcher,
                                       const std::function<InstanceMap()>& picture,
                                       const std::function<InstanceMap()>& truth, std::chrono::seconds deadline,
                                       std::string* why);

// Instances joining, changing and leaving one service, written by one thread
// through an InstanceWriter of its own (persistent nodes: the truth does not
// depend on the publisher's session). A write that fails, as in an outage,
// is counted and the churn goes on after a short pause.
class Churn {
public:
    Churn(const std::string& connect, const std::string& service, size_t maxInstances, std::uint32_t seed);
    ~Churn();  // stops
    Churn(const Churn&) = delete;  // owns a thread
    Churn& operator=(const Churn&) = delete;

    void Start();
    // Stops after the write in progress; returns at once when not running.
    void Stop();
    // Writes that succeeded / failed so far.
    std::uint64_t Succeeded() const { return m_succeeded; }
    std::uint64_t Failed() const { return m_failed; }
    // Waits until `count` more writes than now have succeeded.
    bool AwaitProgress(std::uint64_t count, std::chrono::seconds deadline) const;

private:
    void Run();

    InstanceWriter m_writer;
    const size_t m_maxInstances;
    std::mt19937 m_random;
    std::vector<ferrow::ServiceId> m_live;  // touched by the thread only
    int m_version = 0;                      // touched by the thread only
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint64_t> m_succeeded{0};
    std::atomic<std::uint64_t> m_failed{0};
    std::thread m_thread;
};

// Expires `conn`'s session on the server and waits until `conn` runs a new
// one. The attaching client may take the session over before `conn` notices,
// so this repeats; returns false when `conn` never had a new session within
// about 30 s.
bool ExpireAndAwaitNewSession(const std::string& connect, const ferrow::ZooKeeperConnection& conn);

// "<s> s" with one decimal, for the lines that report measured times.
std::string Seconds(double seconds);

}  // namespace testing
}  // namespace jx
