// Micro-benchmarks of the cache and the provider: one event applied through
// a watcher with and without a cache, and one choice of an instance among
// 10,000 by each strategy, on one thread and on two at once. The watcher
// runs over the tests' scripted connection, which answers on the calling
// thread, so that only the client's own work is timed.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "bench_support.h"
#include "ferrow/instance_provider.h"
#include "ferrow/service_cache.h"
#include "tests/support/fake_connection.h"

namespace jx {
namespace bench {
namespace {

using ferrow::ChoiceStrategy;
using ferrow::InstanceProvider;
using ferrow::ProviderOptions;
using ferrow::ServiceCache;
using ferrow::ServiceWatcher;

// A watcher (and, if asked, a cache attached to it) synced with `count`
// instances whose weights run from 1 to 100.
class ScriptedService {
public:
    ScriptedService(std::size_t count, bool withCache)
        : m_conn(std::make_shared<testing::FakeConnection>()), m_watcher(m_conn, "bench", [](int) {}) {
        if (withCache) m_cache = std::make_shared<ServiceCache>(m_watcher);
        m_watcher.Start();
        std::vector<std::string> children;
        for (const ServiceId& id : RandomIds(count)) children.push_back(boost::uuids::to_string(id));
        // The children read, among the reads of the sync tracker a cache asks.
        std::size_t listing = 0;
        while (!m_conn->At(listing).childrenResult) ++listing;
        const std::size_t first = m_conn->RequestCount();
        m_conn->FireChildren(listing, ZOK, children);
        for (std::size_t request = first; request < m_conn->RequestCount(); ++request) {
            const std::string path = m_conn->At(request).path;
            if (!m_conn->At(request).watch) continue;  // a read of the sync tracker
            const ServiceId id = boost::uuids::string_generator()(path.substr(path.rfind('/') + 1));
            m_ids.push_back(id);
            m_dataRequest[id] = request;
            m_conn->FireData(request, ZOK, Bytes(m_ids.size() - 1, 0));
        }
    }

    // The record of instance `index`, version `seq`, as node bytes.
    static std::string Bytes(std::size_t index, std::uint64_t seq) {
        ServiceInstanceData record = MakeRecord(index, seq);
        record.set_weight(static_cast<std::uint32_t>(1 + index % 100));
        return EncodeEnvelope(record);
    }

    // Instance `index`'s record changes to `bytes`: its data watch fires and
    // the watcher's read of it is answered.
    void Modify(std::size_t index, const std::string& bytes) {
        std::size_t& request = m_dataRequest[m_ids[index]];
        m_conn->FireWatch(request, ZOO_CHANGED_EVENT);
        request = m_conn->RequestCount() - 1;
        m_conn->FireData(request, ZOK, bytes);
    }

    std::size_t Size() const { return m_ids.size(); }
    const std::shared_ptr<ServiceCache>& Cache() const { return m_cache; }

private:
    std::shared_ptr<testing::FakeConnection> m_conn;
    ServiceWatcher m_watcher;
    std::shared_ptr<ServiceCache> m_cache;
    std::vector<ServiceId> m_ids;
    std::unordered_map<ServiceId, std::size_t> m_dataRequest;
};

// One modification reported by the watcher, with range(1) == 1 applied to
// a cache of range(0) instances as well. The cache's cost per event is the
// difference between the two.
void BM_ApplyModification(benchmark::State& state) {
    ScriptedService service(static_cast<std::size_t>(state.range(0)), state.range(1) == 1);
    const std::string bytes[2] = {ScriptedService::Bytes(7, 1), ScriptedService::Bytes(7, 2)};
    std::size_t event = 0;
    for (auto _ : state) {
        service.Modify(event % service.Size(), bytes[event % 2]);
        ++event;
    }
    if (service.Cache()) benchmark::DoNotOptimize(service.Cache()->Version());
}
BENCHMARK(BM_ApplyModification)->Args({10000, 0})->Args({10000, 1})->Args({50000, 1});

// A snapshot, taken by a reader.
void BM_TakeSnapshot(benchmark::State& state) {
    static ScriptedService service(10000, true);
    for (auto _ : state) benchmark::DoNotOptimize(service.Cache()->Snapshot());
}
BENCHMARK(BM_TakeSnapshot)->Threads(1)->Threads(2)->UseRealTime();

// One choice among 10,000 instances; with two threads, items_per_second is
// the total of both.
void Choose(benchmark::State& state, ChoiceStrategy strategy) {
    static ScriptedService service(10000, true);
    static InstanceProvider* providers[4] = {};
    static std::once_flag made;
    std::call_once(made, [] {
        // A process that has never started a thread counts references
        // without atomic instructions; a client of ZooKeeper always has
        // threads, so the figures are taken as in one.
        std::thread([] {}).join();
        for (int s = 0; s < 4; ++s) {
            ProviderOptions options;
            options.strategy = static_cast<ChoiceStrategy>(s);
            options.zone = "zone-a";
            providers[s] = new InstanceProvider(service.Cache(), options);
        }
    });
    InstanceProvider& provider = *providers[static_cast<int>(strategy)];
    for (auto _ : state) benchmark::DoNotOptimize(provider.Choose());
    state.SetItemsProcessed(state.iterations());
}
void BM_ChooseRoundRobin(benchmark::State& state) { Choose(state, ChoiceStrategy::kRoundRobin); }
void BM_ChooseRandom(benchmark::State& state) { Choose(state, ChoiceStrategy::kRandom); }
void BM_ChooseWeighted(benchmark::State& state) { Choose(state, ChoiceStrategy::kWeighted); }
void BM_ChooseSticky(benchmark::State& state) { Choose(state, ChoiceStrategy::kSticky); }
BENCHMARK(BM_ChooseRoundRobin)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ChooseRandom)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ChooseWeighted)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ChooseSticky)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
}  // namespace bench
}  // namespace jx
