#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "connection/callback_gate.h"
#include "ferrow/connection_v2.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {

// Tells when a ServiceWatcher's view of its service is complete, from the
// order in which ZooKeeper answers one session's requests: the connection
// delivers the answers in the order the requests were issued. A read issued
// after the watcher's read of the service's children is answered after it,
// and by the time that answer is delivered the watcher has issued the read of
// every instance it listed; a second read issued then is answered after all
// of them. When that second answer arrives and the watcher has nothing
// waiting for a retry, the view is complete. A session expiry makes it
// incomplete; the round that follows the next connected event reads once
// more first, because the watcher may be told of that event after this
// tracker and issue its fresh read only then.
//
// Tracking begins once the watcher has started and someone has asked
// (Track): it costs two or three reads of the service node per full read of
// the service. Thread-safe; owned by a std::shared_ptr (callbacks hold it
// weakly); the owner calls Close before letting it go.
class SyncTracker : public ConnectionObserver, public std::enable_shared_from_this<SyncTracker> {
public:
    // `settled` answers whether the watcher has nothing waiting for a retry;
    // `path` is the service node.
    SyncTracker(std::shared_ptr<Connection> conn, String path, std::function<bool()> settled);
    ~SyncTracker() override;

    // The watcher has started.
    void Started();
    // The watcher started afresh on a service node created again: the view
    // is incomplete until the fresh reads are answered.
    void Restart();
    // Someone wants to know. Returns whether the view is complete now.
    bool Track();
    // Waits until the view is complete; false after `deadline`.
    bool Wait(std::chrono::milliseconds deadline);
    // Called on the delivery thread each time the view becomes complete,
    // with no lock of the tracker held: the added ones in the order added
    // (the caches it feeds, which publish their view there), then the
    // owner's. AddListener returns a key for removal.
    void SetListener(std::function<void()> listener);
    std::uint64_t AddListener(std::function<void()> listener);
    // Called on the delivery thread, with no lock of the tracker held, each
    // time a complete view stops being known current: the connection was
    // lost or the session expired.
    void SetStaleListener(std::function<void()> listener);
    void RemoveListener(std::uint64_t key);
    // No callback runs from now on; waits for one running on another thread.
    void Close();

    // For the metrics: how long the view has not been complete (zero while
    // it is; since the start or the latest expiry otherwise), and how long
    // the latest full read took from then to complete (zero before one did).
    struct Ages {
        std::chrono::nanoseconds incomplete{0};
        std::chrono::nanoseconds lastSync{0};
    };
    Ages Times() const;

    // Session events: a lost connection or an expiry makes the view
    // incomplete (events missed meanwhile arrive only after the connection
    // is back); a connected event, delivered after the watcher's own, begins
    // a round if needed.
    void OnSessionEvent(int type, int state, String path) override;

private:
    // Both require m_mtx held: the connection never calls back inside a
    // request. Begin starts a round at `step` when started and tracked; Mark
    // issues the read of `step` (0, 1 or 2) of `round`. A round begun after
    // the watcher's own requests starts at 1; one begun on a session event
    // that the watcher may handle later starts at 0.
    void Begin(int step = 1);
    void Mark(std::uint64_t round, int step);
    // Requires m_mtx held: the view is no longer complete from now.
    void Invalidate();
    void OnMark(std::uint64_t round, int step, int rc);

    const std::shared_ptr<Connection> m_conn;
    const String m_path;
    const std::function<bool()> m_settled;
    CallbackGate m_gate;
    mutable std::mutex m_mtx;  // guards the fields below; taken before the watcher's
    std::condition_variable m_cv;
    bool m_started = false;
    bool m_tracking = false;
    bool m_synced = false;
    std::uint64_t m_round = 0;  // answers of older rounds are ignored
    // steady_clock times: since when the view is incomplete (the start, the
    // latest lost connection or expiry), and the latest full read's duration.
    std::chrono::steady_clock::time_point m_incompleteSince = std::chrono::steady_clock::now();
    std::chrono::nanoseconds m_lastSync{0};
    std::function<void()> m_listener;
    std::function<void()> m_staleListener;
    std::vector<std::pair<std::uint64_t, std::function<void()>>> m_listeners;
    std::uint64_t m_lastKey = 0;
};

}  // namespace ferrow
}  // namespace jx
