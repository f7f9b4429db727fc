#include "tests/support/recorder.h"

#include <algorithm>
#include <sstream>

#include <boost/uuid/uuid_io.hpp>

#include "tests/support/support.h"

namespace jx {
namespace testing {

void Recorder::Record(Kind kind, const ferrow::ServiceId& id, const ferrow::ServiceInstanceData& record) {
    std::lock_guard<std::mutex> lock(m_mtx);
    const bool known = m_state.picture.count(id) != 0;
    if (known == (kind == Kind::Added)) {
        std::ostringstream anomaly;
        anomaly << static_cast<int>(kind) << ' ' << id << (known ? " while known" : " while unknown");
        m_state.anomalies.push_back(anomaly.str());
    }
    if (kind == Kind::Removed) m_state.picture.erase(id);
    else m_state.picture[id] = record;
    if (m_keepEvents) m_state.events.push_back({kind, id, record});
    ++m_state.reports;
    m_cv.notify_all();
}

ferrow::ZkErrorHandler Recorder::ErrorHandler() {
    return [me = weak_from_this()](int code) {
        if (auto self = me.lock()) {
            std::lock_guard<std::mutex> lock(self->m_mtx);
            self->m_state.errors.push_back(code);
            self->m_cv.notify_all();
        }
    };
}

Recorder::State Recorder::Snapshot() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_state;
}

::testing::AssertionResult Recorder::WaitForPicture(const InstanceMap& expected, std::chrono::milliseconds timeout) const {
    // Runs on every report: no message is built.
    auto equal = [&expected](const State& state) {
        return state.picture.size() == expected.size() &&
               std::equal(expected.begin(), expected.end(), state.picture.begin(), [](const auto& a, const auto& b) {
                   return a.first == b.first && SameRecord(a.second, b.second);
               });
    };
    if (WaitUntil(equal, timeout)) return ::testing::AssertionSuccess();
    return SameInstances(expected, Snapshot().picture);
}

double Recorder::AwaitConvergence(const ferrow::ServiceWatcher& watcher, const std::function<InstanceMap()>& truth,
                                  std::chrono::seconds timeout, std::string& why) const {
    const auto start = std::chrono::steady_clock::now();
    const bool converged = PollUntil([&] {
        try {
            const InstanceMap expected = truth();
            const ::testing::AssertionResult same = SameInstances(expected, Snapshot().picture);
            std::vector<ferrow::ServiceId> listed = watcher.ListInstances(), ids;
            std::sort(listed.begin(), listed.end());
            for (const auto& entry : expected) ids.push_back(entry.first);
            why = same ? (listed == ids ? "" : "ListInstances differs from the truth") : same.message();
        } catch (const std::exception& e) {
            why = e.what();
        }
        return why.empty();
    }, timeout, std::chrono::milliseconds(50));
    return converged ? std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() : -1;
}

}  // namespace testing
}  // namespace jx
