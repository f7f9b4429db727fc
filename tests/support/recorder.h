#pragma once

// An observer of a ServiceWatcher that keeps the picture its reports add up
// to, every report and the codes of the watcher's error handler; and a
// watcher that reports to one, with a wait for agreement with the truth.

#include <algorithm>
#include <functional>
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
// ErrorHandler, which holds it weakly).
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
        std::vector<Event> events;  // every report in arrival order
        size_t reports = 0;
        std::vector<int> errors;  // codes passed to ErrorHandler()
    };

    void OnInstanceAdded(ferrow::ServiceWatcher&, const ferrow::ServiceId& id, const ferrow::ServiceInstanceData& record) override {
        Report(Kind::Added, id, &record);
    }
    void OnInstanceModified(ferrow::ServiceWatcher&, const ferrow::ServiceId& id, const ferrow::ServiceInstanceData& record) override {
        Report(Kind::Modified, id, &record);
    }
    void OnInstanceRemoved(ferrow::ServiceWatcher&, const ferrow::ServiceId& id) override {
        Report(Kind::Removed, id, nullptr);
    }
    ferrow::ZkErrorHandler ErrorHandler() {
        return [me = weak_from_this()](int code) {
            const auto self = me.lock();
            if (!self) return;
            std::lock_guard<std::mutex> lock(self->m_mtx);
            self->m_state.errors.push_back(code);
        };
    }
    State Snapshot() const {
        std::lock_guard<std::mutex> lock(m_mtx);
        return m_state;
    }

private:
    void Report(Kind kind, const ferrow::ServiceId& id, const ferrow::ServiceInstanceData* record) {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (record == nullptr) m_state.picture.erase(id);
        else m_state.picture[id] = *record;
        m_state.events.push_back({kind, id, record != nullptr ? *record : ferrow::ServiceInstanceData()});
        ++m_state.reports;
    }

    mutable std::mutex m_mtx;  // guards m_state
    State m_state;
};

// A watcher of one service on `conn`, started unless `start` is false, with
// a Recorder as its observer and error handler. Destroyed watcher first,
// then the recorder.
template <typename Conn = ferrow::ZooKeeperConnection>
struct Watched {
    Watched(std::shared_ptr<Conn> connection, const std::string& service, bool start = true)
        : conn(std::move(connection)), recorder(std::make_shared<Recorder>()), watcher(conn, service, recorder->ErrorHandler()) {
        watcher.RegisterShared(recorder);
        if (start) watcher.Start();
    }
    // Polls until the reported picture and ListInstances both equal
    // `truth()`, which may throw while the servers do not answer; after
    // `timeout` (0: checks once) the failure says what differed last.
    ::testing::AssertionResult Converges(const std::function<InstanceMap()>& truth,
                                         std::chrono::seconds timeout = std::chrono::seconds(60)) const {
        std::string why;
        const bool converged = PollUntil([&] {
            try {
                const InstanceMap expected = truth();
                const ::testing::AssertionResult same = SameInstances(expected, recorder->Snapshot().picture);
                std::vector<ferrow::ServiceId> listed = watcher.ListInstances(), ids;
                std::sort(listed.begin(), listed.end());
                for (const auto& entry : expected) ids.push_back(entry.first);
                why = !same ? same.message() : listed != ids ? "ListInstances differs from the truth" : "";
            } catch (const std::exception& e) {
                why = e.what();
            }
            return why.empty();
        }, timeout, std::chrono::milliseconds(50));
        return converged ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << why;
    }

    std::shared_ptr<Conn> conn;
    std::shared_ptr<Recorder> recorder;
    ferrow::ServiceWatcher watcher;
};

}  // namespace testing
}  // namespace jx
