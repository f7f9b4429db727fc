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

std::pair<int, Connection::WatchHandle> WatcherConnection::AsyncGet(String path, WatchFunction watch,
                                                                    DataResult result) const {
    if (!result || !m_notePersistent.load(std::memory_order_relaxed)) {
        return m_conn->AsyncGet(std::move(path), std::move(watch), std::move(result));
    }
    DataResult noting = [persistent = m_persistent, path, result = std::move(result)](int rc, String data,
                                                                                      const Stat* stat) {
        {
            std::lock_guard<std::mutex> lock(persistent->mtx);
            if (rc == ZOK && stat != nullptr && stat->ephemeralOwner == 0) {
                persistent->paths.insert(path);
            } else if (rc == ZOK || rc == ZNONODE) {
                persistent->paths.erase(path);
            }
        }
        result(rc, std::move(data), stat);
    };
    return m_conn->AsyncGet(std::move(path), std::move(watch), std::move(noting));
}

bool WatcherConnection::IsPersistent(const String& path) const {
    std::lock_guard<std::mutex> lock(m_persistent->mtx);
    return m_persistent->paths.count(path) != 0;
}

}  // namespace details
}  // namespace ferrow
}  // namespace jx
