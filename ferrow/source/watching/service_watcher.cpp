#include "ferrow/service_watcher.h"

#include <utility>

#include "ferrow/instance_data.h"
#include "metrics/metrics_registry.h"
#include "watching/service_watcher_impl.h"
#include "watching/sync_tracker.h"

namespace jx {
namespace ferrow {

namespace {

// Owns `impl` and makes `released` ready once it has been destroyed.
std::shared_ptr<ServiceWatcherImpl> OwnImpl(std::unique_ptr<ServiceWatcherImpl> impl, std::future<void>& released) {
    auto destroyed = std::make_shared<std::promise<void>>();
    released = destroyed->get_future();
    return std::shared_ptr<ServiceWatcherImpl>(impl.release(), [destroyed](ServiceWatcherImpl* doomed) {
        delete doomed;
        destroyed->set_value();
    });
}

}  // namespace

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
      m_impl(OwnImpl(std::make_unique<ServiceWatcherImpl>(*this, conn, name, std::move(zkErrorHandler)),
                     m_implReleased)),
      m_sync(std::make_shared<SyncTracker>(std::move(conn), ServicePath(name),
                                           [impl = std::weak_ptr<ServiceWatcherImpl>(m_impl)] {
                                               const std::shared_ptr<ServiceWatcherImpl> alive = impl.lock();
                                               return alive && alive->Settled();
                                           })),
      m_service(name),
      m_reports(std::make_shared<Reports>()),
      m_metrics(std::make_unique<details::MetricsSource>([this](Metrics& metrics) { Collect(metrics); })) {
    m_impl->RegisterShared(m_reports);
}

void ServiceWatcher::Collect(Metrics& metrics) const {
    WatcherMetrics figures;
    figures.service = m_service;
    figures.instances = m_impl->InstanceCount();
    figures.added = m_reports->added.load(std::memory_order_relaxed);
    figures.modified = m_reports->modified.load(std::memory_order_relaxed);
    figures.removed = m_reports->removed.load(std::memory_order_relaxed);
    figures.reads = m_impl->Reads();
    figures.readRetries = m_impl->ReadRetries();
    figures.viewComplete = m_sync->Track();
    const SyncTracker::Ages ages = m_sync->Times();
    figures.viewAge = ages.incomplete;
    figures.lastSyncDuration = ages.lastSync;
    metrics.watchers.push_back(std::move(figures));
}

ServiceWatcher::~ServiceWatcher() {
    m_metrics->Close();
    // From here on no observer or error handler of this watcher runs, and
    // none is running on another thread.
    m_sync->Close();
    m_impl->Close();
    // Taken out of the connection's registry while both are alive: the
    // registry matches an entry by the observer it still reaches, so their
    // own destructors, which run once nothing reaches them, would leave the
    // entries behind, one pair per watcher ever made.
    m_conn->UnregisterRaw(static_cast<const ConnectionObserver*>(m_sync.get()));
    m_conn->UnregisterRaw(static_cast<const ConnectionObserver*>(m_impl.get()));
    // The impl may still be held by a callback that was turned away, or by
    // the connection while it notifies its observers of a session event.
    // Elsewhere than on the delivery thread, that ends soon and is waited
    // for, so that the watches are cancelled and the connection released
    // when this returns. On the delivery thread the holder may be the
    // caller's own caller: the impl goes when that lets go.
    const bool wait = !m_conn->IsDeliveryThread();
    m_impl.reset();
    if (wait) m_implReleased.wait();
}

void ServiceWatcher::Start() {
    m_impl->Start();
    m_sync->Started();
}

bool ServiceWatcher::IsSynced() const { return m_sync->Track(); }

bool ServiceWatcher::WaitSynced(std::chrono::milliseconds deadline) const { return m_sync->Wait(deadline); }

void ServiceWatcher::SetSyncedListener(std::function<void(size_t instances)> listener) {
    m_sync->SetListener([impl = std::weak_ptr<ServiceWatcherImpl>(m_impl), listener = std::move(listener)] {
        if (const std::shared_ptr<ServiceWatcherImpl> alive = impl.lock()) listener(alive->ListInstances().size());
    });
    m_sync->Track();
}

std::vector<ServiceId> ServiceWatcher::ListInstances() const { return m_impl->ListInstances(); }

bool ServiceWatcher::GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const {
    return m_impl->GetInstanceData(id, data);
}

void ServiceWatcher::RegisterShared(std::shared_ptr<ServiceWatcherObserver> observer) {
    m_impl->RegisterShared(std::move(observer));
}

void ServiceWatcher::RegisterWeak(std::weak_ptr<ServiceWatcherObserver> observer) {
    m_impl->RegisterWeak(std::move(observer));
}

void ServiceWatcher::UnregisterShared(const std::shared_ptr<ServiceWatcherObserver>& observer) {
    m_impl->UnregisterShared(observer);
}

void ServiceWatcher::UnregisterWeak(const std::weak_ptr<ServiceWatcherObserver>& observer) {
    m_impl->UnregisterWeak(observer);
}

void ServiceWatcher::UnregisterRaw(const ServiceWatcherObserver* observer) { m_impl->UnregisterRaw(observer); }

}  // namespace ferrow
}  // namespace jx
