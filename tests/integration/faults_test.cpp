// A watcher following churning instances through real faults of an
// ensemble and of a server with more watches than one request holds: members
// killed, quorum lost, a member partitioned away, a server restarted (the
// faults of one relay and one server, drawn at random, are in
// schedule_test.cpp). One runner for
// every scenario: a publisher churns, an independent client reads the
// truth, and after each fault the watcher's picture and ListInstances must
// equal that truth within a bound; each fault is a row of parameters. The
// scale rows (thousands of instances through a restart) are labelled heavy;
// the soak row (memory and descriptors flat through repeated faults) runs
// only on request.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include <boost/uuid/random_generator.hpp>
#include <gtest/gtest.h>

#include "logger/log_handler.h"
#include "tests/support/recorder.h"
#include "tests/support/zk_server.h"

namespace jx {
namespace ferrow {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Servers = std::vector<std::unique_ptr<testing::ZkServer>>;
constexpr seconds kConvergenceBound{20};  // after the fault healed

// The relay faults act on the watcher's path alone: it reaches each server
// through a relay, while the publisher and the reader of the truth do not.
enum class Fault { KillLeader, KillFollower, LoseQuorum, Expire, Restart, RestartOrExpire, BlackholeItsServer };
// What must become of the watcher's session through each fault.
enum class Outcome { Any, Kept, Replaced };

struct Row {
    const char* name;
    int servers;           // 1: a standalone server; 3: the shared ensemble
    Fault fault;
    size_t preloaded;      // instances written before the watcher starts
    milliseconds session;  // the watcher's session timeout
    milliseconds outage;   // how long the stopped servers stay away
    int cycles;            // faults in a row; 0: until FERROW_SOAK_SECONDS (600) pass
    Outcome outcome = Outcome::Any;
};
std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }

// Instances joining, changing and leaving one service, written by one thread
// through a writer of its own (persistent nodes: the truth does not depend
// on the publisher's session). A write that fails, as in an outage, is
// counted and the churn goes on after a short pause.
class Churn {
public:
    Churn(const std::string& connect, const std::string& service, const testing::InstanceMap& live)
        : m_writer(connect, service, milliseconds(4000)) {
        for (const auto& entry : live) m_live.push_back(entry.first);
    }
    ~Churn() { Stop(); }
    void Start() {
        m_stop = false;
        m_thread = std::thread([this] { Run(); });
    }
    void Stop() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
    }
    // Waits until `count` more writes than now have succeeded.
    bool AwaitProgress(std::uint64_t count) const {
        const std::uint64_t target = m_succeeded + count;
        return testing::PollUntil([&] { return m_succeeded >= target; }, seconds(60));
    }
    std::atomic<std::uint64_t> m_failed{0};

private:
    void Run() {
        for (int version = 0; !m_stop; ++version) {
            const bool create = m_live.empty() || (m_live.size() < 60 && m_random() % 100 < 40);
            // The instance written is the last: a new one, or one drawn at random.
            if (create) m_live.push_back(m_generate());
            else std::swap(m_live[m_random() % m_live.size()], m_live.back());
            const auto encoding = static_cast<testing::Encoding>(m_random() % 3);
            const unsigned roll = m_random() % 100;
            try {
                if (create) m_writer.Create(m_live.back(), testing::MakeRecord(version), encoding);
                else if (roll < 60) m_writer.Set(m_live.back(), testing::MakeRecord(version), encoding);
                else m_writer.Remove(m_live.back());
                if (!create && roll >= 60) m_live.pop_back();
                ++m_succeeded;
            } catch (const std::runtime_error&) {
                // Whether the write took place is unknown: the instance is
                // no longer churned, and the truth says whether it exists.
                m_live.pop_back();
                ++m_failed;
                std::this_thread::sleep_for(milliseconds(20));  // paces retries through an outage
            }
        }
    }

    testing::InstanceWriter m_writer;
    std::vector<ServiceId> m_live;  // touched by the thread only
    std::mt19937 m_random{20261122};
    boost::uuids::basic_random_generator<std::mt19937> m_generate{m_random};
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint64_t> m_succeeded{0};
    std::thread m_thread;
};

// The index of the member that serves as leader (or standalone), waiting for an election.
size_t Leader(const Servers& servers) {
    size_t leader = 0;
    testing::PollUntil([&] {
        for (leader = 0; leader < servers.size(); ++leader) {
            if (servers[leader]->Running() && servers[leader]->Mode() == (servers.size() == 1 ? "standalone" : "leader")) return true;
        }
        return false;
    }, seconds(60), milliseconds(50));
    return leader;
}

// The index of a member other than `skip` that serves `session`, by its
// "cons" listing; servers.size() when none does.
size_t Holder(const Servers& servers, std::int64_t session, size_t skip) {
    char sid[32];
    std::snprintf(sid, sizeof sid, "sid=0x%llx,", static_cast<unsigned long long>(session));
    for (size_t i = 0; i < servers.size(); ++i) {
        if (i != skip && testing::FourLetterWord(servers[i]->ClientPort(), "cons").find(sid) != std::string::npos) return i;
    }
    return servers.size();
}

// Resident memory (KiB) and open descriptors of this process.
std::pair<long, long> Usage() {
    long size = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return {resident * (::sysconf(_SC_PAGESIZE) / 1024), std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})};
}

class FaultTest : public ::testing::TestWithParam<Row> {
protected:
    static void SetUpTestSuite() { logging::SetMinimumLoggingLevel(logging::JXLOG_ERROR); }
    static void TearDownTestSuite() { s_ensemble.clear(); }
    static inline Servers s_ensemble;  // shared by the rows on an ensemble
};

TEST_P(FaultTest, WatcherAgreesWithTheTruthAfterEachFault) {
    const Row& row = GetParam();
    Servers standalone;
    if (row.servers == 1) standalone.push_back(std::make_unique<testing::ZkServer>());
    if (row.servers > 1 && s_ensemble.empty()) s_ensemble = testing::ZkServer::Ensemble(row.servers);
    Servers& servers = row.servers == 1 ? standalone : s_ensemble;
    std::string connect;
    for (auto& server : servers) server->Launch(), connect += (connect.empty() ? "" : ",") + server->ConnectString();
    for (auto& server : servers) server->Start();

    testing::InstanceWriter truth(connect, row.name);
    testing::InstanceMap preloaded;
    boost::uuids::random_generator generate;
    for (size_t i = 0; i < row.preloaded; ++i) preloaded.emplace(generate(), testing::MakeRecord(static_cast<int>(i)));
    truth.CreateAll(preloaded);
    const auto started = std::chrono::steady_clock::now();
    std::vector<std::unique_ptr<testing::Relay>> relays;
    std::string relayed;
    for (size_t i = 0; row.fault == Fault::BlackholeItsServer && i < servers.size(); ++i) {
        relays.push_back(std::make_unique<testing::Relay>(servers[i]->ClientPort()));
        relayed += (relayed.empty() ? "" : ",") + relays.back()->ConnectString();
    }
    testing::Watched watched(testing::Connect(relays.empty() ? connect : relayed, row.session), row.name, row.cycles != 0);
    // Once the view is complete, everything preloaded has been reported.
    ASSERT_TRUE(watched.watcher.WaitSynced(seconds(120)));
    std::printf("[ watching  ] %zu instances in %.1f s\n", row.preloaded,
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    ASSERT_TRUE(watched.Converges([&] { return preloaded; }, seconds(0)));

    Churn churn(connect, row.name, preloaded);
    const char* soak = std::getenv("FERROW_SOAK_SECONDS");
    const auto until = started + seconds(soak != nullptr ? std::atol(soak) : 600);
    std::vector<std::pair<long, long>> usage;  // after each cycle
    for (int cycle = 0; row.cycles == 0 ? std::chrono::steady_clock::now() < until : cycle < row.cycles; ++cycle) {
        churn.Start();
        ASSERT_TRUE(churn.AwaitProgress(40)) << "the publisher made no progress";
        const Fault fault = row.fault != Fault::RestartOrExpire ? row.fault : cycle % 2 == 0 ? Fault::Restart : Fault::Expire;
        const size_t leader = Leader(servers), follower = (leader + 1) % servers.size();
        const std::vector<size_t> stopped = fault == Fault::KillLeader ? std::vector<size_t>{leader}
                                            : fault == Fault::KillFollower ? std::vector<size_t>{follower}
                                            : fault == Fault::LoseQuorum ? std::vector<size_t>{leader, follower}
                                            : fault == Fault::Restart ? std::vector<size_t>{0}
                                                                      : std::vector<size_t>{};
        const std::int64_t session = watched.conn->SessionId();
        if (fault == Fault::Expire) {
            ASSERT_TRUE(testing::ExpireSession(connect, *watched.conn));
        }
        if (fault == Fault::BlackholeItsServer) {
            const size_t held = Holder(servers, session, servers.size());
            ASSERT_LT(held, servers.size());
            relays[held]->Blackhole();
            const auto cut = std::chrono::steady_clock::now();
            ASSERT_TRUE(testing::PollUntil([&] { return Holder(servers, session, held) < servers.size(); }, seconds(60)));
            std::printf("[ moved     ] away from server %zu after %.1f s\n", held,
                        std::chrono::duration<double>(std::chrono::steady_clock::now() - cut).count());
            relays[held]->Heal();
        }
        for (size_t i : stopped) servers[i]->Stop();
        if (fault == Fault::KillLeader || fault == Fault::KillFollower) {
            ASSERT_TRUE(churn.AwaitProgress(40)) << "no progress with one member down";
        }
        std::this_thread::sleep_for(row.outage);  // the outage itself, not a wait for an outcome
        for (size_t i : stopped) servers[i]->Start();
        const auto healed = std::chrono::steady_clock::now();
        ASSERT_TRUE(churn.AwaitProgress(20));
        churn.Stop();
        ASSERT_TRUE(watched.Converges([&truth] { return truth.ReadTruth(); }, kConvergenceBound)) << "within the bound after the last write";
        EXPECT_TRUE(watched.watcher.WaitSynced(kConvergenceBound)) << "complete again after the fault";
        const auto state = watched.recorder->Snapshot();
        const bool kept = watched.conn->SessionId() == session;
        std::printf("[ converged ] %s cycle %d: %.1f s after the fault healed; %zu instances, %llu failed writes, "
                    "%zu reports; session %s\n", row.name, cycle,
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - healed).count(), state.picture.size(),
                    static_cast<unsigned long long>(churn.m_failed), state.reports, kept ? "kept" : "replaced");
        EXPECT_TRUE(state.errors.empty()) << "the error handler was called, first with " << state.errors.front();
        EXPECT_TRUE(row.outcome == Outcome::Any || kept == (row.outcome == Outcome::Kept)) << (kept ? "kept" : "replaced");
        EXPECT_EQ(watched.conn->PendingWatchCount(), state.picture.size() + 1) << "the service and each instance, nothing left behind";
        usage.push_back(Usage());
    }
    // The soak: after a warm-up third of the run, resident memory and open
    // descriptors stay flat (allocator noise aside, never a leak per fault).
    for (size_t i = usage.size() / 3; row.cycles == 0 && i < usage.size(); ++i) {
        EXPECT_LE(usage[i].first, usage[usage.size() / 3].first + 8 * 1024) << "KiB resident after cycle " << i;
        EXPECT_LE(usage[i].second, usage[usage.size() / 3].second + 4) << "descriptors after cycle " << i;
    }
}

// The session timeout is the server's minimum (two ticks of 2 s), so that
// outages longer than it are cheap to produce. The client gives up a silent
// connection after two thirds of its session timeout: with kNoticed, it does
// so well before the server would end the session.
constexpr milliseconds kShort{4000}, kNoticed{12000}, kLong{30000}, kOutage{6000}, kNone{0};

INSTANTIATE_TEST_SUITE_P(Ensemble, FaultTest, ::testing::Values(
    Row{"LeaderKilled", 3, Fault::KillLeader, 0, kShort, kNone, 1},
    Row{"FollowerKilled", 3, Fault::KillFollower, 0, kShort, kNone, 1},
    Row{"QuorumLostLongerThanTheSession", 3, Fault::LoseQuorum, 0, kShort, kOutage, 1},
    Row{"PathToItsServerBlackholed", 3, Fault::BlackholeItsServer, 0, kNoticed, kNone, 1, Outcome::Kept}));
// Past about 9,000 instances their watches no longer fit in the request that
// re-registers them after a reconnection: the connection re-arms them itself.
INSTANTIATE_TEST_SUITE_P(Standalone, FaultTest, ::testing::Values(
    Row{"RestartedLongerThanTheSession", 1, Fault::Restart, 0, kShort, kOutage, 1},
    Row{"RestartedWithMoreWatchesThanOneRequestHolds", 1, Fault::Restart, 10000, kLong, kNone, 1}));
INSTANTIATE_TEST_SUITE_P(Scale, FaultTest, ::testing::Values(Row{"Scale25000", 1, Fault::Restart, 25000, kLong, kNone, 1}));
INSTANTIATE_TEST_SUITE_P(Soak, FaultTest, ::testing::Values(
    Row{"Soak", 1, Fault::RestartOrExpire, 0, kShort, milliseconds(5000), 0}));

}  // namespace
}  // namespace ferrow
}  // namespace jx
