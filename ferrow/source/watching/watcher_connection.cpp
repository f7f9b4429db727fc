#include "watching/watcher_connection.h"

namespace jx {
namespace ferrow {
namespace details {

void WatcherConnection::Deliver(int type, int state, const String& path) {
    {
        std::unique_lock<std::mutex> lock(m_mtx);
        m_cv.wait(lock, [this] { return !m_removing; });
        m_delivering = std::this_thread::get_id();
    }
    // Cleared however the observers leave; an exception passes on.
    const auto done = [this](void*) {
        {
            std::lock_guard<std::mutex> lock(m_mtx);
            m_delivering = std::thread::id();
        }
        m_cv.notify_all();
    };
    const std::unique_ptr<void, decltype(done)> clear(this, done);
    NotifyObservers(&ConnectionObserver::OnSessionEvent, type, state, path);
}

void WatcherConnection::UnregisterRaw(const ConnectionObserver* observer) {
    if (observer == nullptr) return;
    const std::thread::id me = std::this_thread::get_id();
    {
        std::unique_lock<std::mutex> lock(m_mtx);
        if (m_delivering == me) {
            // Inside a delivery: the registry's wait returns at once here.
            lock.unlock();
            return Connection::UnregisterRaw(observer);
        }
        // Deliveries run on one thread, one at a time: once none runs and
        // none may start, the registry finds no notification in progress
        // and its wait returns at once.
        m_cv.wait(lock, [this] { return m_delivering == std::thread::id() && !m_removing; });
        m_removing = true;
    }
    Connection::UnregisterRaw(observer);
    {
        std::lock_guard<std::mutex> lock(m_mtx);
        m_removing = false;
    }
    m_cv.notify_all();
}

}  // namespace details
}  // namespace ferrow
}  // namespace jx
