#pragma once

#include <memory>

namespace jx {

// The registration side of an observer registry. Observers are held strongly
// (the registry shares ownership) or weakly (they may die while registered),
// and removed by address. All operations are safe from any thread.
template <typename T>
class Observable {
public:
    virtual ~Observable() = default;

    // A null observer is ignored. Registering twice makes two registrations.
    virtual void RegisterShared(std::shared_ptr<T> observer) = 0;
    // An empty or expired observer is ignored.
    virtual void RegisterWeak(std::weak_ptr<T> observer) = 0;

    // Removes the earliest registration of the observer. When these return,
    // no notification that started before the removal is still running on
    // another thread, so the caller may destroy the observer.
    virtual void UnregisterShared(const std::shared_ptr<T>& observer) = 0;
    virtual void UnregisterWeak(const std::weak_ptr<T>& observer) = 0;
    virtual void UnregisterRaw(const T* observer) = 0;
};

}  // namespace jx
