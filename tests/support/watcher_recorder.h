#pragma once

// An observer of a ServiceWatcher that records every report and keeps the
// picture the reports add up to, with waits that end at a deadline.

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ferrow/service_watcher.h"
#include "tests/support/instance_writer.h"

namespace jx {
namespace testing {

// Reports arrive on the connection's delivery thread; every other operation
// may be called from any thread. Must be owned by a std::shared_ptr (for
// ErrorHandler).
class WatcherRecorder : public ferrow::ServiceWatcherObserver, public std::enable_shared_from_this<WatcherRecorder> {
public:
    enum class Kind { Added, Modified, Removed };

    struct Event {
        Kind kind;
        ferrow::ServiceId id;
        ferrow::ServiceInstanceData record;  // empty for Removed
    };

    struct State {
        // Added and modified records, less the removed ones.
        InstanceMap picture;
        // Every report, in arrival order.
        std::vector<Event> events;
        // Reports that contradict the picture: an instance added while in
        // it, or modified or removed while not in it. Legitimate only in the
        // corner cases the watcher documents (a record that failed to decode,
        // an expiry while a first read was outstanding).
        std::vector<std::string> anomalies;
        // Codes passed to the handler made by ErrorHandler.
        std::vector<int> errors;
    };

    void OnInstanceAdded(ferrow::ServiceWatcher&, const ferrow::ServiceId& id,
                         const ferrow::ServiceInstanceData& record) override;
    void OnInstanceModified(ferrow::ServiceWatcher&, const ferrow::ServiceId& id,
                            const ferrow::ServiceInstanceData& record) override;
    void OnInstanceRemoved(ferrow::ServiceWatcher&, const ferrow::ServiceId& id) override;

    // A watcher error handler that records its codes in State::errors. It
    // holds this recorder weakly; codes arriving after it is gone are lost.
    ferrow::ZkErrorHandler ErrorHandler();

    State Snapshot() const;

    // Waits until `holds(const State&)` is true; returns false if it is still
    // false when `timeout` has passed.
    template <typename Predicate>
    bool WaitUntil(Predicate holds, std::chrono::milliseconds timeout) const {
        std::unique_lock<std::mutex> lock(m_mtx);
        return m_cv.wait_for(lock, timeout, [&] { return holds(static_cast<const State&>(m_state)); });
    }

    // Waits until the picture equals `expected`; the failure shows how the
    // last picture differed.
    ::testing::AssertionResult WaitForPicture(const InstanceMap& expected, std::chrono::milliseconds timeout) const;

    // The kinds of the events about `id` from position `from` on, leaving
    // out every Modified that repeats the record the id already had: the
    // watcher may read a new instance twice when the children are listed
    // again before the first read has returned, and reports the second read
    // as a modification.
    static std::vector<Kind> KindsFor(const std::vector<Event>& events, const ferrow::ServiceId& id, size_t from = 0);
    // How many events of `kind` there are from position `from` on.
    static size_t Count(const std::vector<Event>& events, Kind kind, size_t from = 0);

private:
    void Record(Kind kind, const ferrow::ServiceId& id, const ferrow::ServiceInstanceData* record);

    mutable std::mutex m_mtx;  // guards m_state
    mutable std::condition_variable m_cv;
    State m_state;
};

std::ostream& operator<<(std::ostream& out, WatcherRecorder::Kind kind);

}  // namespace testing
}  // namespace jx
