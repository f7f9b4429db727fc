#include "ferrow/service_watcher.h"

#include <thread>
#include <utility>

#include "service_watcher_impl.h"

namespace jx {
namespace ferrow {

ServiceWatcher::ServiceWatcher(std::shared_ptr<Connection> conn, const String& name, ZkErrorHandler zkErrorHandler)
    : m_impl(std::make_shared<ServiceWatcherImpl>(*this, std::move(conn), name, std::move(zkErrorHandler))) {}

ServiceWatcher::~ServiceWatcher() {
    // A callback running on the delivery thread shares ownership of the impl
    // and may be about to pass *this to observers: wait until it lets go.
    const std::weak_ptr<ServiceWatcherImpl> impl = m_impl;
    m_impl.reset();
    while (!impl.expired()) std::this_thread::yield();
}

void ServiceWatcher::Start() { m_impl->Start(); }

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
