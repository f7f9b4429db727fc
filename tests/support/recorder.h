#pragma once

// An observer of a ServiceWatcher that keeps the picture its reports add up
// to, every report, and the codes of the watcher's error handler, with waits
// that end at a deadline.

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ferrow/service_watcher.h"
#include "tests/support/instances.h"

namespace jx {
namespace testing {

// Reports arrive on the connection's delivery thread; every other member may
// be called from any thread. Must be owned by a std::shared_ptr (for
// ErrorHandler).
class Recorder : public ferrow::ServiceWatcherObserver, public std::enable_shared_from_this<Recorder> {
public:
    enum class Kind { Added, Modified, Removed };
    struct Event {
        Kind kind;
        ferrow::ServiceId id;
        ferrow::ServiceInstanceData record;  // empty for Removed
    };
    struct State {
        InstanceMap picture;        // added and modified records, less the removed ones
        std::vector<Event> events;  // every report in arrival order, when kept
        size_t reports = 0;
        // Reports that contradict the picture: added while in it, modified
        // or removed while not in it.
        std::vector<std::string> anomalies;
        std::vector<int> errors;  // codes passed to ErrorHandler()
    };

    // `keepEvents` false keeps memory flat over long runs.
    explicit Recorder(bool keepEvents = true) : m_keepEvents(keepEvents) {}

    void OnInstanceAdded(ferrow::ServiceWatcher&, const ferrow::ServiceId& id,
                         const ferrow::ServiceInstanceData& record) override {
        Record(Kind::Added, id, record);
    }
    void OnInstanceModified(ferrow::ServiceWatcher&, const ferrow::ServiceId& id,
                            const ferrow::ServiceInstanceData& record) override {
        Record(Kind::Modified, id, record);
    }
    void OnInstanceRemoved(ferrow::ServiceWatcher&, const ferrow::ServiceId& id) override {
        Record(Kind::Removed, id, ferrow::ServiceInstanceData());
    }

    // A watcher error handler that records its codes; it holds this
    // recorder weakly.
    ferrow::ZkErrorHandler ErrorHandler();
    State Snapshot() const;

    // Waits until `holds(const State&)`; false if it still is not after `timeout`.
    template <typename Predicate>
    bool WaitUntil(Predicate holds, std::chrono::milliseconds timeout) const {
        std::unique_lock<std::mutex> lock(m_mtx);
        return m_cv.wait_for(lock, timeout, [&] { return holds(static_cast<const State&>(m_state)); });
    }
    // Waits until the picture equals `expected`; the failure shows how the
    // last picture differed.
    ::testing::AssertionResult WaitForPicture(const InstanceMap& expected,
                                              std::chrono::milliseconds timeout = std::chrono::seconds(60)) const;
    // Polls until the picture and `watcher.ListInstances()` both equal
    // `truth()` (which may throw while the servers do not answer). Returns
    // the seconds taken, or a negative number after `timeout`, with `why`
    // saying what differed last.
    double AwaitConvergence(const ferrow::ServiceWatcher& watcher, const std::function<InstanceMap()>& truth,
                            std::chrono::seconds timeout, std::string& why) const;

private:
    void Record(Kind kind, const ferrow::ServiceId& id, const ferrow::ServiceInstanceData& record);

    const bool m_keepEvents;
    mutable std::mutex m_mtx;  // guards m_state
    mutable std::condition_variable m_cv;
    State m_state;
};

}  // namespace testing
}  // namespace jx
