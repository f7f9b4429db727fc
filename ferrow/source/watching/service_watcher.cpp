#include "ferrow/service_watcher.h"

#include <utility>

#include "ferrow/access_control.h"
#include "ferrow/instance_data.h"
#include "metrics/metrics_registry.h"
#include "watching/watcher_state.h"
#include "watching/sync_tracker.h"
#include "watching/watcher_connection.h"

namespace jx {
namespace ferrow {

struct ServiceWatcher::Reports : ServiceWatcherObserver {
    void OnInstanceAdded(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override {
        added.fetch_add(1, std::memory_order_relaxed);
    }
    void OnInstanceRemoved(ServiceWatcher&, const ServiceId&) override {
        removed.fetch_add(1, std::memory_order_relaxed);
    }
    void OnInstanceModified(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override {
        modified.fetch_add(1, std::memory_order_relaxed);
    }
    std::atomic<std::uint64_t> added{0};
    std::atomic<std::uint64_t> removed{0};
    std::atomic<std::uint64_t> modified{0};
};

ServiceWatcher::ServiceWatcher(std::shared_ptr<Connection> conn, const String& name, ZkErrorHandler zkErrorHandler)
    : m_conn(conn),
      m_sessions(std::make_shared<details::WatcherConnection>(conn)),
      m_state(std::make_shared<WatcherState>(*this, std::move(conn), m_sessions, name, std::move(zkErrorHandler))),
      m_sync(std::make_shared<SyncTracker>(m_sessions, ServicePath(name),
                                           [state = std::weak_ptr<WatcherState>(m_state)] {
                                               const std::shared_ptr<WatcherState> alive = state.lock();
                                               return alive && alive->Settled();
                                           })),
      m_service(name),
      m_reports(std::make_shared<Reports>()),
      m_metrics(std::make_unique<details::MetricsSource>([this](Metrics& metrics) { Collect(metrics); })) {
    m_state->SetTracker(m_sync);
    m_state->RegisterShared(m_reports);
    m_state->Attach();
}

void ServiceWatcher::Collect(Metrics& metrics) const {
    WatcherMetrics figures;
    figures.service = m_service;
    figures.instances = m_state->InstanceCount();
    figures.undecodable = m_state->UndecodableCount();
    figures.added = m_reports->added.load(std::memory_order_relaxed);
    figures.modified = m_reports->modified.load(std::memory_order_relaxed);
    figures.removed = m_reports->removed.load(std::memory_order_relaxed);
    const WatcherState::Figures life = m_state->Collect();
    figures.reads = life.reads;
    figures.readRetries = life.readRetries;
    figures.serviceExists = life.serviceExists;
    figures.serviceDeletions = life.deletions;
    figures.serviceCreations = life.creations;
    figures.errors = life.errors;
    figures.viewComplete = m_sync->Track();
    const SyncTracker::Ages ages = m_sync->Times();
    figures.viewAge = ages.incomplete;
    figures.lastSyncDuration = ages.lastSync;
    metrics.watchers.push_back(std::move(figures));
}

ServiceWatcher::~ServiceWatcher() {
    m_metrics->Close();
    // Each gate closed waits, blocked, for this watcher's own callbacks
    // running on other threads, and for nothing else: no notification the
    // connection runs for another watcher, cache or registration.
    m_sync->Close();
    // Taken out of the watcher's registry while alive: the registry matches
    // an entry by the observer it still reaches, so its own destructor,
    // which runs once nothing reaches it, would leave the entry behind.
    m_sessions->UnregisterRaw(static_cast<const ConnectionObserver*>(m_sync.get()));
    // From here on no observer, listener or error handler of this watcher
    // runs. Elsewhere than on the delivery thread, the core's destruction is
    // waited for (only its own callbacks can hold it, and they end at once
    // now), so that its watches are cancelled and the connection released
    // when this returns. On the delivery thread the holder may be the
    // caller's own caller: the core goes when that lets go.
    m_state->Close(!m_conn->IsDeliveryThread());
}

void ServiceWatcher::Start() {
    // With credentials, a missing service node is made as the identity
    // should make it (EnsureServiceNode), so that the core's start-up finds
    // it and never creates it open. Without a connection, or refused, the
    // core's start-up deals with it as ever.
    if (m_conn->HasCredentials() && m_conn->State() == ZOO_CONNECTED_STATE) {
        try {
            EnsureServiceNode(*m_conn, m_service);
        } catch (const ZooError&) {
        }
    }
    m_state->Start();
    m_sync->Started();
}

bool ServiceWatcher::IsSynced() const { return m_sync->Track(); }

bool ServiceWatcher::WaitSynced(std::chrono::milliseconds deadline) const { return m_sync->Wait(deadline); }

void ServiceWatcher::SetSyncedListener(std::function<void(size_t instances)> listener) {
    m_sync->SetListener([state = std::weak_ptr<WatcherState>(m_state), listener = std::move(listener)] {
        if (const std::shared_ptr<WatcherState> alive = state.lock()) listener(alive->InstanceCount());
    });
    m_sync->Track();
}

void ServiceWatcher::SetStaleListener(std::function<void()> listener) {
    m_sync->SetStaleListener(std::move(listener));
    m_sync->Track();
}

void ServiceWatcher::IgnorePersistentInstances(bool ignore) { m_state->IgnorePersistent(ignore); }

void ServiceWatcher::SetServiceListener(std::function<void(bool exists)> listener) {
    m_state->SetServiceListener(std::move(listener));
}

std::vector<ServiceId> ServiceWatcher::ListInstances() const { return m_state->ListInstances(); }

size_t ServiceWatcher::UndecodableCount() const { return m_state->UndecodableCount(); }

bool ServiceWatcher::ServiceExists() const { return m_state->Exists(); }

bool ServiceWatcher::GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const {
    return m_state->GetInstanceData(id, data);
}

void ServiceWatcher::RegisterShared(std::shared_ptr<ServiceWatcherObserver> observer) {
    m_state->RegisterShared(std::move(observer));
}

void ServiceWatcher::RegisterWeak(std::weak_ptr<ServiceWatcherObserver> observer) {
    m_state->RegisterWeak(std::move(observer));
}

void ServiceWatcher::UnregisterShared(const std::shared_ptr<ServiceWatcherObserver>& observer) {
    m_state->UnregisterShared(observer);
}

void ServiceWatcher::UnregisterWeak(const std::weak_ptr<ServiceWatcherObserver>& observer) {
    m_state->UnregisterWeak(observer);
}

void ServiceWatcher::UnregisterRaw(const ServiceWatcherObserver* observer) { m_state->UnregisterRaw(observer); }

}  // namespace ferrow
}  // namespace jx
