#include "metrics/metrics_registry.h"

#include <map>
#include <utility>
#include <vector>

namespace jx {
namespace ferrow {
namespace details {

namespace {

// Every open source, by the order it was made. Lock order: the registry's
// lock, then a source's; a source being read holds only its own, so that
// making or closing another never waits for the read.
struct Registry {
    std::mutex mtx;
    std::uint64_t lastKey = 0;
    std::map<std::uint64_t, MetricsSource*> sources;
};

// Never destroyed: objects with static storage may close their sources
// while the process exits.
Registry& TheRegistry() {
    static Registry* const registry = new Registry;
    return *registry;
}

}  // namespace

MetricsSource::MetricsSource(std::function<void(Metrics&)> collect) : m_collect(std::move(collect)) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mtx);
    m_key = ++registry.lastKey;
    registry.sources.emplace(m_key, this);
}

MetricsSource::~MetricsSource() { Close(); }

void MetricsSource::Close() {
    {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> lock(registry.mtx);
        registry.sources.erase(m_key);
    }
    // A collection that found this source before it left the registry
    // reads it under this lock, or finds it closed.
    std::lock_guard<std::mutex> lock(m_mtx);
    m_collect = nullptr;
}

void MetricsSource::CollectInto(Metrics& metrics, std::unique_lock<std::mutex>& registryLock) {
    std::lock_guard<std::mutex> lock(m_mtx);
    registryLock.unlock();
    if (m_collect) m_collect(metrics);
}

}  // namespace details

Metrics CollectMetrics() {
    details::Registry& registry = details::TheRegistry();
    Metrics metrics;
    // One source at a time, the registry's lock taken again for each: the
    // next is found by key, so one closed meanwhile is skipped and one made
    // meanwhile is read.
    std::uint64_t key = 0;
    for (;;) {
        std::unique_lock<std::mutex> lock(registry.mtx);
        const auto it = registry.sources.upper_bound(key);
        if (it == registry.sources.end()) break;
        key = it->first;
        it->second->CollectInto(metrics, lock);
    }
    return metrics;
}

}  // namespace ferrow
}  // namespace jx
