// What the provider's strategies do to the calls of a service, in an
// in-process simulation with the real provider choosing every call:
//
// 1. Least request against round robin and random: ten instances, two of
//    them five times slower than the others, each serving four calls at a
//    time in order of arrival; calls arrive at random (Poisson) at 7,000 a
//    second, 88 % of what the slow ones can take at a tenth each. Time is
//    simulated, so the latencies do not depend on the machine. Prints the
//    calls' p50, p99 and p99.9 and the share sent to the slow instances.
// 2. Choosing by key: how many of 1,000,000 keys move when one
//    instance of N leaves and when it comes back, against its share of the
//    weight (the least that must move), and the keys that moved between
//    instances that stayed (none should).
//
// Usage: ferrow_bench_balance [--calls N] [--seed S] [--smoke]

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <queue>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "ferrow/instance_provider.h"
#include "scripted_service.h"

namespace jx {
namespace bench {
namespace {

using ferrow::ChoiceStrategy;
using ferrow::InstanceProvider;
using ferrow::ProviderOptions;

constexpr std::size_t kInstances = 10;
constexpr std::size_t kSlow = 2;  // the first two are slow
constexpr double kFastMs = 1.0;
constexpr double kSlowMs = 5.0;
constexpr int kConcurrency = 4;
constexpr double kCallsPerMs = 7.0;

struct Call {
    double arrival;
};

// A simulated instance: kConcurrency calls at once, the others queued.
struct Server {
    double meanMs;
    int busy = 0;
    std::deque<Call> queue;
};

struct Done {
    double at;
    std::size_t server;
    Call call;
    bool operator>(const Done& other) const { return at > other.at; }
};

double Percentile(std::vector<double>& values, double share) {
    const auto rank = static_cast<std::size_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(rank), values.end());
    return values[rank];
}

const char* Name(ChoiceStrategy strategy) {
    switch (strategy) {
        case ChoiceStrategy::kRoundRobin:
            return "round_robin";
        case ChoiceStrategy::kRandom:
            return "random";
        case ChoiceStrategy::kLeastRequest:
            return "least_request";
        default:
            return "other";
    }
}

void Simulate(ChoiceStrategy strategy, std::size_t calls, std::uint64_t seed) {
    ScriptedService service(kInstances, true);
    ProviderOptions options;
    options.strategy = strategy;
    InstanceProvider provider(service.Cache(), options);
    std::unordered_map<ServiceId, std::size_t> serverOf;
    std::vector<Server> servers;
    for (const ServiceId& id : service.Ids()) {
        serverOf[id] = servers.size();
        servers.push_back(Server{servers.size() < kSlow ? kSlowMs : kFastMs, 0, {}});
    }
    std::mt19937_64 random(seed);
    std::exponential_distribution<double> arrivals(kCallsPerMs);
    const auto serve = [&](std::size_t server) {
        return std::exponential_distribution<double>(1.0 / servers[server].meanMs)(random);
    };
    std::priority_queue<Done, std::vector<Done>, std::greater<Done>> done;
    std::vector<double> latencies;
    latencies.reserve(calls);
    std::size_t toSlow = 0;
    double now = 0;
    double nextArrival = arrivals(random);
    std::size_t arrived = 0;
    while (latencies.size() < calls) {
        if (arrived < calls && (done.empty() || nextArrival < done.top().at)) {
            now = nextArrival;
            nextArrival += arrivals(random);
            ++arrived;
            const std::size_t server = serverOf.at(provider.Choose()->Id());
            toSlow += server < kSlow ? 1 : 0;
            Server& s = servers[server];
            if (s.busy < kConcurrency) {
                ++s.busy;
                done.push(Done{now + serve(server), server, Call{now}});
            } else {
                s.queue.push_back(Call{now});
            }
            continue;
        }
        const Done finished = done.top();
        done.pop();
        now = finished.at;
        latencies.push_back(now - finished.call.arrival);
        provider.ReportSuccess(service.Ids()[finished.server]);
        Server& s = servers[finished.server];
        if (s.queue.empty()) {
            --s.busy;
        } else {
            done.push(Done{now + serve(finished.server), finished.server, s.queue.front()});
            s.queue.pop_front();
        }
    }
    const double p50 = Percentile(latencies, 0.5), p99 = Percentile(latencies, 0.99);
    const double p999 = Percentile(latencies, 0.999);
    std::printf(
        "RESULT figure=call_latency strategy=%s calls=%zu p50_ms=%.2f p99_ms=%.2f p999_ms=%.2f slow_share=%.3f\n",
        Name(strategy), calls, p50, p99, p999, static_cast<double>(toSlow) / static_cast<double>(calls));
}

// The instance each key goes to.
std::vector<ServiceId> Place(InstanceProvider& provider, const std::vector<std::string>& keys) {
    std::vector<ServiceId> placed;
    placed.reserve(keys.size());
    for (const std::string& key : keys) placed.push_back(provider.Choose(key)->Id());
    return placed;
}

void KeysMoved(std::size_t count, std::size_t keyCount) {
    ScriptedService service(count, true);
    // Weights run from 1 to 100 by index: the 50th weighs about the mean.
    const ServiceId gone = service.Ids()[count > 49 ? 49 : count / 2];
    std::atomic<bool> out{false};
    ProviderOptions options;
    options.strategy = ChoiceStrategy::kByKey;
    // The instance leaves and comes back by the filter: the provider's plan
    // then changes as it would if its node did.
    options.filter = [&](const ferrow::CachedInstance& instance) { return !(out && instance.Id() == gone); };
    InstanceProvider provider(service.Cache(), options);
    std::vector<std::string> keys;
    for (std::size_t key = 0; key < keyCount; ++key) keys.push_back("key-" + std::to_string(key));
    std::uint64_t weights = 0;
    for (const ferrow::InstancePtr& instance : service.Cache()->Snapshot()) weights += instance->Weight();
    const double ideal =
        static_cast<double>(service.Cache()->Snapshot()->Find(gone)->Weight()) / static_cast<double>(weights);

    const auto change = [&](bool leave, std::uint64_t seq) {
        out = leave;
        service.Modify(0, ScriptedService::Bytes(0, seq));  // a new version, the same weights
        const auto started = std::chrono::steady_clock::now();
        (void)provider.WhyNone();  // waits for the plan of the new version
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
    };
    const auto compare = [&](const char* figure, const std::vector<ServiceId>& before,
                             const std::vector<ServiceId>& after, double buildMs) {
        std::size_t moved = 0, strays = 0;
        for (std::size_t key = 0; key < keys.size(); ++key) {
            if (before[key] == after[key]) continue;
            ++moved;
            strays += before[key] != gone && after[key] != gone ? 1 : 0;
        }
        std::printf("RESULT figure=%s instances=%zu keys=%zu moved=%zu ideal=%.0f strays=%zu plan_ms=%.1f\n", figure,
                    count, keys.size(), moved, ideal * static_cast<double>(keys.size()), strays, buildMs);
    };
    const std::vector<ServiceId> first = Place(provider, keys);
    const double leaving = change(true, 1);
    const std::vector<ServiceId> without = Place(provider, keys);
    compare("keys_moved_on_leave", first, without, leaving);
    const double joining = change(false, 2);
    compare("keys_moved_on_join", without, Place(provider, keys), joining);
}

}  // namespace
}  // namespace bench
}  // namespace jx

int main(int argc, char** argv) {
    std::size_t calls = 1'000'000;
    std::uint64_t seed = 1;
    bool smoke = false;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--calls") && i + 1 < argc) {
            calls = std::stoul(argv[++i]);
        } else if (!std::strcmp(argv[i], "--seed") && i + 1 < argc) {
            seed = std::stoull(argv[++i]);
        } else if (!std::strcmp(argv[i], "--smoke")) {
            smoke = true;
        } else {
            std::fprintf(stderr, "usage: ferrow_bench_balance [--calls N] [--seed S] [--smoke]\n");
            return 2;
        }
    }
    if (smoke) calls = 10'000;
    // A process with threads counts references atomically, as a client does.
    std::thread([] {}).join();
    using jx::ferrow::ChoiceStrategy;
    for (ChoiceStrategy strategy :
         {ChoiceStrategy::kRoundRobin, ChoiceStrategy::kRandom, ChoiceStrategy::kLeastRequest}) {
        jx::bench::Simulate(strategy, calls, seed);
    }
    for (std::size_t count : smoke ? std::vector<std::size_t>{10} : std::vector<std::size_t>{10, 100, 10'000}) {
        jx::bench::KeysMoved(count, smoke ? 10'000 : 1'000'000);
    }
    return 0;
}
