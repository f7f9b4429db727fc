#pragma once

// Keeps every instance of one service in memory (its id, host, port, zone,
// weight and whole record, the latter serialized: see CachedInstance), as
// immutable snapshots that any thread takes in constant time.
//
// Threads. The cache applies the watcher's reports on the connection's
// delivery thread, one at a time: each builds the next snapshot beside the
// current one and then swaps it in. Snapshot() never waits for that work; it
// copies one pointer. Every member may be called from any thread.
//
// Ownership. A cache either owns its ServiceWatcher (the first constructor)
// or is attached to one the program owns (the second). An attached cache
// may outlive its watcher: it then keeps its last snapshot, receives no more
// reports and is never synced, and Watcher() must not be called. Snapshots
// are shared: one stays valid, unchanged, for as long as someone holds it,
// also after the cache is gone.
//
// Metrics: while it exists, its instances and the age of its view are part
// of CollectMetrics (ferrow/metrics.h).
//
// Destruction, on any thread other than inside this cache's own observers:
// once the destructor returns, no observer of the cache runs. An owned
// watcher is destroyed first, with the rules of ~ServiceWatcher. An attached
// cache leaves its watcher's session observers, waiting, blocked, for a
// session event its watcher is delivering on another thread at that moment
// (an expiry, whose removals reach the watcher's observers from inside that
// delivery), and for nothing the connection delivers to anyone else.
//
// What is in it. Every instance the watcher reported added and not removed,
// with the record of its latest report. An instance whose record cannot be
// decoded (a corrupt compressed record) is never reported, so it is not in
// the cache; if a known instance's record turns corrupt, the cache keeps the
// last record that decoded until a good one comes or the instance leaves. A
// record that is only partly valid is kept as far as it parsed, as the
// watcher reports it.
//
// A deleted service node is the service gone: the cache removes every
// instance at once (also those it kept through an expiry), before the
// watcher's service listener hears of it; when the node comes back, its
// instances are added as they are read. A record written again unchanged
// is no change: observers hear nothing of it.
//
// A discovery outage is not a service outage. After a session expiry the
// watcher reports every instance removed and reads the service again; the
// cache instead keeps serving the last view it had, unchanged, until the
// new session's view is complete, and then publishes the difference as one
// new version, its observers told of the difference only (nothing at all
// when nothing changed). While ZooKeeper is unreachable it keeps the last
// view for as long as that lasts; ViewAge() says how old it is, and
// IsSynced() is false from the expiry until the fresh view is published.
// This holds for a cache attached before its watcher starts (it must hear
// of the expiry before the watcher reports the removals).

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "ferrow/connection_v2.h"
#include "ferrow/instance_snapshot.h"
#include "ferrow/service_watcher.h"
#include "utility/observable.h"

namespace jx {
namespace ferrow {

class ServiceCache;

// Told of each change a cache applies, on the delivery thread, after the
// snapshot that contains it is published, with no lock of the cache held.
// The default bodies ignore the change.
class ServiceCacheObserver {
public:
    virtual ~ServiceCacheObserver() = default;
    virtual void OnInstanceAdded(ServiceCache&, const InstancePtr& /*added*/) {}
    virtual void OnInstanceModified(ServiceCache&, const InstancePtr& /*before*/, const InstancePtr& /*after*/) {}
    virtual void OnInstanceRemoved(ServiceCache&, const InstancePtr& /*removed*/) {}
};

class ServiceCache : public Observable<ServiceCacheObserver> {
public:
    // A cache with a watcher of its own for `service` on `conn`; nothing is
    // read until Start. `zkErrorHandler` as for ServiceWatcher.
    ServiceCache(std::shared_ptr<Connection> conn, const String& service, ZkErrorHandler zkErrorHandler);
    // A cache fed by `watcher`, which the caller owns and starts. Attach
    // before the watcher starts: the cache knows only the instances reported
    // after it was made. The watcher may be destroyed before the cache, not
    // at the same time as any call of it.
    explicit ServiceCache(ServiceWatcher& watcher);
    ~ServiceCache() override;

    // Observers receive this object by reference: it cannot move or be copied.
    ServiceCache(const ServiceCache&) = delete;
    ServiceCache& operator=(const ServiceCache&) = delete;

    // Starts the owned watcher (ServiceWatcher::Start). Does nothing for an
    // attached cache: its owner starts the watcher.
    void Start();

    // The instances now. Constant time; never waits for an update. Iterate
    // the result itself, `for (const InstancePtr& i : cache.Snapshot())`,
    // which holds it for the loop; `*cache.Snapshot()` in a range-for would
    // keep only a reference to a snapshot the next update may free.
    [[nodiscard]] SnapshotPtr Snapshot() const;
    // The version of the latest snapshot; cheaper than Snapshot() for a
    // reader that only wants to know whether anything changed.
    [[nodiscard]] std::uint64_t Version() const;

    // As ServiceWatcher's: whether every instance of the service's latest
    // full read is in the cache (a snapshot taken after true contains them)
    // and the connection has not been lost since; false from the moment it
    // is lost until the view is known current again, and once an attached
    // cache's watcher is gone.
    [[nodiscard]] bool IsSynced() const;
    [[nodiscard]] bool WaitSynced(std::chrono::milliseconds deadline) const;
    // How long the view has not been known current: zero while IsSynced;
    // otherwise the time since the connection was lost, the session expired
    // or, before the first complete view, the cache was made. The cache serves its last view
    // meanwhile, for as long as that lasts.
    [[nodiscard]] std::chrono::milliseconds ViewAge() const;

    // The watcher that feeds the cache, while it exists.
    ServiceWatcher& Watcher() const { return *m_watcher; }
    // The service's name.
    const String& Service() const { return m_service; }

    void RegisterShared(std::shared_ptr<ServiceCacheObserver> observer) override;
    void RegisterWeak(std::weak_ptr<ServiceCacheObserver> observer) override;
    void UnregisterShared(const std::shared_ptr<ServiceCacheObserver>& observer) override;
    void UnregisterWeak(const std::weak_ptr<ServiceCacheObserver>& observer) override;
    void UnregisterRaw(const ServiceCacheObserver* observer) override;

    class State;

private:
    // Registers the state with the watcher, the connection and the tracker.
    void Attach();

    // Null for an attached cache.
    std::unique_ptr<ServiceWatcher> m_owned;
    ServiceWatcher* const m_watcher;
    // Expired once the watcher is destroyed (its state, which holds the
    // cache's state registered with it, is gone).
    const std::weak_ptr<const void> m_watcherAlive;
    // The watcher's registry of session observers, which outlives it here.
    const std::shared_ptr<Connection> m_conn;
    // Applies the watcher's reports and holds the snapshots; shared with
    // the watcher's observer registry.
    const std::shared_ptr<State> m_state;
    std::uint64_t m_syncedKey = 0;  // the state's listener in the watcher's sync tracker
    std::uint64_t m_serviceKey = 0;  // the state's listener of the service node's life
    const String m_service;
    // This cache's figures in the metrics (ferrow/metrics.h); closed first
    // by the destructor.
    std::unique_ptr<details::MetricsSource> m_metrics;
};

}  // namespace ferrow
}  // namespace jx
