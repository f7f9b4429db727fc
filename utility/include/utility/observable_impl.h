#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "logger/logger.h"
#include "utility/observable.h"

namespace jx {

// An observer registry the owning class notifies through NotifyObservers.
// Observers are called in registration order from a snapshot, with no lock
// of the registry held, so they may register, unregister or notify from
// inside their callbacks. m_mtx guards only the two vectors.
template <typename T>
class ObservableImpl : public virtual Observable<T> {
public:
    ObservableImpl() = default;
    ObservableImpl(const ObservableImpl&) = delete;  // owns a mutex
    ObservableImpl& operator=(const ObservableImpl&) = delete;

    void RegisterShared(std::shared_ptr<T> observer) override {
        if (!observer) return;
        std::unique_lock<std::mutex> lock(m_mtx);
        m_weakObservers.push_back(std::weak_ptr<T>(observer));
        m_strongObservers.push_back(std::move(observer));
    }

    void RegisterWeak(std::weak_ptr<T> observer) override {
        std::shared_ptr<T> alive = observer.lock();
        if (!alive) return;
        std::unique_lock<std::mutex> lock(m_mtx);
        m_weakObservers.push_back(std::move(observer));
        m_strongObservers.push_back(std::shared_ptr<T>());
    }

    void UnregisterShared(const std::shared_ptr<T>& observer) override {
        this->UnregisterRaw(observer.get());
    }

    void UnregisterWeak(const std::weak_ptr<T>& observer) override {
        std::shared_ptr<T> alive = observer.lock();
        this->UnregisterRaw(alive.get());
    }

    // Removes the first slot holding `observer`, then waits (yielding, never
    // giving up) until no other thread is inside a notification.
    void UnregisterRaw(const T* observer) override;

protected:
    // Calls `method` with `args` on every live observer, in registration
    // order, with no lock held. An observer's exception ends the notification
    // and propagates to the caller.
    template <typename Method, typename... Args>
    void NotifyObservers(Method method, Args&&... args) {
        SetAndValidateThreading();
        AutoThreadResetter resetter(m_inCallbackThreadId);
        std::vector<std::shared_ptr<T>> observers = GetObserversStrong();
        for (const std::shared_ptr<T>& observer : observers) {
            if (observer) ((*observer).*method)(std::forward<Args>(args)...);
        }
    }

    // One entry per slot, in registration order; empty for a dead observer.
    std::vector<std::shared_ptr<T>> GetObserversStrong() const {
        std::unique_lock<std::mutex> lock(m_mtx);
        return GetObserversStrong(lock);
    }

    std::vector<std::weak_ptr<T>> GetObservers() {
        std::unique_lock<std::mutex> lock(m_mtx);
        return m_weakObservers;
    }

    void ClearObservers() {
        std::unique_lock<std::mutex> lock(m_mtx);
        m_weakObservers.clear();
        m_strongObservers.clear();
    }

private:
    // Stores the blank thread id on scope exit, however the notification ends.
    class AutoThreadResetter {
    public:
        explicit AutoThreadResetter(std::atomic<std::thread::id>& value) : m_value(value) {}
        ~AutoThreadResetter() { m_value.store(GetBlankThreadId()); }
        static const std::thread::id& GetBlankThreadId() {
            static const std::thread::id not_used;
            return not_used;
        }

    private:
        std::atomic<std::thread::id>& m_value;
    };
    void LogUnregister() const {
        JXLOG(logging::JXLOG_DEBUG, logging::ConstSourcePtr()) << "UnregisterRaw m_inCallbackThreadId=" << m_inCallbackThreadId.load() << ", current thread id=" << std::this_thread::get_id();
    }
    // A notification on the calling thread itself is never waited for.
    void WaitForOtherNotifier() const {
        std::uint64_t loops = 0;
        for (;;) {
            const std::thread::id notifier = m_inCallbackThreadId.load();
            if (notifier == AutoThreadResetter::GetBlankThreadId() || notifier == std::this_thread::get_id()) return;
            std::this_thread::yield();
            if (++loops % 100000000 == 0) {
                JXLOG(logging::JXLOG_INFO, logging::ConstSourcePtr()) << "UnregisterRaw appears stalled. Possible dead/live lock! Function has looped " << loops << " times";
            }
        }
    }

    // Publishes the notifying thread before the snapshot is taken, so that a
    // remover that erased a slot afterwards sees it and waits.
    void SetAndValidateThreading() { m_inCallbackThreadId.store(std::this_thread::get_id()); }

    // Requires m_mtx held (`lock` is the proof).
    std::vector<std::shared_ptr<T>> GetObserversStrong(const std::unique_lock<std::mutex>& lock) const {
        std::vector<std::shared_ptr<T>> result;
        result.reserve(m_weakObservers.size());
        for (size_t i = 0; i < m_weakObservers.size(); ++i) result.push_back(GetObserver(lock, i));
        return result;
    }

    // Requires m_mtx held (`lock` is the proof).
    std::shared_ptr<T> GetObserver(const std::unique_lock<std::mutex>&, size_t index) const {
        if (m_strongObservers[index]) return m_strongObservers[index];
        return m_weakObservers[index].lock();
    }

    mutable std::mutex m_mtx;
    std::vector<std::shared_ptr<T>> m_strongObservers;  // guarded by m_mtx
    std::vector<std::weak_ptr<T>> m_weakObservers;      // guarded by m_mtx
    std::atomic<std::thread::id> m_inCallbackThreadId{};
};

template <typename T>
void ObservableImpl<T>::UnregisterRaw(const T* observer) {
    if (observer == nullptr) return;
    {
        std::unique_lock<std::mutex> lock(m_mtx);
        for (size_t i = 0; i < m_weakObservers.size(); ++i) {
            if (GetObserver(lock, i).get() == observer) {
                m_weakObservers.erase(m_weakObservers.begin() + i);
                m_strongObservers.erase(m_strongObservers.begin() + i);
                break;
            }
        }
    }
    LogUnregister();
    WaitForOtherNotifier();
}

}  // namespace jx
