#include "watching/sync_tracker.h"

#include <algorithm>
#include <utility>

namespace jx {
namespace ferrow {

SyncTracker::SyncTracker(std::shared_ptr<Connection> conn, String path, std::function<bool()> settled)
    : m_conn(std::move(conn)), m_path(std::move(path)), m_settled(std::move(settled)) {}

SyncTracker::~SyncTracker() { m_conn->UnregisterRaw(static_cast<const ConnectionObserver*>(this)); }

void SyncTracker::Started() {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_started = true;
    m_incompleteSince = std::chrono::steady_clock::now();
    Begin();
}

void SyncTracker::Restart() {
    std::lock_guard<std::mutex> lock(m_mtx);
    Invalidate();
    Begin();
}

void SyncTracker::Invalidate() {
    if (m_synced) m_incompleteSince = std::chrono::steady_clock::now();
    m_synced = false;
    ++m_round;
}

bool SyncTracker::Track() {
    std::lock_guard<std::mutex> lock(m_mtx);
    if (!m_tracking) {
        m_tracking = true;
        m_conn->RegisterWeak(std::weak_ptr<ConnectionObserver>(shared_from_this()));
        Begin();
    }
    return m_synced;
}

bool SyncTracker::Wait(std::chrono::milliseconds deadline) {
    Track();
    std::unique_lock<std::mutex> lock(m_mtx);
    return m_cv.wait_for(lock, deadline, [this] { return m_synced; });
}

void SyncTracker::SetListener(std::function<void()> listener) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_listener = std::move(listener);
}

std::uint64_t SyncTracker::AddListener(std::function<void()> listener) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_listeners.emplace_back(++m_lastKey, std::move(listener));
    return m_lastKey;
}

void SyncTracker::SetStaleListener(std::function<void()> listener) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_staleListener = std::move(listener);
}

void SyncTracker::RemoveListener(std::uint64_t key) {
    std::lock_guard<std::mutex> lock(m_mtx);
    m_listeners.erase(std::remove_if(m_listeners.begin(), m_listeners.end(),
                                     [key](const auto& entry) { return entry.first == key; }),
                      m_listeners.end());
}

void SyncTracker::Close() { m_gate.Close(); }

SyncTracker::Ages SyncTracker::Times() const {
    std::lock_guard<std::mutex> lock(m_mtx);
    Ages ages;
    if (!m_synced) ages.incomplete = std::chrono::steady_clock::now() - m_incompleteSince;
    ages.lastSync = m_lastSync;
    return ages;
}

void SyncTracker::OnSessionEvent(int type, int state, String) {
    const CallbackGate::Pass pass = m_gate.Enter();
    if (!pass || type != ZOO_SESSION_EVENT) return;
    std::function<void()> stale;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        if (state == ZOO_CONNECTED_STATE) {
            // The watcher may be told of this event after this tracker and
            // only then issue its retries: one more read first is answered
            // after this event's delivery, when the retries have been
            // issued, and after the events of changes missed meanwhile.
            if (!m_synced) Begin(0);
            return;
        }
        // Connecting, expired, credentials refused: what changes now is not
        // seen until the connection is back; after an expiry the watcher
        // reads everything afresh.
        if (m_synced) stale = m_staleListener;
        Invalidate();
    }
    if (stale) stale();
}

void SyncTracker::Begin(int step) {
    if (m_started && m_tracking && !m_synced) Mark(++m_round, step);
}

void SyncTracker::Mark(std::uint64_t round, int step) {
    const std::weak_ptr<SyncTracker> me = weak_from_this();
    // Not issued without a session: the next connected event begins again.
    m_conn->AsyncGet(m_path, nullptr, [me, round, step](int rc, String, const Stat*) {
        const std::shared_ptr<SyncTracker> self = me.lock();
        if (const CallbackGate::Pass pass = self ? self->m_gate.Enter() : CallbackGate::Pass()) self->OnMark(round, step, rc);
    });
}

void SyncTracker::OnMark(std::uint64_t round, int step, int rc) {
    std::function<void()> listener;
    std::vector<std::pair<std::uint64_t, std::function<void()>>> others;
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        // A lost answer leaves the round to the next connected event.
        if (round != m_round || m_synced || (rc != ZOK && rc != ZNONODE)) return;
        if (step < 2) return Mark(round, step + 1);
        // A retry waits for the next connected event, which begins again.
        if (!m_settled()) return;
        m_synced = true;
        m_lastSync = std::chrono::steady_clock::now() - m_incompleteSince;
        listener = m_listener;
        others = m_listeners;
    }
    m_cv.notify_all();
    for (const auto& entry : others) entry.second();
    if (listener) listener();
}

}  // namespace ferrow
}  // namespace jx
