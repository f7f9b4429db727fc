// The cache of a service and the provider that chooses from it, over the
// real connection against a real server.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <set>
#include <thread>

#include <sys/syscall.h>
#include <unistd.h>

#include <boost/uuid/random_generator.hpp>
#include <gtest/gtest.h>

#include "ferrow/instance_provider.h"
#include "ferrow/metrics.h"
#include "ferrow/service_cache.h"
#include "tests/support/instances.h"
#include "tests/support/server_suite.h"

namespace jx {
namespace ferrow {
namespace {

using testing::InstanceMap;
using testing::MakeRecord;
using testing::PollUntil;
constexpr std::chrono::seconds kPatience{30};
boost::uuids::random_generator g_generate;

class CacheTest : public testing::ServerSuite {
protected:
    const std::shared_ptr<ZooKeeperConnection> conn = testing::Connect(s_server->ConnectString());

    // Writes `count` instances to the service and returns them.
    InstanceMap Preload(int count) {
        InstanceMap truth;
        for (int i = 0; i < count; ++i) truth.emplace(g_generate(), MakeRecord(i));
        writer.CreateAll(truth);
        return truth;
    }

    std::shared_ptr<ServiceCache> StartCache() {
        auto cache = std::make_shared<ServiceCache>(conn, name, [](int rc) { ADD_FAILURE() << zerror(rc); });
        cache->Start();
        EXPECT_TRUE(cache->WaitSynced(kPatience));
        return cache;
    }
};

ProviderOptions Using(ChoiceStrategy strategy) {
    ProviderOptions options;
    options.strategy = strategy;
    return options;
}

// The figures of the one provider (or cache) of `service` in `metrics`.
template <typename Figures>
const Figures& Of(const std::vector<Figures>& all, const String& service) {
    const auto it = std::find_if(all.begin(), all.end(), [&](const Figures& f) { return f.service == service; });
    if (it == all.end()) throw std::runtime_error("no figures of " + service);
    return *it;
}

// The ids of `instances`, in their order.
std::vector<ServiceId> IdsOf(const InstanceMap& instances) {
    std::vector<ServiceId> ids;
    for (const auto& entry : instances) ids.push_back(entry.first);
    return ids;
}

InstanceMap Contents(const InstanceSnapshot& snapshot) {
    InstanceMap contents;
    for (const InstancePtr& instance : snapshot) contents.emplace(instance->Id(), instance->Record());
    EXPECT_EQ(contents.size(), snapshot.size()) << "an id twice";
    return contents;
}

// Counts the observers' reports by kind, checking that a modification's
// `before` is the instance that was cached.
struct Counter : ServiceCacheObserver {
    void OnInstanceAdded(ServiceCache&, const InstancePtr&) override { ++added; }
    void OnInstanceModified(ServiceCache&, const InstancePtr& before, const InstancePtr& after) override {
        modified += before->Id() == after->Id() && !testing::SameRecord(before->Record(), after->Record());
    }
    void OnInstanceRemoved(ServiceCache&, const InstancePtr&) override { ++removed; }
    std::atomic<int> added{0}, modified{0}, removed{0};
};

// Complete once synced; every change lands in a new snapshot while the old
// ones keep what they held (through faults and expiries: schedule_test.cpp).
TEST_F(CacheTest, SnapshotsFollowTheServiceAndNeverChange) {
    InstanceMap truth = Preload(150);  // three blocks
    const auto cache = StartCache();
    const auto counter = std::make_shared<Counter>();
    cache->RegisterShared(counter);
    const SnapshotPtr first = cache->Snapshot();
    EXPECT_TRUE(testing::SameInstances(truth, Contents(*first)));

    const InstanceMap before = truth;
    auto it = truth.begin();
    for (int i = 0; i < 20; ++i, ++it) {  // removals from the first block pull entries from the last
        writer.Remove(it->first);
        it = truth.erase(it);
        it->second.set_port(it->second.port() + 1);
        writer.Set(it->first, it->second);
    }
    const ServiceId added = g_generate();
    writer.Create(added, truth[added] = MakeRecord(999));
    EXPECT_TRUE(PollUntil([&] { return testing::SameInstances(truth, Contents(*cache->Snapshot())); }, kPatience));
    EXPECT_TRUE(testing::SameInstances(before, Contents(*first)));
    EXPECT_EQ(counter->removed, 20);
    EXPECT_EQ(counter->modified, 20);
    EXPECT_EQ(counter->added, 1);
    EXPECT_EQ(cache->Snapshot()->Version(), first->Version() + 41);
    EXPECT_EQ(cache->Snapshot()->Find(added)->Port(), truth[added].port());
    EXPECT_EQ(first->Find(added), nullptr);

    // A loop over Snapshot() itself holds the snapshot while an update
    // replaces it; its iterators serve the standard algorithms.
    std::vector<InstancePtr> listed;
    for (const InstancePtr& instance : cache->Snapshot()) {
        if (listed.empty()) {
            const std::uint64_t version = cache->Version();
            writer.Remove(instance->Id());
            ASSERT_TRUE(PollUntil([&] { return cache->Version() > version; }, kPatience));
        }
        listed.push_back(instance);
    }
    EXPECT_EQ(listed.size(), truth.size());
    const SnapshotPtr now = cache->Snapshot();
    EXPECT_EQ(std::vector<InstancePtr>(now.begin(), now.end()).size(), truth.size() - 1);
    EXPECT_EQ(std::find_if(now.begin(), now.end(), [&](const InstancePtr& i) { return i->Id() == listed[0]->Id(); }),
              now.end());
}

// A cache attached to a watcher outlives it: its last snapshot stays, it is
// no longer synced, and destroying it afterwards is safe. A provider tells
// an incomplete view from an empty service.
TEST_F(CacheTest, AnAttachedCacheOutlivesItsWatcher) {
    const InstanceMap truth = Preload(3);
    auto watcher = std::make_unique<ServiceWatcher>(conn, name, [](int rc) { ADD_FAILURE() << zerror(rc); });
    auto cache = std::make_shared<ServiceCache>(*watcher);
    EXPECT_EQ(InstanceProvider(cache).WhyNone(), NoChoice::kNotSynced);
    watcher->Start();
    ASSERT_TRUE(cache->WaitSynced(kPatience));
    watcher.reset();
    EXPECT_TRUE(testing::SameInstances(truth, Contents(*cache->Snapshot())));
    EXPECT_FALSE(cache->IsSynced());
    cache.reset();

    ServiceCache empty(conn, name + "-empty", [](int rc) { ADD_FAILURE() << zerror(rc); });
    empty.Start();
    ASSERT_TRUE(empty.WaitSynced(kPatience));
    EXPECT_EQ(InstanceProvider(std::shared_ptr<const ServiceCache>(&empty, [](const ServiceCache*) {})).WhyNone(),
              NoChoice::kEmpty);
}

// Through a session expiry the cache serves the view it had until the new
// session's view is complete, saying how old it is, then publishes the
// difference as one version and tells its observers the difference only;
// with the server stopped, it serves its view for as long as that lasts.
TEST_F(CacheTest, AnOutageKeepsTheLastViewUntilTheFreshOneIsComplete) {
    InstanceMap truth = Preload(10);
    testing::Relay relay(s_server->ClientPort());
    const auto relayed = testing::Connect(relay.ConnectString(), std::chrono::seconds(4));
    ServiceCache cache(relayed, name, [](int rc) { ADD_FAILURE() << zerror(rc); });
    cache.Start();
    ASSERT_TRUE(cache.WaitSynced(kPatience));
    EXPECT_EQ(cache.ViewAge(), std::chrono::milliseconds(0));
    const auto counter = std::make_shared<Counter>();
    cache.RegisterShared(counter);
    const std::uint64_t before = cache.Version();

    relay.Blackhole();
    ASSERT_TRUE(PollUntil([&] { return cache.ViewAge() > std::chrono::milliseconds(0); }, kPatience));
    ASSERT_FALSE(testing::CloseSessionOnServer(s_server->ConnectString(), *relayed));
    writer.Remove(truth.begin()->first);
    truth.erase(truth.begin());
    writer.Set(truth.begin()->first, truth.begin()->second = MakeRecord(500));
    const ServiceId added = g_generate();
    writer.Create(added, truth[added] = MakeRecord(501));
    relay.Heal();
    ASSERT_TRUE(PollUntil([&] {
        const SnapshotPtr now = cache.Snapshot();
        EXPECT_TRUE(now->Version() != before || now.size() == 10u) << "the kept view shrank";
        return now->Version() != before;
    }, kPatience));
    EXPECT_EQ(cache.Version(), before + 1);
    EXPECT_TRUE(cache.IsSynced());
    EXPECT_EQ(cache.ViewAge(), std::chrono::milliseconds(0));
    EXPECT_TRUE(testing::SameInstances(truth, Contents(*cache.Snapshot())));
    EXPECT_EQ(counter->removed + counter->added + counter->modified, 3);
    EXPECT_EQ(counter->modified, 1);

    // The server stopped for longer than the session: the view is served,
    // unchanged, as long as it lasts, and says how old it is.
    InstanceProvider provider(std::shared_ptr<const ServiceCache>(&cache, [](const ServiceCache*) {}));
    ASSERT_NE(provider.Choose(), nullptr);
    s_server->Stop();
    EXPECT_TRUE(PollUntil([&] { return cache.ViewAge() > std::chrono::seconds(6); }, kPatience));
    EXPECT_TRUE(testing::SameInstances(truth, Contents(*cache.Snapshot())));
    EXPECT_NE(provider.Choose(), nullptr);
    s_server->Start();
    EXPECT_TRUE(PollUntil([&] { return cache.IsSynced() && cache.ViewAge() == std::chrono::milliseconds(0); }, kPatience));
    EXPECT_TRUE(testing::SameInstances(truth, Contents(*cache.Snapshot())));
}

// Preference by zone and weight, the strategies within a group, down
// instances and what happens when all are down.
TEST_F(CacheTest, ProviderChoosesByPreferenceAndSkipsDownInstances) {
    const ServiceId a = g_generate(), b = g_generate(), c = g_generate(), d = g_generate();
    const auto record = [](const char* zone, unsigned weight) {
        ServiceInstanceData r = MakeRecord(static_cast<int>(weight));
        r.set_zone(zone);
        r.set_weight(weight);
        return r;
    };
    writer.CreateAll({{a, record("z1", 1)}, {b, record("z1", 3)}, {c, record("z2", 5)}, {d, record("z1", 0)}});
    const auto cache = StartCache();
    const auto chosen = [](InstanceProvider& provider, int times) {
        std::map<ServiceId, int> counts;
        for (int i = 0; i < times; ++i) {
            const InstancePtr instance = provider.Choose();
            ++counts[instance ? instance->Id() : ServiceId()];
        }
        return counts;
    };

    const auto fail = [](InstanceProvider& provider, const ServiceId& id, int times) {
        for (int i = 0; i < times; ++i) provider.ReportFailure(id);
    };

    ProviderOptions options;
    options.zone = "z1";
    options.down.downTime = std::chrono::milliseconds(500);
    options.down.maxEjectedShare = 1.0;
    options.down.panicThreshold = 0;
    InstanceProvider roundRobin(cache, options);
    EXPECT_EQ(chosen(roundRobin, 8), (std::map<ServiceId, int>{{a, 4}, {b, 4}}));
    options.strategy = ChoiceStrategy::kWeighted;
    InstanceProvider weighted(cache, options);
    const auto counts = chosen(weighted, 4000);
    EXPECT_EQ(counts.size(), 2u);
    EXPECT_NEAR(counts.at(b), 3000, 300);  // eleven standard deviations

    // Down in order of preference: the other zone, then the drained, then none.
    fail(roundRobin, a, 3);
    EXPECT_TRUE(roundRobin.IsDown(a));
    EXPECT_EQ(chosen(roundRobin, 4), (std::map<ServiceId, int>{{b, 4}}));
    fail(roundRobin, b, 3);
    EXPECT_EQ(chosen(roundRobin, 2), (std::map<ServiceId, int>{{c, 2}}));
    fail(roundRobin, c, 3);
    fail(roundRobin, d, 3);
    EXPECT_EQ(chosen(roundRobin, 2), (std::map<ServiceId, int>{{d, 2}})) << "drained: not counted, not ejected";
    EXPECT_FALSE(weighted.IsDown(a)) << "each provider counts its own failures";
    ProviderOptions noDrained = options;
    noDrained.filter = [d](const CachedInstance& instance) { return instance.Id() != d; };
    InstanceProvider failFast(cache, noDrained);
    ASSERT_NE(failFast.Choose(), nullptr);
    for (const ServiceId& id : {a, b, c}) fail(failFast, id, 3);
    EXPECT_EQ(failFast.Choose(), nullptr);
    EXPECT_EQ(failFast.WhyNone(), NoChoice::kAllDown);
    EXPECT_TRUE(PollUntil([&] { return failFast.Choose() != nullptr; }, kPatience)) << "tried again after downTime";

    // Failures older than the window no longer count.
    options.down.errorWindow = std::chrono::milliseconds(200);
    InstanceProvider windowed(cache, options);
    ASSERT_NE(windowed.Choose(), nullptr);  // outcomes count for the instances of its view
    fail(windowed, a, 2);
    const auto windowEnd = std::chrono::steady_clock::now() + options.down.errorWindow;
    ASSERT_TRUE(PollUntil([&] { return std::chrono::steady_clock::now() > windowEnd; }, kPatience));
    fail(windowed, a, 1);
    EXPECT_FALSE(windowed.IsDown(a));
    fail(windowed, a, 2);
    EXPECT_TRUE(windowed.IsDown(a));

    // In a panic, as if none were down, and never the drained while one
    // with a weight is accepted; a filtered instance counts for nothing.
    options.down.panicThreshold = 0.5;
    options.filter = [c](const CachedInstance& instance) { return instance.Id() != c; };
    InstanceProvider filtered(cache, options);
    ASSERT_NE(filtered.Choose(), nullptr);
    for (const ServiceId& id : {a, b, c, d}) fail(filtered, id, 3);
    EXPECT_FALSE(filtered.IsDown(c));
    EXPECT_TRUE(filtered.IsDown(a) && filtered.IsDown(b) && filtered.Panicking());
    const auto panicked = chosen(filtered, 400);
    EXPECT_EQ(panicked.size(), 2u);
    EXPECT_NEAR(panicked.at(b), 300, 60) << "weighted, as if none were down";
    options.filter = [](const CachedInstance&) { return false; };
    EXPECT_EQ(InstanceProvider(cache, options).WhyNone(), NoChoice::kAllFiltered);
}

// A down instance's load is shared by the others in proportion, by every
// strategy; round robin gives each instance one turn per round, down or not;
// sticky holds its choice while all are down. A filter's exception reaches
// the caller and leaves the thread's plans as they were.
TEST_F(CacheTest, DownInstancesShareTheirLoadInProportionAndAThrowingFilterLeavesNothingBehind) {
    const ServiceId a = g_generate(), b = g_generate(), c = g_generate(), d = g_generate();
    const auto weighing = [](unsigned weight) {
        ServiceInstanceData r = MakeRecord(static_cast<int>(weight));
        r.set_weight(weight);
        return r;
    };
    writer.CreateAll({{a, weighing(1)}, {b, weighing(8)}, {c, weighing(1)}, {d, weighing(2)}});
    const auto cache = StartCache();
    const auto shares = [](InstanceProvider& provider, const ServiceId& down, int times) {
        EXPECT_NE(provider.Choose(), nullptr);
        for (int i = 0; i < 3; ++i) provider.ReportFailure(down);
        std::map<ServiceId, int> counts;
        for (int i = 0; i < times; ++i) ++counts[provider.Choose()->Id()];
        return counts;
    };
    InstanceProvider roundRobin(cache, Using(ChoiceStrategy::kRoundRobin));
    EXPECT_EQ(shares(roundRobin, b, 3000), (std::map<ServiceId, int>{{a, 1000}, {c, 1000}, {d, 1000}}));
    InstanceProvider random(cache, Using(ChoiceStrategy::kRandom));
    for (const auto& [id, count] : shares(random, b, 30000)) EXPECT_NEAR(count, 10000, 500);  // six deviations
    InstanceProvider weighted(cache, Using(ChoiceStrategy::kWeighted));
    const auto byWeight = shares(weighted, b, 40000);
    EXPECT_NEAR(byWeight.at(a), 10000, 600);
    EXPECT_NEAR(byWeight.at(d), 20000, 600);

    // Least request with no call in flight, and by key without a key,
    // choose in proportion to weight.
    for (const ChoiceStrategy strategy : {ChoiceStrategy::kLeastRequest, ChoiceStrategy::kByKey}) {
        InstanceProvider provider(cache, Using(strategy));
        std::map<ServiceId, int> counts;
        for (int i = 0; i < 24000; ++i) {
            Call call = provider.StartCall();
            ++counts[call->Id()];
            call.Succeeded();
        }
        EXPECT_NEAR(counts[b], 16000, 500);  // seven deviations
        EXPECT_NEAR(counts[a], 2000, 300);
    }

    ProviderOptions amongDown = Using(ChoiceStrategy::kRoundRobin);
    amongDown.down.maxEjectedShare = 1.0;
    InstanceProvider allDown(cache, amongDown);
    for (const ServiceId& id : {a, c, d}) shares(allDown, id, 0);
    EXPECT_EQ(shares(allDown, b, 1000), (std::map<ServiceId, int>{{a, 250}, {b, 250}, {c, 250}, {d, 250}}));
    amongDown.strategy = ChoiceStrategy::kSticky;
    InstanceProvider sticky(cache, amongDown);
    for (const ServiceId& id : {a, c, d}) shares(sticky, id, 0);
    EXPECT_EQ(shares(sticky, b, 100).size(), 1u);

    // On a fresh thread, after four providers that accept only `a`, one that
    // accepts only `c` and throws the first time.
    std::thread([&] {
        const auto only = [&](const ServiceId& id, bool throwOnce) {
            ProviderOptions options;
            options.filter = [id, throwOnce,
                              thrown = std::make_shared<std::atomic<bool>>(false)](const CachedInstance& i) {
                if (throwOnce && !thrown->exchange(true)) throw std::runtime_error("filter");
                return i.Id() == id;
            };
            return std::make_unique<InstanceProvider>(cache, options);
        };
        std::vector<std::unique_ptr<InstanceProvider>> alphas;
        for (int i = 0; i < 4; ++i) EXPECT_EQ((alphas.emplace_back(only(a, false)))->Choose()->Id(), a);
        const auto beta = only(c, true);
        EXPECT_THROW(beta->Choose(), std::runtime_error);
        const auto built = [&] {
            try {
                return beta->WhyNone() == NoChoice::kAllDown;
            } catch (const std::runtime_error&) {
                return false;
            }
        };
        EXPECT_TRUE(PollUntil(built, kPatience)) << "tried again";
        EXPECT_EQ(beta->Choose()->Id(), c);
        EXPECT_EQ(alphas.back()->Choose()->Id(), a);
    }).join();
}

// The provider's thread builds each version's plan, running the filter once
// per instance whatever the number of choosing threads; while it builds,
// choices go on from the previous plan, never waiting for the filter.
TEST_F(CacheTest, ChoicesNeverWaitForAPlanAndTheFilterRunsOncePerInstance) {
    Preload(20);
    const auto cache = StartCache();
    std::mutex mtx;
    std::condition_variable cv;
    bool open = true;                  // guarded by mtx
    int calls = 0;                     // guarded by mtx
    std::set<std::thread::id> inside;  // guarded by mtx
    ProviderOptions options;
    options.filter = [&](const CachedInstance&) {
        std::unique_lock<std::mutex> lock(mtx);
        ++calls;
        inside.insert(std::this_thread::get_id());
        cv.notify_all();
        cv.wait(lock, [&] { return open; });
        return true;
    };
    InstanceProvider provider(cache, options);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back([&] { EXPECT_NE(provider.Choose(), nullptr); });
    EXPECT_NE(provider.Choose(), nullptr);  // this thread's plan
    for (std::thread& thread : threads) thread.join();

    std::unique_lock<std::mutex> lock(mtx);
    open = false;
    lock.unlock();
    // Opens the filter in any case, so that a choice that waits fails the
    // test instead of hanging it.
    std::atomic<bool> chosen{false}, forced{false};
    std::thread opener([&] {
        forced = !PollUntil([&] { return chosen.load(); }, kPatience);
        std::lock_guard<std::mutex> guard(mtx);
        open = true;
        cv.notify_all();
    });
    writer.Create(g_generate(), MakeRecord(20));
    ASSERT_TRUE(PollUntil([&] { return cache->Snapshot()->size() == 21; }, kPatience));
    EXPECT_NE(provider.Choose(), nullptr);  // asks for the new plan
    lock.lock();
    EXPECT_TRUE(cv.wait_for(lock, kPatience, [&] { return calls > 20; }));
    lock.unlock();
    for (int i = 0; i < 100; ++i) EXPECT_NE(provider.Choose(), nullptr);
    // A thread's first choice waits for the plan being built, and has it
    // built once, not again.
    std::atomic<pid_t> waiter{0};
    std::thread fresh([&] {
        waiter = static_cast<pid_t>(::syscall(SYS_gettid));
        EXPECT_NE(provider.Choose(), nullptr);
    });
    EXPECT_TRUE(PollUntil([&] { return waiter != 0 && testing::ThreadSleeps(waiter); }, kPatience));
    chosen = true;
    opener.join();
    fresh.join();
    EXPECT_FALSE(forced) << "a choice waited for the filter";
    writer.Create(g_generate(), MakeRecord(21));
    ASSERT_TRUE(PollUntil([&] { return cache->Snapshot()->size() == 22; }, kPatience));
    (void)provider.WhyNone();  // after every plan asked for before
    EXPECT_EQ((std::lock_guard<std::mutex>(mtx), calls), 20 + 21 + 22);
    EXPECT_EQ(inside.size(), 1u);
}

// A filter that fails is tried again on a growing delay, with no change of
// the cache, while the previous view stands; it is logged once. A filter
// that chooses with its own provider fails instead of hanging.
TEST_F(CacheTest, AFailingFilterIsTriedAgainAndLoggedOncePerVersion) {
    const InstanceMap truth = Preload(3);
    const auto cache = StartCache();
    std::atomic<bool> failing{false};
    std::atomic<int> attempts{0};
    ProviderOptions options;
    options.filter = [&](const CachedInstance&) {
        if (!failing) return true;
        ++attempts;
        throw std::runtime_error("not configured yet");
    };
    testing::LogCapture log;
    InstanceProvider provider(cache, options);
    ASSERT_NE(provider.Choose(), nullptr);
    failing = true;
    const ServiceId gone = truth.begin()->first;
    writer.Remove(gone);
    ASSERT_TRUE(PollUntil([&] { return provider.Choose() && attempts >= 3; }, kPatience));
    std::set<ServiceId> chosen;
    for (int i = 0; i < 30; ++i) chosen.insert(provider.Choose()->Id());
    EXPECT_EQ(chosen.size(), 3u) << "the previous view, gone included";
    failing = false;
    const auto goneIsOut = [&] {
        for (int i = 0; i < 30; ++i) {
            if (provider.Choose()->Id() == gone) return false;
        }
        return true;
    };
    EXPECT_TRUE(PollUntil(goneIsOut, kPatience));
    std::vector<std::string> errors;
    for (const auto& record : log.Records()) {
        if (record.level == logging::JXLOG_ERROR && record.source == "ferrow.provider") errors.push_back(record.message);
    }
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("choosing from version"), std::string::npos) << errors[0];

    const InstanceProvider* self = nullptr;
    ProviderOptions reentrant;
    reentrant.filter = [&](const CachedInstance&) { return const_cast<InstanceProvider*>(self)->Choose() != nullptr; };
    InstanceProvider own(cache, reentrant);
    self = &own;
    EXPECT_THROW((void)own.Choose(), std::logic_error);
}

// Least request gives an instance with calls in flight fewer new ones (it
// must lose both draws), and the same share again once its calls end: a
// Call ends its own call once, when reported or when it goes unreported.
TEST_F(CacheTest, LeastRequestFavoursTheInstancesWithFewerCallsInFlight) {
    InstanceMap truth;
    for (int i = 0; i < 4; ++i) {
        ServiceInstanceData record = MakeRecord(i);
        record.set_weight(1);
        truth.emplace(g_generate(), record);
    }
    writer.CreateAll(truth);
    const auto cache = StartCache();
    InstanceProvider provider(cache, Using(ChoiceStrategy::kLeastRequest));
    const ServiceId slow = provider.Choose()->Id();  // held in flight, with nine more below
    const auto share = [&](int times, int hold) {
        int chosen = 0;
        for (int i = 0; i < times; ++i) {
            const ServiceId id = provider.Choose()->Id();
            chosen += id == slow;
            if (id != slow || hold-- <= 0) provider.ReportSuccess(id);
        }
        return chosen;
    };
    share(10000, 9);
    EXPECT_NEAR(share(16000, 0), 1000, 150) << "one in sixteen: both draws on the slow one";
    for (int i = 0; i < 8; ++i) provider.ReportEnd(slow);
    for (int i = 0; i < 2; ++i) provider.ReportFailure(slow);  // outcomes end calls too
    EXPECT_NEAR(share(4000, 0), 1000, 150);

    std::vector<Call> held;
    try {
        while (held.size() < 3) {
            Call call = provider.StartCall();
            if (call->Id() == slow) held.push_back(std::move(call));
        }
        throw std::runtime_error("the program's call failed before its report");
    } catch (const std::runtime_error&) {
    }
    held.pop_back();
    held[0].Succeeded();
    held[0].Failed();
    held[0].End();
    EXPECT_NEAR(share(16000, 0), 1000, 150) << "one call of the slow one still in flight";
    held.clear();
    EXPECT_NEAR(share(4000, 0), 1000, 150) << "every call ended";
}

// A key keeps its instance while that stays, in every provider alike; when
// one leaves, only its keys move, and a new one takes about its share.
TEST_F(CacheTest, KeysKeepTheirInstanceAndOnlyTheirShareMoves) {
    const auto equal = [](int seed) {
        ServiceInstanceData record = MakeRecord(seed);
        record.set_weight(1);
        return record;
    };
    InstanceMap truth;
    for (int i = 0; i < 10; ++i) truth.emplace(g_generate(), equal(i));
    writer.CreateAll(truth);
    const auto cache = StartCache();
    InstanceProvider byKey(cache, Using(ChoiceStrategy::kByKey));
    InstanceProvider another(cache, Using(ChoiceStrategy::kByKey));
    EXPECT_THROW((void)InstanceProvider(cache).Choose("user-1"), std::logic_error);
    const auto place = [&](InstanceProvider& provider) {
        std::map<std::string, ServiceId> placed;
        for (int key = 0; key < 5000; ++key) {
            const std::string name = "user-" + std::to_string(key);
            placed[name] = provider.Choose(name)->Id();
        }
        return placed;
    };
    const auto before = place(byKey);
    EXPECT_EQ(place(another), before);
    // The keys placed otherwise in `after` than in `base` that left `from`
    // or went to `to`; under about 1 % move between the others.
    const auto moved = [&](const std::map<std::string, ServiceId>& base, const std::map<std::string, ServiceId>& after,
                           const ServiceId& from, const ServiceId& to) {
        int count = 0, strays = 0;
        for (const auto& [key, id] : after) {
            if (id == base.at(key)) continue;
            (base.at(key) == from || id == to ? count : strays) += 1;
        }
        EXPECT_LE(strays, 60) << "keys moved between instances that stayed";
        return count;
    };
    const auto keysOf = [](const std::map<std::string, ServiceId>& placed, const ServiceId& id) {
        return std::count_if(placed.begin(), placed.end(), [&](const auto& entry) { return entry.second == id; });
    };
    for (const auto& entry : truth) EXPECT_NEAR(keysOf(before, entry.first), 500, 90) << "four deviations";
    const ServiceId gone = truth.begin()->first;
    writer.Remove(gone);
    std::map<std::string, ServiceId> after;
    // Whether `id` holds keys in a placement made from one plan: one made
    // while the provider took up the next plan would mix the two.
    const auto holds = [&](const ServiceId& id) {
        after = place(byKey);
        return keysOf(after, id) > 0 && place(byKey) == after;
    };
    ASSERT_TRUE(PollUntil([&] { return !holds(gone) && place(byKey) == after; }, kPatience));
    EXPECT_EQ(moved(before, after, gone, ServiceId()), keysOf(before, gone));
    EXPECT_NEAR(keysOf(before, gone), 500, 90) << "a tenth";
    const auto without = after;
    const ServiceId joined = g_generate();
    writer.Create(joined, equal(10));
    ASSERT_TRUE(PollUntil([&] { return holds(joined); }, kPatience));
    EXPECT_EQ(moved(without, after, ServiceId(), joined), keysOf(after, joined));
    EXPECT_NEAR(keysOf(after, joined), 500, 90) << "a tenth";

    // Ten more, of weight 3: a provider made now and one that saw every
    // change place every key alike, in proportion to weight.
    InstanceMap heavy;
    for (int i = 0; i < 10; ++i) {
        ServiceInstanceData record = equal(20 + i);
        record.set_weight(3);
        heavy.emplace(g_generate(), record);
    }
    writer.CreateAll(heavy);
    ASSERT_TRUE(PollUntil([&] { return cache->Snapshot()->size() == 20; }, kPatience));
    InstanceProvider fresh(cache, Using(ChoiceStrategy::kByKey));
    ASSERT_TRUE(PollUntil([&] { return place(byKey) == place(fresh); }, kPatience));
    const auto placed = place(fresh);
    const auto onHeavy = std::count_if(placed.begin(), placed.end(), [&](const auto& e) { return heavy.count(e.second); });
    EXPECT_NEAR(onHeavy, 5000 * 30 / 40, 150) << "five deviations";
}

// Outcomes decide ejection, for the instances of the provider's view only:
// a success ends a row of failures, a failure rate over enough calls
// ejects, an instance ejected again soon stays out twice as long, and never
// more than the allowed share of the current instances is out, whatever
// fails or leaves.
TEST_F(CacheTest, EjectionFollowsOutcomesAndNeverTakesMoreThanItsShare) {
    const std::vector<ServiceId> ids = IdsOf(Preload(4));
    const auto cache = StartCache();
    ProviderOptions options;
    options.down.minimumCalls = 10;
    options.down.downTime = std::chrono::seconds(2);
    InstanceProvider provider(cache, options);
    for (const ServiceId& id : ids) {
        for (int call = 0; call < 3; ++call) provider.ReportFailure(id);
    }
    ASSERT_NE(provider.Choose(), nullptr) << "failures reported before the provider had a view";
    EXPECT_FALSE(provider.IsDown(ids[0]));
    for (int call = 0; call < 12; ++call) provider.ReportSuccess(ids[1 + call % 3]);  // the others' rate
    for (int call = 0; call < 9; ++call) call % 3 == 2 ? provider.ReportSuccess(ids[0]) : provider.ReportFailure(ids[0]);
    EXPECT_FALSE(provider.IsDown(ids[0])) << "no three failures in a row, fewer than ten calls";
    provider.ReportFailure(ids[0]);
    EXPECT_TRUE(provider.IsDown(ids[0])) << "seven failures in ten calls";
    EXPECT_LE(provider.DownFor(ids[0]), std::chrono::seconds(2));

    ASSERT_TRUE(PollUntil([&] { return !provider.IsDown(ids[0]); }, kPatience));
    for (const ServiceId& id : {ids[0], ids[0], ids[0], ids[1], ids[1], ids[1], ids[2], ids[2], ids[2]}) {
        provider.ReportFailure(id);
    }
    EXPECT_GT(provider.DownFor(ids[0]), std::chrono::seconds(2));
    EXPECT_TRUE(provider.IsDown(ids[1]));
    EXPECT_FALSE(provider.IsDown(ids[2])) << "half of the four are out already";
    std::set<ServiceId> chosen;
    for (int i = 0; i < 100; ++i) chosen.insert(provider.Choose()->Id());
    EXPECT_EQ(chosen, (std::set<ServiceId>{ids[2], ids[3]}));
    const ProviderMetrics figures = Of(CollectMetrics().providers, name);
    EXPECT_EQ(figures.choices, 101u);
    EXPECT_EQ(figures.successes, 15u);
    EXPECT_EQ(figures.failures, 28u);
    EXPECT_EQ(figures.ejections, 3u) << "ids[0] twice, ids[1] once; ids[2] refused";
    EXPECT_EQ(figures.ejected, 2u);
    EXPECT_FALSE(figures.panicking);

    // The two that were up leave: of the two left, one comes back at once
    // (the one out for less time), so that the cap holds at every choice.
    const auto choice = [&] {
        const InstancePtr instance = provider.Choose();
        return instance ? instance->Id() : ServiceId();
    };
    // Whether the provider's latest plan holds `count` instances (the cache
    // publishes a snapshot before its version).
    const auto planned = [&](std::size_t count) {
        const SnapshotPtr snapshot = cache->Snapshot();
        return snapshot->size() == count && cache->Version() >= snapshot->Version() &&
               provider.WhyNone() != NoChoice::kEmpty;
    };
    writer.Remove(ids[2]);
    writer.Remove(ids[3]);
    ASSERT_TRUE(PollUntil([&] { return planned(2); }, kPatience));
    EXPECT_TRUE(provider.IsDown(ids[0]));
    EXPECT_FALSE(provider.IsDown(ids[1]));
    for (int i = 0; i < 100; ++i) EXPECT_EQ(choice(), ids[1]);
    // Two join and the down one leaves: a current instance can be ejected,
    // and a failure of one that left counts for nothing.
    const ServiceId joined[] = {g_generate(), g_generate()};
    for (int i = 0; i < 2; ++i) writer.Create(joined[i], MakeRecord(10 + i));
    writer.Remove(ids[0]);
    ASSERT_TRUE(PollUntil([&] { return !cache->Snapshot()->Find(ids[0]) && planned(3); }, kPatience));
    for (int i = 0; i < 3; ++i) provider.ReportFailure(joined[0]);
    EXPECT_TRUE(provider.IsDown(joined[0])) << "one of three may be out";
}

// A failure of every instance at once (a dependency of the whole service
// down) ejects none, so no choice fails for it; the one instance that keeps
// failing once the service recovers is ejected. With the cap lifted, a
// panic chooses as if none were down while fewer than half are up, and ends
// when they come back.
TEST_F(CacheTest, AServiceWideSpikeEjectsNobodyAndAPanicEndsWithItsCause) {
    const std::vector<ServiceId> ids = IdsOf(Preload(10));
    const auto cache = StartCache();
    {
        ProviderOptions options;
        options.down.maxEjectedShare = 1.0;
        options.down.minimumCalls = 20;
        InstanceProvider provider(cache, options);
        int none = 0;
        for (int call = 0; call < 5000; ++call) {
            Call chosen = provider.StartCall();
            none += !chosen;
            chosen.Failed();
        }
        EXPECT_EQ(none, 0);
        EXPECT_EQ(Of(CollectMetrics().providers, name).ejections, 0u);
        for (int call = 0; call < 5000; ++call) {
            Call chosen = provider.StartCall();
            chosen->Id() == ids[0] ? chosen.Failed() : chosen.Succeeded();
        }
        EXPECT_TRUE(provider.IsDown(ids[0]));
    }

    ProviderOptions options;
    options.down.maxEjectedShare = 1.0;
    options.down.downTime = std::chrono::milliseconds(300);
    InstanceProvider provider(cache, options);
    ASSERT_NE(provider.Choose(), nullptr);
    for (std::size_t i = 0; i < 6; ++i) {
        for (int call = 0; call < 3; ++call) provider.ReportFailure(ids[i]);
    }
    EXPECT_TRUE(provider.Panicking()) << "four of ten up";
    std::set<ServiceId> chosen;
    for (int i = 0; i < 100; ++i) chosen.insert(provider.Choose()->Id());
    EXPECT_EQ(chosen.size(), 10u) << "as if none were down";
    ASSERT_TRUE(PollUntil([&] { return !provider.IsDown(ids[5]); }, kPatience));
    EXPECT_FALSE(provider.Panicking());
    EXPECT_FALSE(Of(CollectMetrics().providers, name).panicking);
}

// Every thread's choices and outcomes are counted, none lost to another's;
// the figures go with their objects.
TEST_F(CacheTest, MetricsCountWhatEveryThreadDidAndGoWithTheirObjects) {
    Preload(3);
    auto cache = StartCache();
    {
        auto provider = std::make_unique<InstanceProvider>(cache);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 4; ++thread) {
            threads.emplace_back([&provider] {
                for (int call = 0; call < 50'000; ++call) provider->ReportSuccess(provider->Choose()->Id());
            });
        }
        for (std::thread& thread : threads) thread.join();
        const Metrics metrics = CollectMetrics();
        const ProviderMetrics& figures = Of(metrics.providers, name);
        EXPECT_EQ(figures.choices, 200'000u);
        EXPECT_EQ(figures.successes, 200'000u);
        EXPECT_EQ(figures.noChoices, 0u);
        const CacheMetrics& cached = Of(metrics.caches, name);
        EXPECT_EQ(cached.instances, 3u);
        EXPECT_TRUE(cached.viewComplete);
        // One series per name and label set, however many objects a service has.
        InstanceProvider second(cache);
        for (int call = 0; call < 2; ++call) ASSERT_NE(second.Choose(), nullptr);
        const String text = PrometheusText();
        EXPECT_NE(text.find("ferrow_provider_choices_total{service=\"" + name + "\",result=\"chosen\"} 200002\n"),
                  String::npos)
            << text;
        EXPECT_NE(text.find("ferrow_cache_instances{service=\"" + name + "\"} 3\n"), String::npos);
    }
    {
        // A thread lets go of a destroyed provider's plan at its next choice.
        auto destroyed = std::make_unique<InstanceProvider>(cache);
        const std::weak_ptr<const CachedInstance> chosen = destroyed->Choose();
        InstanceProvider another(cache);
        destroyed.reset();
        ASSERT_NE(another.Choose(), nullptr);
        EXPECT_TRUE(chosen.expired());
    }
    const Metrics after = CollectMetrics();
    EXPECT_TRUE(std::none_of(after.providers.begin(), after.providers.end(),
                             [&](const ProviderMetrics& f) { return f.service == name; }));
    cache.reset();
    EXPECT_THROW(Of(CollectMetrics().caches, name), std::runtime_error);
}

// Sticky: one instance for every thread until it is drained or leaves.
TEST_F(CacheTest, StickyChoiceHoldsUntilItsInstanceIsDrainedOrLeaves) {
    InstanceMap truth = Preload(10);
    const auto cache = StartCache();
    InstanceProvider sticky(cache, Using(ChoiceStrategy::kSticky));
    const ServiceId first = sticky.Choose()->Id();
    std::thread other([&] { EXPECT_EQ(sticky.Choose()->Id(), first); });
    other.join();
    writer.Set(first, truth[first] = MakeRecord(1000), testing::Encoding::Raw);  // changed, still positive
    ASSERT_TRUE(PollUntil([&] { return cache->Snapshot()->Find(first)->Port() == truth[first].port(); }, kPatience));
    EXPECT_EQ(sticky.Choose()->Id(), first);
    truth[first].set_weight(0);
    writer.Set(first, truth[first]);
    ASSERT_TRUE(PollUntil([&] { return sticky.Choose()->Id() != first; }, kPatience));
    const ServiceId second = sticky.Choose()->Id();
    EXPECT_EQ(sticky.Choose()->Id(), second);
    writer.Remove(second);
    EXPECT_TRUE(PollUntil([&] { return sticky.Choose()->Id() != second; }, kPatience));
}

// Threads choose and take snapshots while the service changes under them:
// every choice is a whole instance of the service.
TEST_F(CacheTest, ChoosingRacesUpdatesSafely) {
    InstanceMap truth = Preload(100);
    const auto cache = StartCache();
    InstanceProvider provider(cache, Using(ChoiceStrategy::kRandom));
    std::atomic<bool> done{false};
    std::atomic<long> choices{0}, broken{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!done) {
                const InstancePtr instance = provider.Choose();
                broken += !instance || instance->Host().empty();
                broken += cache->Snapshot()->size() < 90;
                ++choices;
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        const ServiceId id = g_generate();
        writer.Create(id, MakeRecord(i));
        writer.Set(truth.begin()->first, MakeRecord(i + 500));
        writer.Remove(id);
    }
    EXPECT_TRUE(PollUntil([&] { return cache->Snapshot()->size() == 100 && choices > 1000; }, kPatience));
    done = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(broken, 0);

    // Least request while another thread ejects instance after instance,
    // each for a millisecond: the second draw may find none up.
    ProviderOptions options = Using(ChoiceStrategy::kLeastRequest);
    const ServiceId pair[] = {truth.begin()->first, std::next(truth.begin())->first};
    options.filter = [&](const CachedInstance& instance) { return instance.Id() <= pair[1]; };
    options.down.errorThreshold = 2;
    options.down.downTime = options.down.maxDownTime = std::chrono::milliseconds(1);
    options.down.maxEjectedShare = 1.0;
    options.down.panicThreshold = 0;
    InstanceProvider least(cache, options);
    (void)least.Choose();
    done = false;
    std::thread ejector([&] {
        while (!done) {
            for (const ServiceId& id : {pair[0], pair[0], pair[1], pair[1]}) least.ReportFailure(id);
        }
    });
    long chosen = 0;
    for (int call = 0; call < 300'000; ++call) chosen += least.StartCall() ? 1 : 0;
    done = true;
    ejector.join();
    EXPECT_GT(chosen, 0);
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
