#include "ferrow/service_cache.h"

#include <atomic>
#include <mutex>
#include <utility>

#include "callback_gate.h"
#include "instance_table.h"
#include "utility/observable_impl.h"

namespace jx {
namespace ferrow {

// Applies a watcher's reports to the table and publishes each result. The
// watcher calls it on the delivery thread; readers only load m_snapshot.
class ServiceCache::State : public ServiceWatcherObserver, public ObservableImpl<ServiceCacheObserver> {
public:
    explicit State(ServiceCache& cache) : m_cache(cache) {}

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
            removed = m_table.Remove(id);
            // The watcher also reports instances it never reported added.
            if (!removed) return;
            Publish();
        }
        NotifyObservers(&ServiceCacheObserver::OnInstanceRemoved, m_cache, removed);
    }

    // No report is applied from now on; waits for one being applied on
    // another thread. A report that the caller is itself inside finishes
    // without the cache: the registry may still hold this state.
    void Close() { m_gate.Close(); }

    SnapshotPtr Snapshot() const { return std::atomic_load_explicit(&m_snapshot, std::memory_order_acquire); }

    std::uint64_t Version() const { return m_version.load(std::memory_order_acquire); }

private:
    void Put(const ServiceId& id, const ServiceInstanceData& record) {
        // Built before the lock: encoding the record is the costly part.
        InstancePtr after = CachedInstance::Make(id, record);
        InstancePtr before;
        {
            std::lock_guard<std::mutex> lock(m_writeMtx);
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
    std::mutex m_writeMtx;  // guards m_table; one report at a time
    InstanceTable m_table;
    // Read and written only through the atomic shared_ptr functions: a
    // reader copies the pointer, the writer swaps it, neither waits longer.
    std::shared_ptr<const InstanceSnapshot> m_snapshot = std::make_shared<const InstanceSnapshot>();
    std::atomic<std::uint64_t> m_version{0};
};

ServiceCache::ServiceCache(std::shared_ptr<Connection> conn, const String& service, ZkErrorHandler zkErrorHandler)
    : m_owned(std::make_unique<ServiceWatcher>(std::move(conn), service, std::move(zkErrorHandler))),
      m_watcher(m_owned.get()),
      m_watcherAlive(m_owned->m_impl),
      m_state(std::make_shared<State>(*this)) {
    m_watcher->RegisterShared(m_state);
}

ServiceCache::ServiceCache(ServiceWatcher& watcher)
    : m_watcher(&watcher), m_watcherAlive(watcher.m_impl), m_state(std::make_shared<State>(*this)) {
    m_watcher->RegisterShared(m_state);
}

ServiceCache::~ServiceCache() {
    // No report reaches the cache once this returns; the watcher's registry
    // lets go of the state when it is done with it.
    m_state->Close();
    if (m_owned) {
        m_owned.reset();
    } else if (const std::shared_ptr<const void> alive = m_watcherAlive.lock()) {
        m_watcher->UnregisterShared(m_state);
    }
}

void ServiceCache::Start() {
    if (m_owned) m_owned->Start();
}

SnapshotPtr ServiceCache::Snapshot() const { return m_state->Snapshot(); }

std::uint64_t ServiceCache::Version() const { return m_state->Version(); }

bool ServiceCache::IsSynced() const { return !m_watcherAlive.expired() && m_watcher->IsSynced(); }

bool ServiceCache::WaitSynced(std::chrono::milliseconds deadline) const {
    return !m_watcherAlive.expired() && m_watcher->WaitSynced(deadline);
}

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
