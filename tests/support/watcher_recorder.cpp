#include "tests/support/watcher_recorder.h"

#include <sstream>

#include <boost/uuid/uuid_io.hpp>

namespace jx {
namespace testing {

void WatcherRecorder::OnInstanceAdded(ferrow::ServiceWatcher&, const ferrow::ServiceId& id,
                                      const ferrow::ServiceInstanceData& record) {
    Record(Kind::Added, id, &record);
}

void WatcherRecorder::OnInstanceModified(ferrow::ServiceWatcher&, const ferrow::ServiceId& id,
                                         const ferrow::ServiceInstanceData& record) {
    Record(Kind::Modified, id, &record);
}

void WatcherRecorder::OnInstanceRemoved(ferrow::ServiceWatcher&, const ferrow::ServiceId& id) {
    Record(Kind::Removed, id, nullptr);
}

void WatcherRecorder::Record(Kind kind, const ferrow::ServiceId& id, const ferrow::ServiceInstanceData* record) {
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        const bool known = m_state.picture.count(id) != 0;
        if (known == (kind == Kind::Added)) {
            std::ostringstream anomaly;
            anomaly << kind << ' ' << id << (known ? " while known" : " while unknown");
            m_state.anomalies.push_back(anomaly.str());
        }
        if (kind == Kind::Removed) {
            m_state.picture.erase(id);
            m_state.events.push_back({kind, id, ferrow::ServiceInstanceData()});
        } else {
            m_state.picture[id] = *record;
            m_state.events.push_back({kind, id, *record});
        }
    }
    m_cv.notify_all();
}

ferrow::ZkErrorHandler WatcherRecorder::ErrorHandler() {
    std::weak_ptr<WatcherRecorder> me = shared_from_this();
    return [me](int code) {
        if (std::shared_ptr<WatcherRecorder> self = me.lock()) {
            {
                std::lock_guard<std::mutex> lock(self->m_mtx);
                self->m_state.errors.push_back(code);
            }
            self->m_cv.notify_all();
        }
    };
}

WatcherRecorder::State WatcherRecorder::Snapshot() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    return m_state;
}

::testing::AssertionResult WatcherRecorder::WaitForPicture(const InstanceMap& expected,
                                                           std::chrono::milliseconds timeout) const {
    // Runs on every report: cheap checks first, no message built.
    auto equal = [&expected](const State& state) {
        if (state.picture.size() != expected.size()) return false;
        auto it = state.picture.begin();
        for (const auto& entry : expected) {
            if (it->first != entry.first || !SameRecord(it->second, entry.second)) return false;
            ++it;
        }
        return true;
    };
    if (WaitUntil(equal, timeout)) return ::testing::AssertionSuccess();
    return SameInstances(expected, Snapshot().picture);
}

std::vector<WatcherRecorder::Kind> WatcherRecorder::KindsFor(const std::vector<Event>& events,
                                                             const ferrow::ServiceId& id, size_t from) {
    std::vector<Kind> kinds;
    const Event* last = nullptr;  // the previous event about `id`
    for (size_t i = 0; i < events.size(); ++i) {
        const Event& event = events[i];
        if (event.id != id) continue;
        const bool repeat = event.kind == Kind::Modified && last != nullptr && last->kind != Kind::Removed &&
                            SameRecord(last->record, event.record);
        if (i >= from && !repeat) kinds.push_back(event.kind);
        last = &event;
    }
    return kinds;
}

size_t WatcherRecorder::Count(const std::vector<Event>& events, Kind kind, size_t from) {
    size_t count = 0;
    for (size_t i = from; i < events.size(); ++i) {
        if (events[i].kind == kind) ++count;
    }
    return count;
}

std::ostream& operator<<(std::ostream& out, WatcherRecorder::Kind kind) {
    switch (kind) {
    case WatcherRecorder::Kind::Added:
        return out << "Added";
    case WatcherRecorder::Kind::Modified:
        return out << "Modified";
    case WatcherRecorder::Kind::Removed:
        return out << "Removed";
    }
    return out << "Kind(" << static_cast<int>(kind) << ')';
}

}  // namespace testing
}  // namespace jx
