// Faults and churn at the seams between scenarios. A schedule drawn from a
// seed runs a watcher and a cache on one connection, which reaches the
// server through a relay, through relay resets, freezes shorter and longer
// than the session, server restarts, forced expiries, bursts of churn and
// the destruction and re-creation of both (churn following at once, while
// the new ones still read). Once quiet after each step, both views equal
// the server's, and the connection and the server hold exactly the watches
// the live watchers need; over the whole run no change is reported twice.
//
// Each run prints its seeds. FERROW_SCHEDULE_SEED=N replays one seed;
// FERROW_SCHEDULE_SECONDS=N draws new seeds for that long (by default the
// test command runs three).

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

// The data watches the server holds for every session; -1 when it does not
// answer.
long ServerWatches(int port) {
    const std::string answer = testing::FourLetterWord(port, "wchs");
    const size_t at = answer.find("Total watches:");
    return at == std::string::npos ? -1 : std::atol(answer.c_str() + at + 14);
}

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

// Once the server holds the data watches of `instances`, and `conn` one
// record per watch of each of `watchers` live watchers of them.
::testing::AssertionResult HoldsExactWatches(const ZooKeeperConnection& conn, int port, size_t instances, size_t watchers) {
    const bool exact = testing::PollUntil([&] {
        return conn.PendingWatchCount() == watchers * (instances + 1) &&
               ServerWatches(port) == static_cast<long>(watchers == 0 ? 0 : instances);
    }, seconds(30));
    if (exact) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << conn.PendingWatchCount() << " watches in the connection and "
                                         << ServerWatches(port) << " on the server for " << instances
                                         << " instances and " << watchers << " watchers";
}

class ScheduleTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        logging::SetMinimumLoggingLevel(logging::JXLOG_CRITICAL);
        (s_server = new testing::ZkServer())->Start();
    }
    static void TearDownTestSuite() { delete s_server; }

    // The watcher's and the cache's connection, through the relay.
    std::shared_ptr<ZooKeeperConnection> Open(size_t readsInFlight = kDefaultReadsInFlight) {
        ConnectionOptions options{relay.ConnectString(), kSession, ""};
        options.readsInFlight = readsInFlight;
        auto conn = ZooKeeperConnection::Open(options);
        EXPECT_TRUE(conn->WaitConnected(seconds(30)));
        return conn;
    }

    static inline testing::ZkServer* s_server = nullptr;
    testing::Relay relay{s_server->ClientPort()};
};

// A connection lost while the first reads are in flight, and a child added
// at that moment: the reads that failed are retried once connected, and the
// child listing that follows names the same instances again. Each must end
// with one watch, so that one change of each is reported once.
TEST_F(ScheduleTest, AConnectionLostDuringTheInitialReadReportsEachChangeOnce) {
    testing::InstanceWriter writer(s_server->ConnectString(), "sync");
    InstanceMap truth;
    boost::uuids::random_generator generate;
    for (int i = 0; i < 2000; ++i) truth.emplace(generate(), testing::MakeRecord(i));
    writer.CreateAll(truth);
    const auto conn = Open();
    {
        testing::Watched watched(conn, "sync");
        ASSERT_TRUE(testing::PollUntil([&] { return watched.recorder->Snapshot().reports >= 50; }, seconds(60), milliseconds(1)));
        const ServiceId late = generate();
        writer.Create(late, truth[late] = testing::MakeRecord(-1));
        relay.Reset();
        ASSERT_TRUE(watched.watcher.WaitSynced(kQuiet));
        ASSERT_TRUE(watched.Converges([&] { return truth; }));
        for (auto& [id, record] : truth) record.set_version(record.version() + "-changed");
        writer.CreateAll(truth, true);
        ASSERT_TRUE(watched.Converges([&] { return truth; }));
        const auto events = watched.recorder->Snapshot().events;
        EXPECT_EQ(events.size(), 2 * truth.size()) << "one addition and one change per instance";
        EXPECT_EQ(FirstRepeat(events), "");
        EXPECT_TRUE(HoldsExactWatches(*conn, s_server->ClientPort(), truth.size(), 1));
    }
    EXPECT_TRUE(HoldsExactWatches(*conn, s_server->ClientPort(), truth.size(), 0)) << "after the watcher is gone";
}

enum class Step { ResetRelay, ShortFreeze, LongFreeze, RestartServer, Expire, Churn, Recreate };
const char* const kStepNames[] = {"reset", "short-freeze", "long-freeze", "restart", "expire", "churn", "recreate"};

// One seed's run on `conn`: a service of its own on the server `server`,
// preloaded, watched by a watcher and a cache; then steps.
class Schedule {
public:
    Schedule(std::shared_ptr<ZooKeeperConnection> conn, testing::ZkServer& server, std::uint32_t seed)
        : m_conn(std::move(conn)), m_server(server), m_random(seed), m_service("schedule-" + std::to_string(seed)),
          m_writer(server.ConnectString(), m_service) {
        for (int i = 0; i < 100; ++i) Add();
        Recreate();
    }

    void Run(Step step, testing::Relay& relay) {
        switch (step) {
        case Step::ResetRelay: relay.Reset(); break;
        case Step::ShortFreeze:
        case Step::LongFreeze:
            relay.Blackhole();
            // The outage itself: shorter than the session, or long enough
            // for the server to end it.
            std::this_thread::sleep_for(step == Step::ShortFreeze ? milliseconds(1000) : kSession + seconds(2));
            relay.Heal();
            break;
        case Step::RestartServer:
            m_server.Stop();
            m_server.Start();
            break;
        case Step::Expire: ASSERT_TRUE(testing::ExpireSession(m_server.ConnectString(), *m_conn)); break;
        case Step::Churn: break;
        case Step::Recreate: Recreate(); break;
        }
        // Churn right after every step: while the session comes back, while
        // the new watcher reads, or on its own.
        const int writes = static_cast<int>(m_random() % 30);
        for (int i = 0; i < writes; ++i) Write();
    }

    // Both views equal the server's, and the watches are exactly the ones
    // needed; then no report so far repeats another.
    void ExpectQuiet(const std::string& where) {
        const auto truth = [this] { return m_writer.ReadTruth(); };
        ASSERT_TRUE(m_watched->Converges(truth, kQuiet)) << where;
        EXPECT_TRUE(m_watched->watcher.WaitSynced(kQuiet)) << where;
        EXPECT_TRUE(m_cache->WaitSynced(kQuiet)) << where;
        EXPECT_TRUE(testing::PollUntil([&] { return CacheHolds(m_writer.ReadTruth()); }, kQuiet)) << where << ": the cache";
        EXPECT_TRUE(HoldsExactWatches(*m_conn, m_server.ClientPort(), m_writer.ReadTruth().size(), 2)) << where;
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
    void Add() {
        const ServiceId id = m_generate();
        m_writer.Create(id, testing::MakeRecord(++m_version));
        m_live.push_back(id);
    }
    // Adds, changes or removes one instance. A write refused while the
    // server restarts is left out: the truth is read from the server.
    void Write() {
        const unsigned roll = m_random() % 100;
        try {
            if (m_live.empty() || roll < 35) return Add();
            std::swap(m_live[m_random() % m_live.size()], m_live.back());
            if (roll < 75) return m_writer.Set(m_live.back(), testing::MakeRecord(++m_version));
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
    testing::ZkServer& m_server;
    std::mt19937 m_random;
    boost::uuids::basic_random_generator<std::mt19937> m_generate{m_random};
    const std::string m_service;
    testing::InstanceWriter m_writer;
    std::vector<ServiceId> m_live;
    int m_version = 0;
    std::optional<testing::Watched<>> m_watched;
    std::optional<ServiceCache> m_cache;
};

TEST_F(ScheduleTest, RandomFaultsAndChurnKeepEveryViewExact) {
    const char* replay = std::getenv("FERROW_SCHEDULE_SEED");
    const char* forSeconds = std::getenv("FERROW_SCHEDULE_SECONDS");
    const auto until = std::chrono::steady_clock::now() + seconds(forSeconds ? std::atol(forSeconds) : 0);
    std::random_device entropy;
    // A small read window: the initial reads of a new watcher take longer,
    // so that churn and faults meet them.
    const auto conn = Open(16);
    for (int run = 0; replay ? run < 1 : forSeconds ? std::chrono::steady_clock::now() < until : run < 3; ++run) {
        const std::uint32_t seed = replay ? static_cast<std::uint32_t>(std::strtoul(replay, nullptr, 10)) : entropy();
        std::mt19937 draw(seed);
        std::vector<Step> steps;
        std::string names;
        for (int i = 0; i < 5; ++i) {
            steps.push_back(static_cast<Step>(draw() % std::size(kStepNames)));
            names += std::string(i == 0 ? "" : ", ") + kStepNames[static_cast<int>(steps.back())];
        }
        std::printf("[ schedule  ] seed %u (FERROW_SCHEDULE_SEED=%u replays it): %s\n", seed, seed, names.c_str());
        std::fflush(stdout);
        Schedule schedule(conn, *s_server, static_cast<std::uint32_t>(draw()));
        schedule.ExpectQuiet("seed " + std::to_string(seed) + " at the start");
        for (size_t i = 0; i < steps.size() && !HasFailure(); ++i) {
            schedule.Run(steps[i], relay);
            schedule.ExpectQuiet("seed " + std::to_string(seed) + " after step " + std::to_string(i + 1) + " (" +
                                            kStepNames[static_cast<int>(steps[i])] + ")");
        }
        ASSERT_FALSE(HasFailure()) << "replay with FERROW_SCHEDULE_SEED=" << seed;
    }
}

}  // namespace
}  // namespace ferrow
}  // namespace jx
