#pragma once

// Follows the running instances of one named service: the children of the
// node /srv2/<name>, each named by an instance's ServiceId, and the record in
// each child's data. Changes reach the registered observers.

#include <future>
#include <memory>
#include <vector>

#include "ferrow/connection_v2.h"
#include "ferrow/service_watcher_observer.h"
#include "utility/observable.h"
#include "utility/string.h"

namespace jx {
namespace ferrow {

class ServiceWatcherImpl;

// Thread-safe: every operation may be called from any thread.
//
// Threads and locks: observers run on the connection's delivery thread, one
// event at a time, with no lock of the watcher held, so they may call back
// into it. The error handler runs on whatever thread met the error (the
// caller of Start or the delivery thread) with the watcher's lock held: it
// must not call the watcher back.
//
// A lost session is survived: what failed transiently is retried when the
// session is connected again, and an expired session reports every watched
// instance removed and then re-reads the service.
class ServiceWatcher : public Observable<ServiceWatcherObserver> {
public:
    // Builds the watcher; nothing is registered or read until Start.
    // `zkErrorHandler` receives ZooKeeper errors that a retry cannot cure;
    // it may be empty only if such errors never occur (calling an empty one
    // throws std::bad_function_call out of the operation that met the error).
    ServiceWatcher(std::shared_ptr<Connection> conn, const String& name, ZkErrorHandler zkErrorHandler);

    // Stops every watch. Waits until no callback of this watcher is running
    // on the delivery thread, so it must not be destroyed from inside one of
    // its own observers or its error handler.
    ~ServiceWatcher() override;

    // Observers receive this object by reference: it cannot move or be copied.
    ServiceWatcher(const ServiceWatcher&) = delete;
    ServiceWatcher& operator=(const ServiceWatcher&) = delete;

    // Registers for session events and, when the session is connected, makes
    // sure the service node exists and starts watching it; otherwise starts
    // when the session connects. Call once, after registering observers.
    // ZooKeeper errors go to the handler or are retried, never thrown; throws
    // std::bad_function_call when one is due to an empty handler, and passes
    // on anything else the connection throws.
    void Start();

    // The instances known now (reported added and not yet removed), in no
    // particular order.
    std::vector<ServiceId> ListInstances() const;

    // Reads one instance's record synchronously. Returns true with `data`
    // filled, false when the instance has no node. Throws ZooError for any
    // other ZooKeeper failure, zlib::ZLibError for a corrupt compressed
    // record, std::runtime_error for an unknown compression.
    bool GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const;

    void RegisterShared(std::shared_ptr<ServiceWatcherObserver> observer) override;
    void RegisterWeak(std::weak_ptr<ServiceWatcherObserver> observer) override;
    void UnregisterShared(const std::shared_ptr<ServiceWatcherObserver>& observer) override;
    void UnregisterWeak(const std::weak_ptr<ServiceWatcherObserver>& observer) override;
    void UnregisterRaw(const ServiceWatcherObserver* observer) override;

private:
    // Ready once the impl is destroyed, on whichever thread let it go last.
    // Declared first: m_impl's construction sets it.
    std::future<void> m_implReleased;
    // Holds a reference to this object; shared with callbacks in progress.
    std::shared_ptr<ServiceWatcherImpl> m_impl;
};

}  // namespace ferrow
}  // namespace jx
