// Micro-benchmarks of the cache and the provider: one event applied through
// a watcher with and without a cache, one choice of an instance among
// 10,000 by each strategy, on one thread and on two at once, and the first
// choice after a change. The watcher runs over the tests' scripted
// connection, which answers on the calling thread, so that only the
// client's own work is timed.

#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ferrow/instance_provider.h"
#include "scripted_service.h"

namespace jx {
namespace bench {
namespace {

using ferrow::ChoiceStrategy;
using ferrow::InstanceProvider;
using ferrow::ProviderOptions;

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

// The providers of the choice benchmarks, one per strategy, over one cache
// of 10,000 instances.
InstanceProvider& ProviderOf(ChoiceStrategy strategy) {
    static ScriptedService service(10000, true);
    static std::vector<std::unique_ptr<InstanceProvider>> providers;
    static std::once_flag made;
    std::call_once(made, [] {
        // A process that has never started a thread counts references
        // without atomic instructions; a client of ZooKeeper always has
        // threads, so the figures are taken as in one.
        std::thread([] {}).join();
        for (int s = 0; s <= static_cast<int>(ChoiceStrategy::kByKey); ++s) {
            ProviderOptions options;
            options.strategy = static_cast<ChoiceStrategy>(s);
            options.zone = "zone-a";
            providers.push_back(std::make_unique<InstanceProvider>(service.Cache(), options));
            // The plan is built before the timing starts: by key, it takes
            // a table of a million slots.
            (void)providers.back()->WhyNone();
        }
    });
    return *providers[static_cast<std::size_t>(strategy)];
}

// One choice among 10,000 instances; with two threads, items_per_second is
// the total of both. Least request reports each call's end, as its callers
// must; its figure is of the pair.
void Choose(benchmark::State& state, ChoiceStrategy strategy) {
    InstanceProvider& provider = ProviderOf(strategy);
    if (strategy == ChoiceStrategy::kLeastRequest) {
        for (auto _ : state) provider.ReportEnd(provider.Choose()->Id());
    } else {
        for (auto _ : state) benchmark::DoNotOptimize(provider.Choose());
    }
    state.SetItemsProcessed(state.iterations());
}
void BM_ChooseRoundRobin(benchmark::State& state) { Choose(state, ChoiceStrategy::kRoundRobin); }
void BM_ChooseRandom(benchmark::State& state) { Choose(state, ChoiceStrategy::kRandom); }
void BM_ChooseWeighted(benchmark::State& state) { Choose(state, ChoiceStrategy::kWeighted); }
void BM_ChooseSticky(benchmark::State& state) { Choose(state, ChoiceStrategy::kSticky); }
void BM_ChooseLeastRequest(benchmark::State& state) { Choose(state, ChoiceStrategy::kLeastRequest); }
BENCHMARK(BM_ChooseRoundRobin)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ChooseRandom)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ChooseWeighted)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ChooseSticky)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ChooseLeastRequest)->Threads(1)->Threads(2)->UseRealTime();

// Least request's choice alone, without the report that ends the call.
void BM_ChooseLeastRequestOnly(benchmark::State& state) {
    InstanceProvider& provider = ProviderOf(ChoiceStrategy::kLeastRequest);
    for (auto _ : state) benchmark::DoNotOptimize(provider.Choose());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ChooseLeastRequestOnly)->Threads(1)->Threads(2)->UseRealTime();

// One choice by key, among 4,096 keys of a dozen bytes in turn.
void BM_ChooseByKey(benchmark::State& state) {
    InstanceProvider& provider = ProviderOf(ChoiceStrategy::kByKey);
    std::vector<std::string> keys;
    for (int key = 0; key < 4096; ++key) keys.push_back("user-" + std::to_string(1000000 + key * 7919));
    std::size_t next = static_cast<std::size_t>(state.thread_index()) * 1999;
    for (auto _ : state) benchmark::DoNotOptimize(provider.Choose(keys[next++ % keys.size()]));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ChooseByKey)->Threads(1)->Threads(2)->UseRealTime();

// The first choice after a change of the cache, by a thread that chose
// before it (range(1) == 1: with a filter that decodes each record), and,
// as plan_build_us, how long the provider's thread then took until the
// plan of the new version was in use.
void BM_FirstChoiceAfterChange(benchmark::State& state) {
    ScriptedService service(static_cast<std::size_t>(state.range(0)), true);
    ProviderOptions options;
    if (state.range(1) == 1) options.filter = [](const ferrow::CachedInstance& i) { return i.Record().port() != 0; };
    InstanceProvider provider(service.Cache(), options);
    benchmark::DoNotOptimize(provider.Choose());
    const std::string bytes[2] = {ScriptedService::Bytes(7, 1), ScriptedService::Bytes(7, 2)};
    std::size_t event = 0;
    double building = 0;
    for (auto _ : state) {
        state.PauseTiming();
        service.Modify(event % service.Size(), bytes[event % 2]);
        ++event;
        const auto changed = std::chrono::steady_clock::now();
        state.ResumeTiming();
        benchmark::DoNotOptimize(provider.Choose());
        state.PauseTiming();
        // WhyNone waits for the plan of the cache's version.
        benchmark::DoNotOptimize(provider.WhyNone());
        building += std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - changed).count();
        state.ResumeTiming();
    }
    state.counters["plan_build_us"] = building / static_cast<double>(state.iterations());
}
BENCHMARK(BM_FirstChoiceAfterChange)->Args({10000, 0})->Args({10000, 1})->Iterations(200);

}  // namespace
}  // namespace bench
}  // namespace jx
