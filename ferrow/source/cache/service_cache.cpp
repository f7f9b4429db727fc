#include "ferrow/service_cache.h"

#include <atomic>
#include <condition_variable>
#include <unordered_map>
#include <vector>
#include <mutex>
#include <utility>

#include "connection/callback_gate.h"
#include "cache/instance_table.h"
#include "metrics/metrics_registry.h"
#include "watching/watcher_connection.h"
#include "watching/sync_tracker.h"
#include "watching/watcher_state.h"
#include "utility/observable_impl.h"

namespace jx {
namespace ferrow {

// Applies a watcher's reports to the table and publishes each result. The
// watcher calls it on the delivery thread; readers only load m_snapshot.
//
// Across a session expiry the watcher reports every instance removed and
// reads the service afresh. The state learns of the expiry first (it
// registers for session events before the watcher starts), keeps publishing
// nothing from then on, and gathers the fresh read's reports in m_fresh;
// once the watcher's view is complete again it publishes the difference
// between the view it kept and the fresh one as one version.
class ServiceCache::State : public ServiceWatcherObserver,
                            public ConnectionObserver,
                            public ObservableImpl<ServiceCacheObserver> {
public:
    explicit State(ServiceCache& cache) : m_cache(cache), m_staleSince(NowNs()) {}

    void OnInstanceAdded(ServiceWatcher&, const ServiceId& id, const ServiceInstanceData& record) override {
        if (const CallbackGate::Pass pass = m_gate.Enter()) Put(id, record);
    }
    void OnInstanceModified(ServiceWatcher&, const ServiceId& id, const ServiceInstanceData& record) override {
        if (const CallbackGate::Pass pass = m_gate.Enter()) Put(id, record);
    }
    void OnInstanceRemoved(ServiceWatcher&, const ServiceId& id) override {
        const CallbackGate::Pass pass = m_gate.Enter();
        if (!pass) return;
        InstancePtr removed;
        {
            std::lock_guard<std::mutex> lock(m_writeMtx);
            if (m_refreshing) {
                m_fresh.erase(id);
                return;
            }
            removed = m_table.Remove(id);
            // The watcher also reports instances it never reported added.
            if (!removed) return;
            Publish();
        }
        NotifyObservers(&ServiceCacheObserver::OnInstanceRemoved, m_cache, removed);
    }

    void OnSessionEvent(int type, int state, String) override {
        const CallbackGate::Pass pass = m_gate.Enter();
        if (!pass || type != ZOO_SESSION_EVENT) return;
        // Connected again: current once the watcher's view is (OnSynced),
        // after the events of what changed meanwhile.
        if (state == ZOO_CONNECTED_STATE) return;
        std::lock_guard<std::mutex> lock(m_writeMtx);
        // Not current from the moment the connection is lost: the view is
        // still served, and changes made now are seen only once it is back.
        std::int64_t current = 0;
        m_staleSince.compare_exchange_strong(current, NowNs());
        m_synced = false;
        if (state != ZOO_EXPIRED_SESSION_STATE) return;
        m_refreshing = true;
        m_fresh.clear();
    }

    // The service node was deleted: its instances are gone now, also those
    // kept through an expiry that the refresh has not yet told apart.
    void OnServiceGone() {
        const CallbackGate::Pass pass = m_gate.Enter();
        if (!pass) return;
        std::vector<InstancePtr> removed;
        {
            std::lock_guard<std::mutex> lock(m_writeMtx);
            m_fresh.clear();
            for (const InstancePtr& kept : SnapshotPtr(m_snapshot)) removed.push_back(m_table.Remove(kept->Id()));
            if (!removed.empty()) Publish();
        }
        for (const InstancePtr& instance : removed) {
            NotifyObservers(&ServiceCacheObserver::OnInstanceRemoved, m_cache, instance);
        }
    }

    // The watcher's view is complete: a refresh after an expiry is published.
    void OnSynced() {
        const CallbackGate::Pass pass = m_gate.Enter();
        if (!pass) return;
        std::vector<std::pair<InstancePtr, InstancePtr>> changes;  // (before, after); either may be null
        {
            std::lock_guard<std::mutex> lock(m_writeMtx);
            if (m_refreshing) {
                for (const InstancePtr& kept : SnapshotPtr(m_snapshot)) {
                    if (m_fresh.count(kept->Id()) == 0) changes.emplace_back(m_table.Remove(kept->Id()), nullptr);
                }
                for (const auto& entry : m_fresh) {
                    const InstancePtr& fresh = entry.second;
                    // Unchanged: the instance its holders know stays.
                    const InstancePtr kept = m_table.Get(fresh->Id());
                    if (kept && kept->SameRecordAs(*fresh)) continue;
                    changes.emplace_back(m_table.Put(fresh), fresh);
                }
                m_fresh.clear();
                m_refreshing = false;
                if (!changes.empty()) Publish();
            }
            m_synced = true;
            m_staleSince.store(0);
        }
        m_syncedCv.notify_all();
        for (const auto& [before, after] : changes) {
            if (!after) {
                NotifyObservers(&ServiceCacheObserver::OnInstanceRemoved, m_cache, before);
            } else if (before) {
                NotifyObservers(&ServiceCacheObserver::OnInstanceModified, m_cache, before, after);
            } else {
                NotifyObservers(&ServiceCacheObserver::OnInstanceAdded, m_cache, after);
            }
        }
    }

    // No report is applied from now on; waits for one being applied on
    // another thread. A report that the caller is itself inside finishes
    // without the cache: the registry may still hold this state.
    void Close() { m_gate.Close(); }

    SnapshotPtr Snapshot() const { return std::atomic_load_explicit(&m_snapshot, std::memory_order_acquire); }
    std::uint64_t Version() const { return m_version.load(std::memory_order_acquire); }

    bool Synced() {
        std::lock_guard<std::mutex> lock(m_writeMtx);
        return m_synced;
    }
    bool WaitSynced(std::chrono::milliseconds deadline) {
        std::unique_lock<std::mutex> lock(m_writeMtx);
        return m_syncedCv.wait_for(lock, deadline, [this] { return m_synced; });
    }
    std::chrono::milliseconds ViewAge() const {
        const std::int64_t since = m_staleSince.load();
        return since == 0 ? std::chrono::milliseconds(0)
                          : std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::nanoseconds(NowNs() - since));
    }

private:
    static std::int64_t NowNs() {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    void Put(const ServiceId& id, const ServiceInstanceData& record) {
        // Built before the lock: encoding the record is the costly part.
        InstancePtr after = CachedInstance::Make(id, record);
        InstancePtr before;
        {
            std::lock_guard<std::mutex> lock(m_writeMtx);
            if (m_refreshing) {
                m_fresh[id] = std::move(after);
                return;
            }
            const InstancePtr kept = m_table.Get(id);
            // The node written again with the same record: nothing changed.
            if (kept && kept->SameRecordAs(*after)) return;
            before = m_table.Put(after);
            Publish();
        }
        if (before) {
            NotifyObservers(&ServiceCacheObserver::OnInstanceModified, m_cache, before, after);
        } else {
            NotifyObservers(&ServiceCacheObserver::OnInstanceAdded, m_cache, after);
        }
    }

    // Requires m_writeMtx held. The version is stored after the snapshot, so
    // a reader that sees a version finds a snapshot at least that new.
    void Publish() {
        std::shared_ptr<const InstanceSnapshot> next = m_table.Publish().Shared();
        const std::uint64_t version = next->Version();
        std::atomic_store_explicit(&m_snapshot, std::move(next), std::memory_order_release);
        m_version.store(version, std::memory_order_release);
    }

    ServiceCache& m_cache;  // valid while m_gate is open
    CallbackGate m_gate;
    std::mutex m_writeMtx;  // guards m_table and the fields below it; one report at a time
    InstanceTable m_table;
    // Between an expiry and the next complete view: the fresh read so far.
    bool m_refreshing = false;
    std::unordered_map<ServiceId, InstancePtr> m_fresh;
    bool m_synced = false;
    std::condition_variable m_syncedCv;
    // Read and written only through the atomic shared_ptr functions: a
    // reader copies the pointer, the writer swaps it, neither waits longer.
    std::shared_ptr<const InstanceSnapshot> m_snapshot = std::make_shared<const InstanceSnapshot>();
    std::atomic<std::uint64_t> m_version{0};
    // steady_clock nanoseconds since which the view is not known current;
    // 0 while it is.
    std::atomic<std::int64_t> m_staleSince;
};

ServiceCache::ServiceCache(std::shared_ptr<Connection> conn, const String& service, ZkErrorHandler zkErrorHandler)
    : m_owned(std::make_unique<ServiceWatcher>(std::move(conn), service, std::move(zkErrorHandler))),
      m_watcher(m_owned.get()),
      m_watcherAlive(m_owned->m_state),
      m_conn(m_owned->m_sessions),
      m_state(std::make_shared<State>(*this)),
      m_service(service) {
    Attach();
}

ServiceCache::ServiceCache(ServiceWatcher& watcher)
    : m_watcher(&watcher),
      m_watcherAlive(watcher.m_state),
      m_conn(watcher.m_sessions),
      m_state(std::make_shared<State>(*this)),
      m_service(watcher.Service()) {
    Attach();
}

void ServiceCache::Attach() {
    m_watcher->RegisterShared(m_state);
    // With the watcher's own registry of session observers: registered
    // before the watcher starts, and so told of an expiry before the watcher
    // reports every instance removed.
    m_conn->RegisterWeak(std::weak_ptr<ConnectionObserver>(m_state));
    m_syncedKey = m_watcher->m_sync->AddListener([state = std::weak_ptr<State>(m_state)] {
        if (const std::shared_ptr<State> alive = state.lock()) alive->OnSynced();
    });
    m_watcher->m_sync->Track();
    m_serviceKey = m_watcher->m_state->AddServiceListener([state = std::weak_ptr<State>(m_state)](bool exists) {
        if (const std::shared_ptr<State> alive = state.lock(); alive && !exists) alive->OnServiceGone();
    });
    m_metrics = std::make_unique<details::MetricsSource>([this](Metrics& metrics) {
        CacheMetrics figures;
        figures.service = m_service;
        figures.instances = Snapshot()->size();
        figures.version = Version();
        figures.viewComplete = IsSynced();
        figures.viewAge = ViewAge();
        metrics.caches.push_back(std::move(figures));
    });
}

ServiceCache::~ServiceCache() {
    m_metrics->Close();
    // No report reaches the cache once this returns; the watcher's registry
    // lets go of the state when it is done with it.
    m_state->Close();
    if (m_owned) {
        m_owned.reset();
    } else if (const std::shared_ptr<const void> alive = m_watcherAlive.lock()) {
        m_watcher->m_sync->RemoveListener(m_syncedKey);
        m_watcher->m_state->RemoveServiceListener(m_serviceKey);
        m_watcher->UnregisterShared(m_state);
    }
    m_conn->UnregisterRaw(static_cast<const ConnectionObserver*>(m_state.get()));
}

void ServiceCache::Start() {
    if (m_owned) m_owned->Start();
}

SnapshotPtr ServiceCache::Snapshot() const { return m_state->Snapshot(); }

std::uint64_t ServiceCache::Version() const { return m_state->Version(); }

bool ServiceCache::IsSynced() const { return !m_watcherAlive.expired() && m_state->Synced(); }

bool ServiceCache::WaitSynced(std::chrono::milliseconds deadline) const {
    return !m_watcherAlive.expired() && m_state->WaitSynced(deadline);
}

std::chrono::milliseconds ServiceCache::ViewAge() const { return m_state->ViewAge(); }

void ServiceCache::RegisterShared(std::shared_ptr<ServiceCacheObserver> observer) {
    m_state->RegisterShared(std::move(observer));
}

void ServiceCache::RegisterWeak(std::weak_ptr<ServiceCacheObserver> observer) {
    m_state->RegisterWeak(std::move(observer));
}

void ServiceCache::UnregisterShared(const std::shared_ptr<ServiceCacheObserver>& observer) {
    m_state->UnregisterShared(observer);
}

void ServiceCache::UnregisterWeak(const std::weak_ptr<ServiceCacheObserver>& observer) {
    m_state->UnregisterWeak(observer);
}

void ServiceCache::UnregisterRaw(const ServiceCacheObserver* observer) { m_state->UnregisterRaw(observer); }

}  // namespace ferrow
}  // namespace jx
