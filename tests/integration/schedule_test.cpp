// Faults and churn at the seams between scenarios. A schedule drawn from a
// seed runs a watcher and a cache on one connection, which reaches each
// server through a relay of its own, through relay resets, freezes shorter
// and longer than the session, server restarts, forced expiries, members of
// an ensemble killed, the quorum lost, bursts of churn, and the destruction and re-creation of both (churn
// following every step at once, also while the new ones still read). Once
// quiet after each step, both views equal the server's, and the connection
// and the server hold exactly the watches the live watchers need; no change
// is reported twice.
//
// Each run prints its seeds. FERROW_SCHEDULE_SEED=N replays one seed;
// FERROW_SCHEDULE_SECONDS=N draws new seeds for that long (the soak: every
// step still ends with exactly the watches needed).

#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <random>
#include <thread>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include "ferrow/service_cache.h"
#include "tests/support/recorder.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Kind = testing::Recorder::Kind;
using testing::InstanceMap;
constexpr milliseconds kSession{4000};  // the server's minimum: two ticks
constexpr seconds kQuiet{60};           // from a step's end to agreement
// Under the sanitizers, one schedule of each kind and a restart of 5,000
// instances (10,000 watch records: still more than one request holds).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRuns = 1, kRestartPreload = 5000;
#else
constexpr int kRuns = 3, kRestartPreload = 10000;
#endif

// Servers on loopback with a relay in front of each; the watchers reach
// them through the relays, writers directly.
struct Cluster {
    explicit Cluster(int size) {
        if (size == 1) servers.push_back(std::make_unique<testing::ZkServer>());
        else servers = testing::ZkServer::Ensemble(size);
        for (auto& server : servers) server->Launch();
        for (auto& server : servers) {
            server->Start();
            relays.push_back(std::make_unique<testing::Relay>(server->ClientPort()));
            direct += (direct.empty() ? "" : ",") + server->ConnectString();
            relayed += (relayed.empty() ? "" : ",") + relays.back()->ConnectString();
        }
    }
    // The data watches the members hold for every session; -1 when one does
    // not answer.
    long ServerWatches() const {
        long total = 0;
        for (const auto& server : servers) {
            const std::string answer = testing::FourLetterWord(server->ClientPort(), "wchs");
            const size_t at = answer.find("Total watches:");
            if (at == std::string::npos) return -1;
            total += std::atol(answer.c_str() + at + 14);
        }
        return total;
    }
    // The member serving as leader (or standalone), waiting for an election.
    size_t Leader() const {
        size_t leader = 0;
        testing::PollUntil([&] {
            for (leader = 0; leader < servers.size(); ++leader) {
                if (servers[leader]->Mode() == (servers.size() == 1 ? "standalone" : "leader")) return true;
            }
            return false;
        }, seconds(60), milliseconds(50));
        return leader;
    }

    std::vector<std::unique_ptr<testing::ZkServer>> servers;
    std::vector<std::unique_ptr<testing::Relay>> relays;
    std::string direct, relayed;
};

// The first report in `events` that repeats a change already reported, or
// reports one never made: an instance added while present, modified while
// absent, or modified to the record it already had (every write in these
// tests makes a record of its own). A removal of an absent instance is
// allowed: an instance listed and gone before its first read, or still
// being read at an expiry, is reported removed without having been added.
std::string FirstRepeat(const std::vector<testing::Recorder::Event>& events) {
    std::map<ServiceId, ServiceInstanceData> present;
    for (const auto& event : events) {
        const auto it = present.find(event.id);
        const std::string id = boost::uuids::to_string(event.id);
        if (event.kind == Kind::Added && it != present.end()) return id + " added twice";
        if (event.kind == Kind::Modified && it == present.end()) return id + " modified while not added";
        if (event.kind == Kind::Modified && testing::SameRecord(it->second, event.record)) return id + " modified twice to one record";
        if (event.kind == Kind::Removed) present.erase(event.id);
        else present[event.id] = event.record;
    }
    return "";
}

enum class Step { ResetRelay, ShortFreeze, LongFreeze, RestartServer, Expire, Churn, Recreate, ResetWhileReading, ChangeAll,
                  KillLeader, KillFollower, LoseQuorum };
const char* const kStepNames[] = {"reset", "short-freeze", "long-freeze", "restart", "expire", "churn", "recreate",
                                  "reset-while-reading", "change-all", "kill-leader", "kill-follower", "lose-quorum"};

// One seed's run on `conn`: a service of its own on `cluster`, preloaded,
// watched by a watcher and a cache; then steps.
class Schedule {
public:
    Schedule(std::shared_ptr<ZooKeeperConnection> conn, Cluster& cluster, std::uint32_t seed, int preload = 100)
        : m_conn(std::move(conn)), m_cluster(cluster), m_random(seed), m_service("schedule-" + std::to_string(seed)),
          m_writer(cluster.direct, m_service) {
        InstanceMap preloaded;
        for (int i = 0; i < preload; ++i) preloaded.emplace(m_live.emplace_back(m_generate()), testing::MakeRecord(++m_version));
        m_writer.CreateAll(preloaded);
        Recreate();
    }

    // Runs `step`, then up to `churn` writes.
    void Run(Step step, int churn = 30) {
        auto& servers = m_cluster.servers;
        const size_t leader = servers.size() > 1 ? m_cluster.Leader() : 0;
        std::vector<size_t> stopped;
        switch (step) {
        case Step::ResetRelay: m_cluster.relays[0]->Reset(); break;
        case Step::ShortFreeze:
        case Step::LongFreeze:
            m_cluster.relays[0]->Blackhole();
            // The outage itself: shorter than the session, or long enough
            // for the server to end it.
            std::this_thread::sleep_for(step == Step::ShortFreeze ? milliseconds(1000) : kSession + seconds(2));
            m_cluster.relays[0]->Heal();
            break;
        case Step::RestartServer: stopped = {0}; break;
        case Step::Expire: ASSERT_TRUE(testing::ExpireSession(m_cluster.direct, *m_conn)); break;
        case Step::Churn: break;
        case Step::Recreate: Recreate(); break;
        case Step::ResetWhileReading:
            // New ones whose first reads are in flight, a child added then:
            // the reads that fail are retried once connected, and the child
            // listing that follows names the same instances again.
            Recreate();
            ASSERT_TRUE(testing::PollUntil([&] { return m_watched->recorder->Snapshot().reports >= 50; }, seconds(60), milliseconds(1)));
            Write(true);
            m_cluster.relays[0]->Reset();
            break;
        case Step::ChangeAll: {
            InstanceMap all = m_writer.ReadTruth();
            for (auto& entry : all) entry.second = testing::MakeRecord(++m_version);
            m_writer.CreateAll(all, true);
        } break;
        case Step::KillLeader: stopped = {leader}; break;
        case Step::KillFollower: stopped = {(leader + 1) % servers.size()}; break;
        case Step::LoseQuorum: stopped = {leader, (leader + 1) % servers.size()}; break;
        }
        // Churn right after every step: while a member is down or the
        // session comes back, while the new watcher reads, or on its own;
        // before the outage where no server would take a write.
        const bool served = step != Step::RestartServer && step != Step::LoseQuorum;
        const int writes = churn == 0 ? 0 : static_cast<int>(m_random() % churn);
        for (int i = 0; !served && i < writes; ++i) Write();
        for (size_t i : stopped) servers[i]->Stop();
        for (int i = 0; served && i < writes; ++i) Write();
        if (step == Step::LoseQuorum) std::this_thread::sleep_for(kSession + seconds(2));  // the outage itself
        for (size_t i : stopped) servers[i]->Start();
    }

    // Both views equal the server's, and the watches are exactly the ones
    // needed (each watcher's child and node watch on the service, a data
    // watch per instance; the server keeps one of each per node); then no
    // report so far repeats another.
    void ExpectQuiet(const std::string& where) {
        const auto truth = [this] { return m_writer.ReadTruth(); };
        ASSERT_TRUE(m_watched->Converges(truth, kQuiet)) << where;
        EXPECT_TRUE(m_watched->watcher.WaitSynced(kQuiet)) << where;
        EXPECT_TRUE(m_cache->WaitSynced(kQuiet)) << where;
        // Read once: nothing writes now, and reading a large service anew
        // for every poll would slow the server the cache waits for.
        const InstanceMap now = truth();
        EXPECT_TRUE(testing::PollUntil([&] { return CacheHolds(now); }, kQuiet)) << where << ": the cache";
        const size_t instances = now.size();
        EXPECT_TRUE(testing::PollUntil([&] {
            return m_conn->PendingWatchCount() == 2 * (instances + 2) && m_cluster.ServerWatches() == static_cast<long>(instances + 1);
        }, seconds(30))) << where << ": " << m_conn->PendingWatchCount() << " watches in the connection and "
                         << m_cluster.ServerWatches() << " on the servers for " << instances << " instances";
        const auto state = m_watched->recorder->Snapshot();
        EXPECT_EQ(FirstRepeat(state.events), "") << where;
        EXPECT_TRUE(state.errors.empty()) << where << ": the error handler was called with " << state.errors.front();
    }

private:
    void Recreate() {
        m_cache.reset();
        m_watched.reset();
        m_watched.emplace(m_conn, m_service);
        m_cache.emplace(m_conn, m_service, [](int rc) { ADD_FAILURE() << "cache error " << rc; });
        m_cache->Start();
    }
    // Adds, changes or removes one instance. A write refused while members
    // are down is left out: the truth is read from the servers.
    void Write(bool add = false) {
        const unsigned roll = m_random() % 100;
        try {
            const auto encoding = static_cast<testing::Encoding>(m_random() % 3);  // raw, zlib, zlib without size
            if (add || m_live.empty() || roll < 35) return m_writer.Create(m_live.emplace_back(m_generate()), testing::MakeRecord(++m_version), encoding);
            std::swap(m_live[m_random() % m_live.size()], m_live.back());
            if (roll < 75) return m_writer.Set(m_live.back(), testing::MakeRecord(++m_version), encoding);
            const ServiceId gone = m_live.back();
            m_live.pop_back();
            m_writer.Remove(gone);
        } catch (const std::runtime_error&) {
        }
    }
    bool CacheHolds(const InstanceMap& truth) const {
        const SnapshotPtr snapshot = m_cache->Snapshot();
        if (snapshot->size() != truth.size()) return false;
        for (const InstancePtr& instance : *snapshot) {
            const auto it = truth.find(instance->Id());
            if (it == truth.end() || !testing::SameRecord(it->second, instance->Record())) return false;
        }
        return true;
    }

    const std::shared_ptr<ZooKeeperConnection> m_conn;
    Cluster& m_cluster;
    std::mt19937 m_random;
    boost::uuids::basic_random_generator<std::mt19937> m_generate{m_random};
    const std::string m_service;
    testing::InstanceWriter m_writer;
    std::vector<ServiceId> m_live;
    int m_version = 0;
    std::optional<testing::Watched<>> m_watched;
    std::optional<ServiceCache> m_cache;
};

class ScheduleTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { logging::SetMinimumLoggingLevel(logging::JXLOG_CRITICAL); }
    static void TearDownTestSuite() { s_clusters.clear(); }

    // The cluster of `size` servers, shared by the tests; started on first use.
    static Cluster& Servers(int size) {
        std::unique_ptr<Cluster>& cluster = s_clusters[size];
        if (!cluster) cluster = std::make_unique<Cluster>(size);
        return *cluster;
    }
    static std::shared_ptr<ZooKeeperConnection> Open(const Cluster& cluster, milliseconds session = kSession,
                                                    size_t readWindow = kDefaultReadWindow,
                                                    size_t answersWaiting = kDefaultAnswersWaiting) {
        ConnectionOptions options{cluster.relayed, session, ""};
        options.readWindow = readWindow;
        options.answersWaiting = answersWaiting;
        auto conn = ZooKeeperConnection::Open(options);
        EXPECT_TRUE(conn->WaitConnected(seconds(30)));
        return conn;
    }
    // Draws the schedules: one replayed seed, new seeds for
    // FERROW_SCHEDULE_SECONDS, or `runs` new seeds.
    void RunSchedules(Cluster& cluster, const std::vector<Step>& choices, int runs) {
        const char* replay = std::getenv("FERROW_SCHEDULE_SEED");
        const char* soak = std::getenv("FERROW_SCHEDULE_SECONDS");
        const auto until = std::chrono::steady_clock::now() + seconds(soak ? std::atol(soak) : 0);
        std::random_device entropy;
        // A small read window, and issuing stopped while 16 answers wait for
        // delivery: a new watcher's reads take longer, so that churn and
        // faults meet them, and meet reads held back for either reason.
        const auto conn = Open(cluster, kSession, 16, 16);
        for (int run = 0; replay ? run < 1 : soak ? std::chrono::steady_clock::now() < until : run < runs; ++run) {
            const std::uint32_t seed = replay ? static_cast<std::uint32_t>(std::strtoul(replay, nullptr, 10)) : entropy();
            std::mt19937 draw(seed);
            std::vector<Step> steps;
            std::string names;
            for (int i = 0; i < 5; ++i) {
                steps.push_back(choices[draw() % choices.size()]);
                names += std::string(i == 0 ? "" : ", ") + kStepNames[static_cast<int>(steps.back())];
            }
            std::printf("[ schedule  ] seed %u (FERROW_SCHEDULE_SEED=%u replays it): %s\n", seed, seed, names.c_str());
            std::fflush(stdout);  // the seed must be out before a step can hang
            Schedule schedule(conn, cluster, static_cast<std::uint32_t>(draw()));
            schedule.ExpectQuiet("seed " + std::to_string(seed) + " at the start");
            for (size_t i = 0; i < steps.size() && !HasFailure(); ++i) {
                schedule.Run(steps[i]);
                schedule.ExpectQuiet("seed " + std::to_string(seed) + " after step " + std::to_string(i + 1) + " (" +
                                     kStepNames[static_cast<int>(steps[i])] + ")");
            }
            ASSERT_FALSE(HasFailure()) << "replay with FERROW_SCHEDULE_SEED=" << seed;
        }
    }

    static inline std::map<int, std::unique_ptr<Cluster>> s_clusters;
};

TEST_F(ScheduleTest, RandomFaultsOfOneServerAndChurnKeepEveryViewExact) {
    RunSchedules(Servers(1), {Step::ResetRelay, Step::ShortFreeze, Step::LongFreeze, Step::RestartServer, Step::Expire,
                              Step::Churn, Step::Recreate, Step::ResetWhileReading, Step::ChangeAll}, kRuns);
}

TEST_F(ScheduleTest, RandomFaultsOfAnEnsembleAndChurnKeepEveryViewExact) {
    RunSchedules(Servers(3), {Step::KillLeader, Step::KillFollower, Step::LoseQuorum, Step::Expire, Step::Recreate}, 1);
}

// The seam where a watch was doubled: a connection lost during the first
// read of 2,000 instances; then one change of each must be reported once.
TEST_F(ScheduleTest, AConnectionLostDuringTheInitialReadReportsEachChangeOnce) {
    Cluster& cluster = Servers(1);
    Schedule schedule(Open(cluster), cluster, 2, 2000);
    for (const Step step : {Step::ResetWhileReading, Step::ChangeAll}) {
        schedule.Run(step, 0);
        schedule.ExpectQuiet(kStepNames[static_cast<int>(step)]);
    }
}

// More watches than the request that re-registers them after a reconnection
// holds: the connection re-arms them itself across a restart. The larger
// size runs as the heavy entry.
TEST_F(ScheduleTest, ARestartWithMoreWatchesThanOneRequestHoldsKeepsTheViewExact) {
    const char* size = std::getenv("FERROW_SCHEDULE_PRELOAD");
    Cluster& cluster = Servers(1);
    Schedule schedule(Open(cluster, seconds(30)), cluster, 1, size ? std::atoi(size) : kRestartPreload);
    schedule.ExpectQuiet("after the first read");
    schedule.Run(Step::RestartServer);
    schedule.ExpectQuiet("after the restart");
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
